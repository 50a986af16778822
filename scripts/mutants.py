"""What scripts/mutants runs: builds what a fault touches in `release`, in a copy below build/mutants,
and runs the tests until one fails, those that mirror the fault's folder first, the slowest last. A
fault that does not compile, or changes no object file, counts as not planted, and another is drawn.
The choice depends on SEED and the text of src alone. Results are appended to
build/mutants/SEED-HASH.txt (HASH: of all files but the pages), so that an interrupted run resumes.
"""
import hashlib, itertools, json, os, pathlib, re, shutil, signal, subprocess, sys, time

work = pathlib.Path("build/mutants").resolve()
tree, pristine = work / "tree", work / "wine"
build, prefix = tree / "build/release", tree / "build/release/wine"
turned = dict(zip(("==", "!=", "<", "<=", ">", ">=", "true", "false"),
                  ("!=", "==", "<=", "<", ">=", ">", "false", "true")))


def run(*command, timeout=None, **options):
    """Returns the exit status, or "time-out" after ending the whole group of processes."""
    child = subprocess.Popen(command, start_new_session=True, stdin=subprocess.DEVNULL,
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **options)
    try:
        return child.wait(timeout)
    except BaseException as error:
        os.killpg(child.pid, signal.SIGKILL)
        if not isinstance(error, subprocess.TimeoutExpired):
            raise
        return "time-out"


def ninja(*targets):
    return run("ninja", "-C", build, *targets, timeout=1800) == 0


def masked(text):
    """Returns the text, comments, quoted texts and preprocessor lines blanked, in the same length."""
    pattern = (r'//[^\n]*|/\*.*?\*/|R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"'
               r"|(?<![0-9a-fA-F])'(?:\\.|[^'\\\n])+'|^[ \t]*#(?:\\\n|[^\n])*")
    return re.sub(pattern, lambda m: re.sub(r"[^\n]", " ", m[0]), text, flags=re.S | re.M)


def faults_in(code):
    """Yields (kind, first, last, replacement) of each fault that this source can have."""
    for m in re.finditer(r"(?<= )(==|!=|<=|>=|<|>)(?=\s)", code):
        yield "comparison", m.start(), m.end(), turned[m[0]]
    for m in re.finditer(r"(?<!['.])\b(?<!\) = )(?<!\) const = )(?<!\) noexcept = )"
                         r"(true|false|0x[0-9A-Fa-f]+|\d+)(?=(?:[uU]?[lL]{0,2}|ms|s|min|h)\b)(?!['.])", code):
        yield "constant", m.start(), m.end(), turned.get(m[0]) or str(int(m[0], 0) + 1)
    for m in re.finditer(r"(?:^[ \t]+|(?<=\) )|(?<=else ))"
                         r"([A-Za-z_][\w:.]*(?:(?:->|\(\)\.|\(\)->)[\w.]+)*)\(", code, re.M):
        depths = itertools.accumulate((c == "(") - (c == ")") for c in code[m.end() - 1:])
        end = m.end() + next(at for at, depth in enumerate(depths) if depth == 0)
        if code[end:end + 1] == ";" and m[1] != "static_assert":
            yield "call", m.start(1), end + 1, "{}" + "\n" * code.count("\n", m.start(1), end)
    for m in re.finditer(r"(?<![=!<>\w])!(?=[\w(*:])", code):
        yield "negation", m.start(), m.end(), ""


def draw(seed):
    """Yields all faults: the kinds in turn, each in an order given by the seed and the line's text."""
    kinds = {"comparison": [], "constant": [], "call": [], "negation": []}
    for path in sorted([*tree.glob("src/**/*.cpp"), *tree.glob("src/**/*.h")]):
        name, text = str(path.relative_to(tree)), path.read_text()
        if name.startswith("src/platform/windows/") or name.endswith("_abi.h"):
            continue  # what calls Windows, and what only repeats its tables
        for kind, first, last, new in faults_in(masked(text)):
            start = text.rfind("\n", 0, first) + 1
            around = f"{seed}|{kind}|{name}|{text[start:text.find(chr(10), first)]}|{first - start}"
            title = (f"{name}:{text.count(chr(10), 0, first) + 1}:{first - start + 1} {kind} "
                     f"'{' '.join(text[first:last].split())[:60]}' -> '{new.strip()}'")
            kinds[kind].append((hashlib.sha256(around.encode()).hexdigest(), first, last, new, name, title))
    rows = itertools.zip_longest(*(sorted(faults) for faults in kinds.values()))
    return (fault[1:] for row in rows for fault in row if fault)


def copy_checkout():
    """Makes the copy like the checkout, touching only files that differ; returns its hash."""
    listed = subprocess.check_output(["git", "ls-files"], text=True).splitlines()
    texts = {name: pathlib.Path(name).read_bytes() for name in listed if os.path.isfile(name)}
    for old in [*tree.glob("*/**/*"), *tree.glob("*")]:
        if old.is_file() and tree / "build" not in old.parents and str(old.relative_to(tree)) not in texts:
            old.unlink()
    for name, text in texts.items():
        target = tree / name
        target.parent.mkdir(parents=True, exist_ok=True)
        if not target.exists() or target.read_bytes() != text:
            shutil.copy(name, target)
    parts = (name.encode() + text for name, text in texts.items() if not name.endswith(".md"))
    return hashlib.sha256(b"".join(parts)).hexdigest()[:12]


def objects():
    return hashlib.sha256(b"".join(f.read_bytes() for f in sorted(build.glob("src/**/*.obj")))).digest()


def judge(name, tests):
    """Returns what became of the fault in the source NAME."""
    near = "tests/" + name.split("/")[1]
    for test in sorted(tests, key=lambda test: (test["folder"] != str(build / near), test["seconds"])):
        if not ninja(*([f"{near}/all"] if test["folder"] == str(build / near) else [])):
            return f"killed by the build of {test['name']}"
        status = run(*test["command"], cwd=test["folder"], timeout=60 + 4 * test["seconds"])
        if status != 0:  # what the test may have left behind is not for the next fault
            run("wineserver", "-k", env={**os.environ, "WINEPREFIX": str(prefix)}, timeout=60)
            shutil.rmtree(prefix)
            run("cp", "-a", pristine, prefix)
            return f"killed by {test['name']}" + (", time-out" if status == "time-out" else "")
    return "survived"


def main(count, seed):
    log = work / f"{seed}-{copy_checkout()}.txt"
    done = dict(line.rsplit(" | ", 1) for line in log.read_text().splitlines()) if log.exists() else {}
    # No warnings, so that an unused variable does not keep a fault from being planted.
    if run("cmake", "--preset", "release", "-DCMAKE_CXX_FLAGS=-w", cwd=tree) or not ninja():
        sys.exit("the sources do not build without a fault")
    tests = json.loads(subprocess.check_output(["ctest", "--show-only=json-v1"], cwd=build))["tests"]
    for test in tests:
        test["folder"] = next(p["value"] for p in test["properties"] if p["name"] == "WORKING_DIRECTORY")
        start = time.monotonic()
        if run(*test["command"], cwd=test["folder"], timeout=900) != 0:
            sys.exit(f"{test['name']} fails without a fault")
        test["seconds"] = time.monotonic() - start
    run("wineserver", "-w", env={**os.environ, "WINEPREFIX": str(prefix)}, timeout=120)
    shutil.rmtree(pristine, ignore_errors=True)
    run("cp", "-a", prefix, pristine)
    sources = [f"src/{folder.name}/all" for folder in (build / "src").iterdir() if folder.is_dir()]
    faultless, results = objects(), {}
    for first, last, new, name, title in itertools.takewhile(lambda _: len(results) < count, draw(seed)):
        if title not in done:
            text = (tree / name).read_text()
            try:
                (tree / name).write_text(text[:first] + new + text[last:])
                planted = ninja(*sources) and objects() != faultless
                done[title] = judge(name, tests) if planted else "not planted"
            finally:
                (tree / name).write_text(text)
            log.open("a").write(f"{title} | {done[title]}\n")
            print(f"{title} | {done[title]}", flush=True)
        if done[title] != "not planted":
            results[title] = done[title]
    survivors = [title for title, result in results.items() if result == "survived"]
    print(f"{len(results) - len(survivors)} of {len(results)} killed; survivors:", *survivors, sep="\n  ")


main(int(sys.argv[1]), sys.argv[2])
