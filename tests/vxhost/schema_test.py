"""schema_test.py VXHOST SCHEMAS TESTS EMULATOR...: the output of vxhost, the requests and answers of
the sample scenarios, and every scenario of the project match the schemas, which reject what vxhost rejects."""

import json
import pathlib
import re
import subprocess
import sys
import tempfile

try:
    from jsonschema import Draft202012Validator
except ImportError as error:
    sys.exit(f"{error}: scripts/test installs it")

vxhost, schemas, tests, *emulator = sys.argv[1:]
if not pathlib.Path(vxhost).exists():
    sys.exit(f"{vxhost} is missing: build it with scripts/build")
tests = pathlib.Path(tests)
samples = tests.parent / "vxhost" / "scenarios"
# Not signed_*: validate_test creates and deletes their programs on this machine at the same time.
subscriptions = sorted((tests / "vxhost" / "subscriptions").glob("[0-9]*.json"))
failures = []


def load(name):
    schema = json.loads((pathlib.Path(schemas) / f"{name}.schema.json").read_text(encoding="utf-8"))
    Draft202012Validator.check_schema(schema)
    return schema


SCHEMAS = {name: load(name) for name in ("scenario", "requests", "answers", "outputs")}


def faults(value, name, part=None):
    schema = SCHEMAS[name]
    if part is not None:
        schema = {"$ref": f"#/$defs/{part}", "$defs": schema["$defs"]}
    return [error.message[:300] for error in Draft202012Validator(schema).iter_errors(value)]


def expect(value, valid, what, name, part=None):
    found = faults(value, name, part)
    if bool(found) == valid:
        failures.append(what)
        print(f"failed: {what} should be {'' if valid else 'in'}valid by {name} {part or ''}: {found}")


def run(*arguments, code=0):
    """Runs vxhost, which must exit with `code`. Returns the objects that it prints, and its standard error."""
    done = subprocess.run([*emulator, vxhost, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          cwd=tests / "vxhost", check=False)
    lines = done.stdout.decode().splitlines()
    if not lines or code not in (None, done.returncode):
        failures.append(arguments)
        print(f"failed: vxhost {arguments} exits with {done.returncode}, wanted {code}, and prints {len(lines)} "
              f"results: {done.stderr.decode()}")
    return [json.loads(line) for line in lines], done.stderr.decode()


def check_outputs():
    program = "Z:" + vxhost.replace("/", "\\")
    for part, (code, *arguments) in {
            "exec": (1, "--simulate", "exec", "99"),
            "events": (0, "--simulate", "events", "--power", "18", "--seconds", "1"),
            "doctor": (1, "--simulate", "doctor"),
            "validate": (1, "--simulate", "validate", *(f"@subscriptions/{path.name}" for path in subscriptions)),
            "trust": (1, "trust", program),
            "pin": (1, "pin", program),
            "pins": (0, "pins"),
            "history": (0, "history", "history/service.log"),
            "explain-resume": (0, "explain", "resume"),
            "service-status": (1, "service", "status", "--name", "VxNone"),
            "error": (2, "exec", "22", "--dll", "missing.dll"),
    }.items():
        results, _ = run(*arguments, "--json", code=code)
        for result in results:
            expect(result, True, f"vxhost {' '.join(arguments[:3])}", "outputs", part)
        if part != "validate":
            continue
        for path, result in zip(subscriptions, results, strict=True):
            if not result["runs"] or any(finding["verdict"] == "hint" for finding in result["findings"]):
                continue
            request = json.loads(path.read_text(encoding="utf-8"))
            kind = next(k for k, key in ((9, "powerEventType"), (14, "zephraEventType"), (7, "catalogEvent"))
                        if key in request)
            expect(request, True, path.name, "requests", f"command{kind}")


def check_stored():
    with tempfile.TemporaryDirectory() as folder:
        store = "Z:" + folder.replace("/", "\\")
        trigger = ("--send", "f", "--app-service", "s", "--trigger", "{01234567-89ab-cdef-0123-456789abcdef}")
        for path in subscriptions:
            command = "14" if "zephraEventType" in path.read_text(encoding="utf-8") else "9"
            run("--store", store, "exec", command, f"@subscriptions/{path.name}", "--json", code=None)
        run("--store", store, "subscriptions", "add", "--power", "7", "--delay", "2147486", "--force", *trigger, "--json")
        for part, arguments in {
                "subscriptions-add": ("subscriptions", "add", "--platform", "1", *trigger),
                "explain": ("explain", "--all"),
                "subscriptions": ("subscriptions",),
                "store-show": ("store", "show"),
                "store-verify": ("store", "verify"),
                "subscriptions-remove": ("subscriptions", "remove", "2"),
        }.items():
            for result in run("--store", store, *arguments, "--json")[0]:
                expect(result, True, f"vxhost {' '.join(arguments)}", "outputs", part)
        judged = [[[row["hash"], row["verdict"], row["reasons"]] for row in run("--store", store, *arguments, "--json")[0]]
                  for arguments in (("subscriptions",), ("explain", "--all"))]
        if judged[0] != judged[1] or {verdict for _, verdict, _ in judged[0]} != {"run", "dropped", "refused", "never"}:
            failures.append(judged)
            print(f"failed: subscriptions and explain judge otherwise or too little: {judged}")
        exported = pathlib.Path(folder) / "export.json"
        exported.write_text(json.dumps(run("--store", store, "store", "export", "--json")[0][0]), encoding="utf-8")
        for result in run("--store", store, "store", "import", "Z:" + str(exported).replace("/", "\\"), "--json")[0]:
            expect(result, True, "vxhost store import", "outputs", "store-restore")
        long = pathlib.Path(folder) / "long.json"
        long.write_text(json.dumps({"powerEventType": 7, "x": "x" * 70000}), encoding="utf-8")
        run("--store", store, "exec", "9", "@Z:" + str(long).replace("/", "\\"), "--json", code=1)
        part = run("--store", store, "exec", "20", "--json")[0][0]["answer"]
        expect(part, True, "a part of the subscriptions", "answers", "command20")
        if part["result"].get("omitted") != 1:
            failures.append(part)
            print(f"failed: the long subscription is not left out of {part}")


def check_samples():
    """Checks every request that a sample sends successfully, and the answer."""
    names = ["first_boot", "packages", "born_on_date", "consent", "policy", "signed_program", "standby"]
    plays = run("--simulate", "scenario", *(f"{samples}/{name}.json" for name in names), "--json")
    every = run("--private-store", "scenario", f"{samples}/every_command.json", "--json")
    for report in plays[0] + every[0]:
        expect(report, True, "the report of a sample", "outputs", "scenario")
        logged = ""
        for entry in (entry for step in report["steps"] for entry in step["entries"]):
            logged += entry.get("message", "")
            if entry["kind"] != "command":
                continue
            part = f"command{entry['id']}"
            # The module accepted the request, but logged what is wrong with it.
            doubted = f"function id {entry['id']}: " in logged
            logged = ""
            if entry["code"] == "0x00000000":
                expect(entry["answer"], True, f"the answer of {part}", "answers", part)
                if entry["request"].startswith("{"):
                    expect(json.loads(entry["request"]), not doubted, entry["request"], "requests", part)
            elif entry["answer"] is not None:
                expect(entry["answer"], True, f"the answer of a failed {part}", "answers", "none")
    for line in plays[1].splitlines():
        if line.startswith('{"time"'):
            expect(json.loads(line), True, line, "outputs", "watch")


def check_scenarios():
    for file in [*samples.glob("*.json"), *tests.glob("*/scenarios/*.json")]:
        expect(json.loads(file.read_text(encoding="utf-8")), True, file.name, "scenario")
    # A schema cannot detect an undefined name or a call after the end.
    unseen = {12, 22}
    scenario = json.loads((tests / "vxhost/faults/simulated.json").read_text(encoding="utf-8"))
    listed = (tests / "vxhost/faults/simulated.txt").read_text(encoding="utf-8")
    for number, step in enumerate(scenario["steps"], 1):
        refused = f"step {number}:" in listed or f"step {number}," in listed
        expect(step, not refused or number in unseen, f"step {number} of the faults", "scenario", "step")


def check_page():
    """Checks that the table in docs/vxhost.md names each output with its schema and members."""
    page = (tests.parent / "docs" / "vxhost.md").read_text(encoding="utf-8")
    rows = {row[1].strip("` "): row[2] for row in re.findall(r"^\|(.*?)\|(.*?)\|(.*)\|$", page, re.M) if row[1]}
    parts_only = {"code", "key", "store-document", "store-value"}
    for name, schema in SCHEMAS["outputs"]["$defs"].items():
        kinds = schema.get("oneOf") or [schema.get("items", schema)]
        members = {member for kind in kinds for member in kind.get("properties", {})}
        missing = members - set(re.findall(r"`(.*?)`", rows.get(name, "")))
        if name not in parts_only and (name not in rows or missing):
            failures.append(name)
            print(f"failed: docs/vxhost.md has no row for {name}, or one without {sorted(missing)}")


check_page()
check_outputs()
check_stored()
check_samples()
check_scenarios()
sys.exit(1 if failures else 0)
