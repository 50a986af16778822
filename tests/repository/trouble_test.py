#!/usr/bin/python3
"""trouble_test.py ROOT: fails if a line of the trouble table in docs/operations.md is not in the code, or
not in any test or transcript, because operators search for the lines that the manual quotes."""

import pathlib
import re
import sys

# The parts of a line that vary, as the manual, a format string and a test write them.
VARIABLE = re.compile(r"%[-0-9.]*[A-Za-z]|\b0x[0-9A-Fa-f]*\b|\b\d+\b|\bN\b|\.\.\.")

# Also matches comments and character literals, so that a quote in one does not start a string.
LITERALS = re.compile(
    r'//[^\n]*|/\*.*?\*/|\'(?:[^\'\\\n]|\\.)\'|R"\(.*?\)"|(?:L?"(?:[^"\\\n]|\\.)*"\s*)+', re.S)


def pieces(text):
    """Returns the fixed parts of a line."""
    return [piece.strip() for piece in VARIABLE.split(text) if re.search(r"\w", piece)]


def texts(source):
    """Yields the literals of a C++ source, with adjacent ones joined."""
    for match in LITERALS.finditer(source):
        if match[0][0] in 'LR"':
            literal = re.sub(r'"\s*L?"|^L?"|"\s*$', "", match[0])
            yield VARIABLE.sub("...", literal.replace('\\"', '"'))


def load(root, patterns):
    """Returns the texts of each file, one per line."""
    quoted = {}
    for path in (path for pattern in patterns for path in root.glob(pattern)):
        content = path.read_text(encoding="utf-8")
        if path.suffix in (".cpp", ".h"):
            content = "\n".join(texts(content))
        elif path.suffix == ".sh":
            content = re.sub(r"^\s*#.*", "", content, flags=re.M)
        quoted[path] = content
    return quoted


def table(page):
    """Returns the quoted lines in the table's first column."""
    rows = re.search(r"\n## Trouble\n(.*?)(\n## |\Z)", page, re.S)[1].split("\n")
    return [line for row in rows if row.startswith("| ") for line in re.findall("`(.*?)`", row.split(" | ")[0])]


def main():
    root = pathlib.Path(sys.argv[1])
    code = load(root, ["src/**/*.cpp", "src/**/*.h", "standins/*.cpp", "hosting/*.cpp", "servicehost/*.cpp", "vxhost/**/*.cpp", "vxhost/**/*.h"])
    tests = load(root, ["tests/**/*.cpp", "tests/**/*.h", "tests/**/*.sh", "tests/*/scenarios/*.txt",
                        "vxhost/scenarios/*.txt"])
    lines = table((root / "docs/operations.md").read_text(encoding="utf-8"))
    faults = [] if len(lines) > 40 else [f"only {len(lines)} lines found"]
    for line in lines:
        fixed = pieces(line.removeprefix("vxhost: "))  # the prefix of the program's errors
        if max(map(len, fixed), default=0) < 10:
            faults.append(f"too short to be found: {line}")
        elif not all(any(piece in text for text in code.values()) for piece in fixed):
            faults.append(f"not a text of the code: {line}")
        # A test may omit the component's name.
        elif not any(all(re.sub(r"^(.* )?- ", "", piece) in text for piece in fixed) for text in tests.values()):
            faults.append(f"no test looks at it: {line}")
    sys.exit("\n".join(faults) or 0)


main()
