"""timeline_test.py VXHOST SCENARIO PICTURE EMULATOR...: renders the timeline of a scenario in Chromium, in
windows of 1280 and 400 pixels at once, and compares what is on the page with the log. PICTURE is the copy of
its wide picture for the manual. RECORD=1 writes it instead, if all else is in order. Look at a new one before
it is kept."""

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

# Runs in a copy of the page: what a reader sees, as far as it can be measured.
MEASURE = """
const box = e => { const r = e.getBoundingClientRect(); return [r.left, r.top, r.right, r.bottom]; };
const shown = [...document.querySelectorAll('figure')].filter(f => f.getClientRects().length);
const svg = shown[0].querySelector('svg');
document.querySelectorAll('details').forEach(d => { d.open = true; });
parent.postMessage({
  width: innerWidth, scroll: document.documentElement.scrollWidth, figures: shown.map(f => f.className),
  picture: box(svg),
  marks: [...svg.querySelectorAll('a')].map(a => [a.getAttribute('href'), box(a.querySelector('.shape'))]),
  labels: [...svg.querySelectorAll('.label, .name, .faint')].filter(t => t.textContent).map(t => [t.textContent, box(t)]),
  bars: [...svg.querySelectorAll('.in')].map(t => [t.textContent, box(t), box(t.parentNode.querySelector('rect'))]),
  events: [...document.querySelectorAll('.what > b')].map(b => b.textContent),
  lines: [...document.querySelectorAll('tr')].map(r => [
    r.className, r.querySelector('.message').textContent,
    +(r.querySelector('.count') || {textContent: 1}).textContent, r.getClientRects().length]),
}, '*');
"""
FRAMES = """<!DOCTYPE html><pre id=r>{}</pre><script>
const all = {}; onmessage = m => { all[m.data.width] = m.data; r.textContent = JSON.stringify(all); };
</script><iframe src=page.html width=1280 height=900 style=border:0></iframe>
<iframe src=page.html width=400 height=900 style=border:0></iframe>"""


def fail(text):
    failures.append(text)
    print("failed:", text)


def windows_path(path):
    return "Z:" + path.replace("/", "\\")


def play(work):
    """Returns the page and what --json reports of the same run."""
    page = os.path.join(work, "timeline.html")
    run = subprocess.run(
        [*emulator, vxhost, "--simulate", "scenario", scenario, "--json", "--timeline", windows_path(page)],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
    with open(page, encoding="utf-8") as file:
        return file.read(), json.loads(run.stdout)


def measure(work, page):
    """Returns what Chromium shows of the page, by the width of the window."""
    copy = re.sub(r"<meta http-equiv[^>]*>", "", page).replace("</body>", f"<script>{MEASURE}</script></body>")
    for name, text in (("page.html", copy), ("frames.html", FRAMES)):
        with open(os.path.join(work, name), "w", encoding="utf-8") as file:
            file.write(text)
    dom = subprocess.run(
        ["chromium", "--headless", "--no-sandbox", "--disable-gpu", f"--user-data-dir={work}/profile",
         "--virtual-time-budget=5000", "--dump-dom", f"file://{work}/frames.html"],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=100, check=True,
        env={**os.environ, "HOME": work}).stdout.decode()
    return json.loads(html.unescape(re.search(r'<pre id="r">(.*?)</pre>', dom, re.S).group(1)))


def overlap(a, b):
    return min(a[2], b[2]) - max(a[0], b[0]) > 1 and min(a[3], b[3]) - max(a[1], b[1]) > 1


def check_layout(seen, figure):
    width = seen["width"]
    if seen["scroll"] > width:
        fail(f"the page is {seen['scroll']} pixels wide in a window of {width}")
    if seen["figures"] != [figure]:
        fail(f"a window of {width} shows {seen['figures']} and not the {figure} picture")
    left, top, right, bottom = seen["picture"]
    everything = seen["marks"] + seen["labels"]
    for text, box in everything:
        if box[0] < left - 1 or box[1] < top - 1 or box[2] > right + 1 or box[3] > bottom + 1:
            fail(f"{text} leaves the picture of {width}: {box}")
    for i, (text, box) in enumerate(everything):
        for other, beside in everything[i + 1:]:
            if overlap(box, beside):
                fail(f"{text} covers {other} in the picture of {width}")
    for text, box, bar in seen["bars"]:
        if box[2] > bar[2] + 1:
            fail(f"{text} is wider than its bar in the picture of {width}")


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
    for decision in ("the program starts", "the message is sent", "refused", "dropped", "Aurelo is started"):
        if decision not in seen["events"]:
            fail(f"the page lacks the decision \"{decision}\"")


def check_picture(page):
    """The wide picture as a file of its own, with the same colours."""
    style = re.search(r"<style>(.*?)</style>", page, re.S).group(1)
    svg = re.search(r'<figure class="wide">(.*?)</figure>', page, re.S).group(1)
    svg = svg.replace("<svg ", '<svg xmlns="http://www.w3.org/2000/svg" font-family="system-ui, sans-serif" ', 1)
    rules = "svg { background: var(--paper); font-family: system-ui, \"Segoe UI\", \"DejaVu Sans\", sans-serif; }"
    drawn = svg.replace(">", f"><style>{style}{rules}</style>", 1) + "\n"
    if os.environ.get("RECORD") and not failures:
        with open(picture, "w", encoding="utf-8") as file:
            file.write(drawn)
        return
    with open(picture, encoding="utf-8") as file:
        if file.read() != drawn:
            fail(f"{picture} is not what vxhost draws")


with tempfile.TemporaryDirectory() as folder:
    text, result = play(folder)
    views = measure(folder, text)
    check_layout(views["1280"], "wide")
    check_layout(views["400"], "narrow")
    check_content(views["400"], result)
    check_picture(text)
sys.exit(1 if failures else 0)
