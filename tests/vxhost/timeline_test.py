"""timeline_test.py VXHOST SCENARIO PICTURE EMULATOR...: plays a scenario, opens its timeline in Chromium, in
windows of 1280 and 390 pixels at once, and compares what is on the page with the log; so also a page of a
hundred such plays. RECORD=1 writes the picture for the manual to PICTURE. Look at a new one before it is
kept."""

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

# What a reader sees, as far as it can be measured.
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
    headings: all('h3').map(h => h.textContent), events: all('.what > b').map(b => b.textContent),
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
frame('page', 1280); frame('page', 390); frame('dense', 1280); frame('dense', 390);
</script>"""


def fail(text):
    failures.append(text)
    print("failed:", text)


def windows_path(path):
    return "Z:" + path.replace("/", "\\")


def play(work):
    """Returns the page and what --json reports of the same run, which ends with a hostile step."""
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


def repeated(page, times):
    """The page of a log that holds the same so many times, one after the other."""
    before, text, after = re.fullmatch(r'(.*id="data">)(.*?)(</script>.*)', page, re.S).groups()
    data = json.loads(text)
    data["marks"] = [[lane, at + i * data["end"], *rest]
                     for i in range(times) for lane, at, *rest in data["marks"]]
    data["bars"] = [[lane, kind, begin + i * data["end"], end + i * data["end"], *rest]
                    for i in range(times) for lane, kind, begin, end, *rest in data["bars"]]
    data["end"] *= times
    return before + json.dumps(data).replace("<", "\\u003c") + after


def chromium(work, *arguments):
    return subprocess.run(
        ["chromium", "--headless", "--no-sandbox", "--disable-gpu", f"--user-data-dir={work}/profile",
         "--allow-file-access-from-files", "--virtual-time-budget=10000", *arguments],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=100, check=True,
        env={**os.environ, "HOME": work}).stdout.decode()


def measure(work, page):
    """Returns what Chromium shows of the page and of a dense one, by name and width of the window."""
    for name, text in (("page", page), ("dense", repeated(page, 100)), ("frames", FRAMES)):
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
    if seen["headings"][-1] != HOSTILE.replace("\u202e", "\ufffd").replace("\u2028", "\ufffd"):
        fail(f"the hostile step is shown as {seen['headings'][-1]}")
    if (seen["title"], seen["scripts"], seen["images"]) != (os.path.basename(scenario), 1, 0):
        fail(f"the hostile step makes elements: {seen['title']}, {seen['scripts']}, {seen['images']}")


with tempfile.TemporaryDirectory() as folder:
    text, result = play(folder)
    views = measure(folder, text)
    for name in ("page", "dense"):
        for width in (1280, 390):
            check_layout(name, width, views[name + str(width)])
    drawn = {one for one, box in views["page1280"]["texts"]}
    if not {"power 18 + 30 s", "starts Unsigned.exe", "asleep", "subscribed", "29", "1:01:11"} <= drawn:
        fail(f"the picture lacks texts: {drawn}")
    check_content(views["page390"], result)
    if os.environ.get("RECORD") and not failures:
        chromium(folder, "--hide-scrollbars", "--window-size=1280,565", f"--screenshot={picture}",
                 f"file://{folder}/page.html")
sys.exit(1 if failures else 0)
