"""timeline_test.py VXHOST SCENARIO PICTURE EMULATOR...: plays a scenario, opens its timeline in Chromium, in
windows of 1280 and 390 pixels, and compares the page with the log. Does the same for a page of a hundred
such plays and for a page of each of CASES. RECORD=1 writes the picture for the manual to PICTURE. Look at
a new picture before you commit it."""

import collections
import html
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

vxhost, scenario, picture, *emulator = sys.argv[1:]
if not os.path.exists(vxhost):
    sys.exit(f"{vxhost} is missing: build it with scripts/build")
if not shutil.which("chromium"):
    sys.exit("there is no chromium: scripts/test installs it")
failures = []
HOSTILE = "</script><!--<script>document.title='owned'</script><img src=x onerror=alert(1)>&amp;\u202e\u2028"

# Measures what a reader can see.
FRAMES = """<!DOCTYPE html><pre id=r></pre><script>
const box = e => { const r = e.getBoundingClientRect(); return [r.left, r.top, r.right, r.bottom]; };
const measure = page => {
  const all = kind => [...page.querySelectorAll(kind)];
  const shown = kind => all(kind).filter(e => e.textContent && e.getClientRects().length &&
    e.checkVisibility({visibilityProperty: true}) && e.clientWidth > 0).map(e => [e.textContent, box(e)]);
  all('details').forEach(d => { d.open = true; });
  return {
    scroll: page.documentElement.scrollWidth, title: page.title, scripts: page.scripts.length,
    images: page.images.length, picture: box(page.querySelector('.lanes')),
    texts: ['.label', '.in', '.who > *', '.tick span', '#picture .mark'].flatMap(shown),
    targets: all('#picture a').map(a => page.querySelector(a.getAttribute('href')) !== null),
    events: all('.what > b').map(b => b.textContent),
    bars: all('#picture .bar').map(b => b.closest('.lane').querySelector('b').textContent + ': ' + b.title),
    list: all('h3, #list li').map(e => e.tagName === 'H3' ? e.textContent :
      ['.time', '.lane-name', '.what > b', '.reason'].map(kind => e.querySelector(kind)?.textContent.trim() || '-')
        .concat(e.querySelector('.what > b').className, e.querySelectorAll('tr').length,
          [...e.querySelectorAll('.count')].map(c => c.textContent + ' times')).join('; ')),
    lines: all('tr').map(r => [r.className, r.querySelector('.message').textContent,
      +(r.querySelector('.count') || {textContent: 1}).textContent, r.getClientRects().length]),
  };
};
const results = {};
const frame = (name, width) => {
  const f = document.createElement('iframe');
  f.src = name + '.html';
  f.width = width; f.height = 900;
  f.onload = () => setTimeout(() => {
    results[name + width] = measure(f.contentDocument);
    r.textContent = JSON.stringify(results);
  }, 200);
  document.body.append(f);
};
NAMES.forEach((name, index) => {
  frame(name, 1280);
  if (index < 2) frame(name, 390);
});
</script>"""


def entry(at, text, what="log", thread=1, **more):
    return {"at": at, "what": what, "text": text, "thread": thread, "step": 0, "level": "INFO", **more}


def decided(at, decision, tone="good", thread=1, **more):
    """Returns the entry of a record, which belongs to this delivery unless `more` overrides that."""
    return entry(at, "a record", thread=thread, record={
        "kind": "power", "event": "power 18", "decision": decision, "tone": tone, "subscription": "0badcafe",
        "target": "C:\\M\\Resume.exe", "milliseconds": 10000, "delivery": "1.1", **more})


SUBSCRIPTION = {"subscription": "0badcafe", "event": "power 18", "target": "Maker.App/Resume", "milliseconds": 10000}
COMMAND = {"what": "command", "thread": 0, "done": True, "request": "{}", "result": "a result", "names": SUBSCRIPTION}
OTHER = {"event": "platform 1", "subscription": "other", "target": "", "milliseconds": 4000}
NO_DELIVERY = {"delivery": None, "client": "ann"}
WAITS = [entry(0, "of another thread", thread=2), entry(0, "delay start"), decided(0, "waiting")]
# The log entries, other data, the page's list with line counts, and the bars of its picture.
CASES = {
    "a delivery": (
        [entry(0, "power event 18", "call", 0), *WAITS, entry(10500, "the decision"),
         decided(10500, "ran", milliseconds=10500, process=7), entry(10500, "not of it")], {},
        ["0 s; Machine; power event 18; the machine woke, with or without a user; neutral; 2",
         "10.5 s; Resume.exe power 18 + 10 s; ran; process 7; good; 4"], ["Resume.exe: 10 s, 0 s to 10 s"]),
    "a wait cut short": (
        [*WAITS, decided(3000, "dropped", "dropped", milliseconds=3000, why="too early")], {},
        ["3 s; Resume.exe power 18 + 10 s; dropped; too early; dropped; 3",
         "3 s; Service; log lines; -; neutral; 1"], ["Resume.exe: 10 s, 0 s to 3 s"]),
    "a delivery that waits": (
        [*WAITS, entry(5000, "later")], {},
        ["5 s; Resume.exe power 18 + 10 s; still waits; -; neutral; 0",
         "5 s; Service; log lines; -; neutral; 4"], ["Resume.exe: 10 s, 0 s to 5 s, not over"]),
    "deliveries told apart": (
        [decided(0, "waiting"), decided(0, "waiting", thread=2, **OTHER, delivery="1.2"),
         decided(4000, "sent", thread=2, **OTHER, delivery="1.2"),
         decided(4000, "waiting", thread=3, **OTHER, delivery="1.3"),
         decided(5000, "not sent", "bad", thread=4, **OTHER, delivery="9.2"), entry(9000, "anew", "started")], {},
        ["4 s; platform 1 + 4 s; sent; -; good; 2", "5 s; platform 1 + 4 s; not sent; -; bad; 1",
         "9 s; Resume.exe power 18 + 10 s; dropped; its service ended before it did; dropped; 0",
         "9 s; platform 1 + 4 s; dropped; its service ended before it did; dropped; 0",
         "9 s; Service; the module is started; -; neutral; 3"],
        ["Resume.exe: 10 s, 0 s to 9 s", "platform 1 + 4 s: 4 s, 0 s to 4 s",
         "platform 1 + 4 s: 4 s, 4 s to 8 s"]),
    "a start-up": (
        [entry(0, "start", "call", 0), entry(0, "OrvaneService: OOBE not completed"),
         *[entry(second * 1000, line) for second in range(90) for line in ("no user", "path = []")],
         entry(90000, "OrvaneService: Verified that OOBE completed."), entry(95000, "Aurelo not launched"),
         entry(96000, "Scheduling Vx Aurelo launch"), entry(99000, "end", "call", 0)], {},
        ["0 s; Service; the service starts; -; neutral; 3; 90 times; 90 times",
         "1 min 30 s; Service; first-run set-up is complete; -; good; 1",
         "1 min 35 s; Service; Aurelo is not started; -; bad; 2",
         "1 min 39 s; Service; the service ends; -; neutral; 0"],
        ["Service: waits for first-run set-up, 0 s to 1 min 30 s",
         "Service: waits for an hour for Aurelo, 1 min 36 s to 1 min 39 s"]),
    "steps": (
        [entry(0, "", **COMMAND, command=9, step=1), entry(1000, "", **COMMAND, command=19, step=2),
         entry(2000, "", **{**COMMAND, "done": False}, command=9, name="a name", step=3),
         decided(2000, "refused", "bad", **NO_DELIVERY, subscription=""),
         entry(3000, "it lacks a line", "failure", 0, step=3)],
        {"steps": ["begins", "", "refuses", "ends"], "end": 4000},
        ["begins", "0 s; Maker.App/Resume power 18 + 10 s; subscribed; {}; neutral; 0",
         "1 s; Maker.App/Resume power 18 + 10 s; taken back; -; neutral; 0",
         "refuses", "2 s; Service; a name; command 9: a result; bad; 1",
         "3 s; Service; not as expected; it lacks a line; bad; 0", "ends"], []),
    "a running service": (
        [entry(0, "power event 4", "host"), decided(0, "accepted", **NO_DELIVERY),
         decided(1000, "refused", "bad", **NO_DELIVERY, subscription="", event="command 9", why="not valid"),
         decided(2000, "taken back", kind="completion", **NO_DELIVERY, why="has run")],
        {"stored": [None, SUBSCRIPTION], "begin": 1764115199000},
        ["2025-11-25 23:59:59.000; Machine; power event 4; the machine is about to sleep; neutral; 0",
         "2025-11-25 23:59:59.000; Service; subscription accepted; 0badcafe, client ann; neutral; 2",
         "2025-11-26 00:00:00.000; Service; command 9 refused; not valid, client ann; bad; 1; 2 times",
         "2025-11-26 00:00:01.000; Maker.App/Resume power 18 + 10 s; taken back; has run; neutral; 0"], []),
    "a machine": (
        [entry(0, "session change 7", "call", 0),
         *[entry(1000 * at, text, "event") for at, text in enumerate((
             "the machine enters Modern Standby", "ann logs on", "ann cannot start a.exe",
             "the machine leaves Modern Standby", "Maker.App/Resume receives {} and returns 1",
             "they are notified that the machine came up", "the machine sleeps for 1.5 s"))]], {},
        ["0 s; Machine; session change 7; the session is locked; neutral; 0",
         "0 s; Machine; the machine enters Modern Standby; -; neutral; 0", "1 s; User; ann logs on; -; neutral; 0",
         "2 s; User; ann cannot start a.exe; -; bad; 0",
         "3 s; Machine; the machine leaves Modern Standby; -; neutral; 0",
         "4 s; User; Maker.App/Resume receives {} and returns 1; -; bad; 1",
         "6 s; Machine; the machine sleeps for 1.5 s; -; neutral; 0"],
        ["Machine: Modern Standby, 0 s to 3 s", "Machine: asleep, 6 s to 7.5 s"]),
}


def fail(text):
    failures.append(text)
    print("failed:", text)


def windows_path(path):
    return "Z:" + path.replace("/", "\\")


def play(work):
    """Returns the page and the --json report of one run, which ends with a hostile step."""
    page = os.path.join(work, "timeline.html")
    with open(scenario, encoding="utf-8") as file:
        steps = json.load(file)
    steps["steps"].append({"say": HOSTILE, "advance": 0})
    with open(os.path.join(work, os.path.basename(scenario)), "w", encoding="utf-8") as file:
        json.dump(steps, file)
    run = subprocess.run(
        [*emulator, vxhost, "--simulate", "scenario", windows_path(file.name), "--json", "--timeline",
         windows_path(page)], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
    with open(page, encoding="utf-8") as file:
        return file.read(), json.loads(run.stdout)


def page_of(page, change):
    """Returns the page with its data replaced by the result of `change`."""
    before, text, after = re.fullmatch(r'(.*id="data">)(.*?)(</script>.*)', page, re.S).groups()
    return before + json.dumps(change(json.loads(text))).replace("<", "\\u003c") + after


def case_data(data, entries, more):
    return {**data, "end": 0, "steps": [], "texts": [one["text"] for one in entries],
            "entries": [{**one, "text": index} for index, one in enumerate(entries)], **more}


def dense_data(data):
    """Returns a log that repeats the same entries a hundred times in sequence."""
    end = data["end"]
    entries = [{**one, "at": one["at"] + i * end} for i in range(100) for one in data["entries"]]
    return {**data, "entries": entries, "end": 100 * end}


def chromium(work, *arguments):
    return subprocess.run(
        ["chromium", "--headless", "--no-sandbox", "--disable-gpu", f"--user-data-dir={work}/profile",
         "--allow-file-access-from-files", "--virtual-time-budget=10000", *arguments],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=100, check=True,
        env={**os.environ, "HOME": work}).stdout.decode()


def measure(work, page):
    """Returns what Chromium shows for the page, a dense page and each case, by name and window width."""
    pages = {"page": page, "dense": page_of(page, dense_data)}
    for name, (entries, more, *_) in CASES.items():
        pages[name] = page_of(page, lambda data: case_data(data, entries, more))
    for name, text in [*pages.items(), ("frames", FRAMES.replace("NAMES", json.dumps([*pages])))]:
        with open(os.path.join(work, name + ".html"), "w", encoding="utf-8") as file:
            file.write(text)
    dom = chromium(work, "--dump-dom", f"file://{work}/frames.html")
    found = re.search(r'<pre id="r">({.*?})</pre>', dom, re.S)
    return json.loads(html.unescape(found.group(1))) if found else sys.exit("no page draws its picture")


def overlap(a, b):
    return min(a[2], b[2]) - max(a[0], b[0]) > 1 and min(a[3], b[3]) - max(a[1], b[1]) > 1


def check_layout(name, width, seen):
    if seen["scroll"] > width:
        fail(f"{name} is {seen['scroll']} pixels wide in a window of {width}")
    left, top, right, bottom = seen["picture"]
    if (bottom - top > right - left) != (width == 390):
        fail(f"time does not run the right way in {name} of {width}")
    count = len(seen["targets"])
    if not 0 < count < 800 or not all(seen["targets"]):
        fail(f"{name} of {width} draws {count} marks, and {seen['targets'].count(False)} lead nowhere")
    for i, (text, box) in enumerate(seen["texts"]):
        if box[0] < left - 1 or box[1] < top - 1 or box[2] > right + 1 or box[3] > bottom + 1:
            fail(f"{text} leaves {name} of {width}: {box}")
        for other, beside in seen["texts"][i + 1:]:
            if overlap(box, beside):
                fail(f"{text} covers {other} in {name} of {width}")


def check_content(seen, report):
    entries = [entry for step in report["steps"] for entry in step["entries"]]
    logged = collections.Counter((e["level"], e["message"]) for e in entries if e["kind"] == "log")
    shown = collections.Counter()
    for level, message, count, boxes in seen["lines"]:
        shown[level, message] += count
        if not boxes:
            fail(f"a line cannot be seen: {message}")
    for key in logged.keys() | shown.keys():
        if key[0] != "EVENT" and logged[key] != shown[key]:
            fail(f"the log has {logged[key]} times, and the page {shown[key]} times: {key}")
    for entry in entries:
        if entry["kind"] == "event" and entry["text"] not in seen["events"] and not shown["EVENT", entry["text"]]:
            fail(f"the page lacks the event {entry['text']}")
    for decision in ("ran", "sent", "refused", "dropped", "Aurelo is started"):
        if decision not in seen["events"]:
            fail(f"the page lacks the decision \"{decision}\"")
    if seen["list"][-1] != HOSTILE.replace("\u202e", "\ufffd").replace("\u2028", "\ufffd"):
        fail(f"the hostile step is shown as {seen['list'][-1]}")
    if (seen["title"], seen["scripts"], seen["images"]) != (os.path.basename(scenario), 2, 0):
        fail(f"the hostile step makes elements: {seen['title']}, {seen['scripts']}, {seen['images']}")


with tempfile.TemporaryDirectory() as folder:
    text, result = play(folder)
    views = measure(folder, text)
    for name in ("page", "dense"):
        for width in (1280, 390):
            check_layout(name, width, views[name + str(width)])
    drawn = {one for one, box in views["page1280"]["texts"]}
    if not {"power 18 + 30 s", "Unsigned.exe", "asleep", "subscribed", "29", "1:01:11"} <= drawn:
        fail(f"the picture lacks texts: {drawn}")
    check_content(views["page390"], result)
    for name, (_, _, marks, bars) in CASES.items():
        shown = views[name + "1280"]
        if shown["list"] != marks or sorted(shown["bars"]) != sorted(bars):
            fail(f"of {name} the page shows\n{json.dumps([shown['list'], shown['bars']], indent=1)}")
    if os.environ.get("RECORD") and not failures:
        chromium(folder, "--hide-scrollbars", "--window-size=1280,565", f"--screenshot={picture}",
                 f"file://{folder}/page.html")
sys.exit(1 if failures else 0)
