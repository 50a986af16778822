#!/usr/bin/python3
"""refusals_test.py ROOT: fails if simulator/fault_injection.cpp cannot fail an operation of an interface
in src/platform. No fault walk would then cover that operation."""

import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])

# Windows cannot fail these, or only later calls depend on them. Operations that return void cannot
# fail either.
NEVER_REFUSED = {
    "AppServices.Open": "opens nothing before AppService.Send",
    "Clock.TickCount": "the clock always has a value",
    "Clock.UtcFileTime": "the clock always has a value",
    "Files.IsElsewhere": "reads the kind of a drive, which is always known",
    "KernelObjects.Signal": "fails for a handle that is no event, and a lost stop would stop the walk",
    "SystemTriggers.ArePresent": "looks for a function of a library that is always loaded",
}


def blocks(source, opening):
    """Yields each match of the pattern with the text in braces after it."""
    for match in re.finditer(opening, source):
        depth, end = 1, match.end()
        while depth:
            depth += {"{": 1, "}": -1}.get(source[end], 0)
            end += 1
        yield match, source[match.end():end]


def read(path):
    return re.sub(r"//[^\n]*", "", path.read_text(encoding="utf-8"))


operations = []
for header in sorted((root / "src/platform").glob("*.h")):
    for interface, body in blocks(read(header), r"\nclass (\w+)(?: final)?(?: : [^{;]*)? \{"):
        for result, name in re.findall(r"virtual ([^~;]*?)[\s&*](\w+)\(", body):
            if result != "void":
                operations.append(f"{interface[1]}.{name}")

source = read(root / "simulator/fault_injection.cpp")
ROW = r"\n  REFUSABLE\(((?:[^()]|\([^()]*\))*)\)"
refused = set()
for decorator, body in blocks(source, r"\nclass \w+ final : public (?:\w*Decorator<)?Platform::(\w+)>? \{"):
    for row in re.findall(ROW, body):
        interface, _, name = (part.strip() for part in row.split(",")[:3])
        if interface == decorator[1]:
            refused.add(f"{interface}.{name}")
    for function, code in blocks(re.sub(ROW, "", body), r"\b(\w+)\([^;{}]*\)(?: const)? override \{"):
        if f'"{decorator[1]}.' in code:
            refused.add(f"{decorator[1]}.{function[1]}")

faults = [f"{name} is not refused: decorate it, or say above why Windows cannot refuse it"
          for name in operations if name not in refused | NEVER_REFUSED.keys()]
faults += [f"{name} is refused or gone: remove it above"
           for name in NEVER_REFUSED if name in refused or name not in operations]
if len(operations) < 60:
    faults.append(f"only {len(operations)} operations found in src/platform")
print("\n".join(faults) or f"{len(operations)} operations")
sys.exit(1 if faults else 0)
