"""Run by scripts/mutants. Clones the checked-out commit below build/mutants, builds there (`release`)
what each fault affects, and runs the tests (under the command MUTANTS_UNDER, if set) until one fails:
first those of the fault's folder, the slowest last. A fault that does not compile or changes no object
file is replaced by another. A timed-out test ends that fault's run but does not kill the fault. After
MINUTES, no new fault is tried, and the next call resumes: build/mutants keeps the tests' times
(COMMIT.json) and the results (SEED-COMMIT.txt). SEED and the sources' text select the faults.
"""
import hashlib, itertools, json, os, pathlib, re, shutil, subprocess, sys, time

under, kTimeOuts = os.environ.get("MUTANTS_UNDER", "").split(), (124, 137)
work = pathlib.Path("build/mutants").resolve()
tree, prefixes = work / "tree", ("wine", "wine-lone", "wine-kit")
build = tree / "build/release"
ninja = ("ninja", "-C", build)
product = ("src", "servicehost", "vxhost/service")
built = ("src", "servicehost", "vxhost/CMakeFiles/tool_service.dir")
turned = dict(zip("== != < <= > >= true false".split(), "!= == <= < >= > false true".split()))


def in_folders(root, folders, ending):
    return sorted(file for folder in folders for file in (root / folder).glob("**/*" + ending))


def objects():
    return hashlib.sha256(b"".join(file.read_bytes() for file in in_folders(build, built, ".obj"))).hexdigest()


def run(*command, seconds=1800, **options):
    """Returns the exit status, which is one of kTimeOuts if the command ran out of time and was killed."""
    quiet = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.DEVNULL)
    return subprocess.call([*under, "timeout", "--foreground", "-k5", f"{seconds:.0f}", *command], **quiet, **options)


def masked(text):
    """Returns the text with comments, literals and preprocessor lines blanked, at its full length."""
    pattern = (r'//[^\n]*|/\*.*?\*/|R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"'
               r"|(?<![0-9a-fA-F])'(?:\\.|[^'\\\n])+'|^[ \t]*#(?:\\\n|[^\n])*")
    return re.sub(pattern, lambda m: re.sub(r"[^\n]", " ", m[0]), text, flags=re.S | re.M)


def faults_in(code):
    """Yields (kind, first, last, replacement) for each fault that this source can have."""
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
    """Yields all faults, alternating between the kinds, in an order set by the seed and the line's text."""
    kinds = {"comparison": [], "constant": [], "call": [], "negation": []}
    for path in in_folders(tree, product, ".cpp") + in_folders(tree, product, ".h"):
        name, text = str(path.relative_to(tree)), path.read_text()
        if name.startswith("src/platform/windows/") or name.endswith("_abi.h"):
            continue  # calls to Windows, and copies of its tables
        for kind, first, last, new in faults_in(masked(text)):
            start = text.rfind("\n", 0, first) + 1
            around = f"{seed}|{kind}|{name}|{text[start:text.find(chr(10), first)]}|{first - start}"
            title = (f"{name}:{text.count(chr(10), 0, first) + 1}:{first - start + 1} {kind} "
                     f"'{' '.join(text[first:last].split())[:60]}' -> '{new.strip()}'")
            kinds[kind].append((hashlib.sha256(around.encode()).digest(), first, last, new, name, title))
    rows = itertools.zip_longest(*map(sorted, kinds.values()))
    return (fault[1:] for row in rows for fault in row if fault)


def check_out():
    """Updates the clone to the commit checked out here, and returns it. Touches only files that differ."""
    commit = subprocess.check_output(["git", "rev-parse", "HEAD"], text=True).strip()
    if not tree.exists():
        subprocess.check_call(["git", "clone", "-q", "--no-checkout", ".", tree])
    subprocess.check_call(["git", "-C", tree, "fetch", "-q", os.getcwd(), commit])
    subprocess.check_call(["git", "-C", tree, "checkout", "-q", "-f", "--detach", commit])
    return commit[:12]


def use_prefixes(command):
    """Kills the processes in the Wine prefixes and restores them (-k), or waits for them and copies them (-w)."""
    for prefix in prefixes:
        run("wineserver", command, env={**os.environ, "WINEPREFIX": str(build / prefix)})
        places = [work / prefix, build / prefix]
        source, target = places if command == "-k" else reversed(places)
        shutil.rmtree(target, ignore_errors=True)
        run("cp", "-a", source, target)


def failure(test, near):
    """Builds and runs a test for a fault that the folder NEAR tests. Returns what failed, or an empty string."""
    at = "the build of " + test["name"]
    status = run(*ninja, *([os.path.relpath(near, build) + "/all", "vxhost"] if test["folder"] == near else []))
    if status == 0:
        at, status = test["name"], run(*test["command"], cwd=test["folder"], seconds=60 + 4 * test["seconds"])
    if status == 0:
        return ""
    use_prefixes("-k")  # so that nothing left by this test affects the next run
    return f"time-out of {at}" if status in kTimeOuts else f"killed by {at}"


def judge(path, fault, hashed, tests):
    """Plants the fault in the source at PATH and returns the outcome."""
    name, text = path.relative_to(tree).parts, path.read_text()
    near = str(build / "tests" / (name[1] if name[0] == "src" else "servicehost"))
    sources = [f"src/{folder.name}/all" for folder in (build / "src").iterdir() if folder.is_dir()]
    sources += ["servicehost/all", "tool_service"]
    try:
        path.write_text(fault)
        if run(*ninja, *sources) != 0 or objects() == hashed:
            return "not planted"
        for test in sorted(tests, key=lambda test: (test["folder"] != near, test["seconds"])):
            if outcome := failure(test, near):
                break
        else:
            return "survived"
    finally:
        path.write_text(text)
    return f"{test['name']} fails with and without the fault" if failure(test, near) else outcome


def faultless():
    """Builds all without warnings, because a fault may cause one. Returns the objects' hash and the tests' times."""
    if run("cmake", "--preset", "release", "-DCMAKE_CXX_FLAGS=-w", cwd=tree) or run(*ninja):
        sys.exit("the sources do not build without a fault")
    tests = json.loads(subprocess.check_output(["ctest", "--show-only=json-v1"], cwd=build))["tests"]
    for test in tests:
        test["folder"] = next(p["value"] for p in test["properties"] if p["name"] == "WORKING_DIRECTORY")
        start = time.monotonic()
        if run(*test["command"], cwd=test["folder"], seconds=900) != 0:
            sys.exit(f"{test['name']} fails without a fault")
        test["seconds"] = time.monotonic() - start
    use_prefixes("-w")
    return objects(), tests


def main(count, seed, minutes):
    end, commit = time.monotonic() + 60 * minutes, check_out()
    log, kept, results = work / f"{seed}-{commit}.txt", work / f"{commit}.json", {}
    if not kept.exists():
        kept.write_text(json.dumps(faultless()))
    hashed, tests = json.loads(kept.read_text())
    use_prefixes("-k")
    done = dict(line.rsplit(" | ", 1) for line in log.read_text().splitlines()) if log.exists() else {}
    for first, last, new, name, title in draw(seed):
        if len(results) == count or time.monotonic() > end:
            break
        if title not in done:
            text = (tree / name).read_text()
            done[title] = judge(tree / name, text[:first] + new + text[last:], hashed, tests)
            log.open("a").write(f"{title} | {done[title]}\n")
            print(f"{title} | {done[title]}", flush=True)
        if done[title] != "not planted":
            results[title] = done[title]
    others = [f"{result}: {title}" for title, result in results.items() if not result.startswith("killed")]
    print(f"{len(results) - len(others)} of {len(results)} killed; others:", *others, sep="\n  ")


main(int(sys.argv[1]), sys.argv[2], float(sys.argv[3]))
