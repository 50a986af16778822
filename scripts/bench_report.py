#!/usr/bin/env python3
"""bench_report.py DIR NAME...: prints the benchmark tables DIR/NAME.json as the two Markdown tables of
docs/performance.md, one of ratios with goals and one of single figures, and draws each table as
DIR/performance-NAME.svg."""
import json
import sys
from html import escape
from pathlib import Path

LABEL, BARS, NUMBER = 430, 360, 130  # widths in pixels
ROW, HEAD = 22, 44  # heights
WITHIN, OVER, PLAIN, GOAL = "#3a7d5c", "#b8452f", "#7b8794", "#1f2933"


def length(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.1f} {unit}"
    return f"{nanoseconds / 1e3:.1f} µs"


def is_over(row):
    # Compares rounded values, so that a row whose printed ratio equals the goal is never "over".
    return row["goal"] > 0 and round(row["ratio"], 2) > round(row["goal"], 2)


def goal_text(row):
    if row["goal"] <= 0:
        return ""
    return f"{row['goal']:.2f}" + (" (over)" if is_over(row) else "")


def markdown(tables):
    print("\n| what | against | ours | theirs | ratio | goal |")
    print("| --- | --- | --- | --- | --- | --- |")
    for table in tables:
        for row in table["rows"]:
            print(f"| {row['name']} | {row['against']} | {length(row['ours_ns'])} | "
                  f"{length(row['theirs_ns'])} | {row['ratio']:.2f} | {goal_text(row)} |")
    print("\n| figure | value |")
    print("| --- | --- |")
    for table in tables:
        for figure in table["figures"]:
            print(f"| {figure['name']} | {figure['value']:.0f} {figure['unit']}".rstrip() + " |")


def text(x, y, content, anchor="start", weight="normal"):
    return (f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}" font-weight="{weight}">'
            f"{escape(content)}</text>")


def bar(row, y, scale):
    """One row: its name, the ratio as a bar and as a number, and the goal as a line."""
    colour = OVER if is_over(row) else WITHIN if row["goal"] > 0 else PLAIN
    parts = [
        text(LABEL - 8, y + 15, row["name"], "end"),
        f'<rect x="{LABEL}" y="{y + 4}" width="{row["ratio"] * scale:.1f}" height="14" '
        f'fill="{colour}"/>',
        text(LABEL + BARS + 8, y + 15,
             f"{row['ratio']:.2f}" + (f" of {goal_text(row)}" if row["goal"] > 0 else "")),
    ]
    if row["goal"] > 0:
        x = LABEL + row["goal"] * scale
        parts.append(f'<line x1="{x:.1f}" y1="{y + 1}" x2="{x:.1f}" y2="{y + ROW - 1}" '
                     f'stroke="{GOAL}" stroke-width="2"/>')
    return parts


def picture(name, rows):
    width, height = LABEL + BARS + NUMBER, HEAD + ROW * len(rows) + 10
    most = max(max(row["ratio"], row["goal"]) for row in rows)
    scale = BARS / most if most > 0 else 0
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12" role="img">',
        f"<title>{escape(name)}: time against the other side</title>",
        f'<rect width="{width}" height="{height}" fill="#ffffff"/>',
        text(LABEL, 18, f"{name}: time against the other side, shorter is better", "middle", "bold"),
        text(LABEL, 36, "The line is the goal.", "middle"),
    ]
    for i, row in enumerate(rows):
        parts += bar(row, HEAD + ROW * i, scale)
    return "\n".join(parts + ["</svg>", ""])


def main():
    folder, names = Path(sys.argv[1]), sys.argv[2:]
    tables = [json.loads((folder / f"{name}.json").read_text()) for name in names]
    markdown(tables)
    for name, table in zip(names, tables):
        (folder / f"performance-{name}.svg").write_text(picture(name, table["rows"]))


if __name__ == "__main__":
    main()
