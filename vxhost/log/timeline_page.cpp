#include "vxhost/log/timeline_page.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <string_view>
#include <utility>

#include "hosting/text.h"

namespace Vx::Host {

namespace {

using std::chrono::milliseconds;

// All lengths are in pixels of a page at 100 percent.
constexpr int kMarkStep = 24;  // between marks of one lane and moment
constexpr int kRadius = 9;
constexpr int kBarHeight = 15;
constexpr double kEllipsis = 11;
constexpr double kBold = 1.3;  // how much wider the name of a lane is than a label

constexpr char kStyle[] = R"css(
:root { color-scheme: light dark; --paper: #fff; --ink: #1b2530; --faint: #5d6b79; --line: #d5dce3;
  --band: #f4f6f9; --neutral: #4a6a8a; --good: #1a7f4b; --bad: #c02b2b; --dropped: #a86200;
  --wait: #bcd3ee; --sleep: #cfc6e6; --standby: #f1d5a8; --on: #fff; --onbar: #1b2530; }
@media (prefers-color-scheme: dark) { :root { --paper: #14181d; --ink: #e4e9ee; --faint: #98a5b3;
  --line: #333c46; --band: #1b2127; --neutral: #86a9cf; --good: #4fbf85; --bad: #f07a72;
  --dropped: #e2a34a; --wait: #2f4d70; --sleep: #4a3f70; --standby: #6a4d1d; --on: #10151a;
  --onbar: #e4e9ee; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 20px 24px 40px; max-width: 1280px; background: var(--paper);
  color: var(--ink); font: 15px/1.45 system-ui, "Segoe UI", "DejaVu Sans", sans-serif; }
h1 { font-size: 22px; margin: 0 0 2px; overflow-wrap: anywhere; }
h2 { font-size: 17px; margin: 28px 0 8px; }
h3 { font-size: 15px; margin: 22px 0 6px; padding-top: 10px; border-top: 1px solid var(--line); }
p { margin: 2px 0; color: var(--faint); }
.met { color: var(--good); font-weight: 600; } .unmet { color: var(--bad); font-weight: 600; }
figure { margin: 16px 0 0; } .wide { overflow-x: auto; } .wide svg { min-width: 100%; }
svg { display: block; font-family: inherit; } .narrow { display: none; } .narrow svg { width: 100%; }
svg text { fill: var(--ink); font-size: 11px; } svg .name { font-size: 13px; font-weight: 600; }
svg .faint { fill: var(--faint); } svg .number { font-size: 9.5px; font-weight: 700; text-anchor: middle;
  fill: var(--on); } svg .in { fill: var(--onbar); }
.band { fill: var(--band); } .rule { stroke: var(--line); } .step { stroke: var(--line); stroke-dasharray: 3 3; }
.bar { stroke: var(--paper); } .bar.wait { fill: var(--wait); } .bar.sleep { fill: var(--sleep); } .bar.standby { fill: var(--standby); }
.bar.open { stroke: var(--faint); stroke-dasharray: 4 3; }
.neutral { fill: var(--neutral); } .good { fill: var(--good); } .bad { fill: var(--bad); }
.dropped { fill: var(--dropped); }
a:hover .shape, a:focus .shape { stroke: var(--ink); stroke-width: 2; }
.legend { display: flex; flex-wrap: wrap; gap: 4px 18px; margin: 10px 0 0; padding: 0; list-style: none;
  color: var(--faint); font-size: 13px; } .legend li { display: flex; align-items: center; gap: 6px; }
ol.marks { list-style: none; margin: 0; padding: 0; }
ol.marks > li { display: grid; grid-template-columns: 28px 124px 190px minmax(0, 1fr); gap: 0 10px;
  padding: 5px 0; align-items: baseline; } ol.marks > li:target { background: var(--band); }
.badge { width: 24px; height: 24px; align-self: start; } .time { font-variant-numeric: tabular-nums; color: var(--faint); } .lane { color: var(--faint); overflow-wrap: anywhere; }
.what { overflow-wrap: anywhere; min-width: 0; } .reason { color: var(--faint); }
.what b.bad { color: var(--bad); } .what b.dropped { color: var(--dropped); } .what b.good { color: var(--good); }
details { margin: 2px 0; font-size: 13px; } summary { cursor: pointer; color: var(--faint); }
table { border-collapse: collapse; margin: 4px 0; width: 100%; font: 12px/1.4 ui-monospace, "DejaVu Sans Mono", monospace; }
td { padding: 1px 10px 1px 0; vertical-align: top; overflow-wrap: anywhere; }
td:nth-child(1), td:nth-child(2) { white-space: nowrap; color: var(--faint); width: 1%; }
tr.ERROR td { color: var(--bad); } tr.WARNING td { color: var(--dropped); }
@media (max-width: 760px) { body { padding: 14px 14px 30px; font-size: 14px; } .wide { display: none; }
  .narrow { display: block; } ol.marks > li { grid-template-columns: 28px max-content minmax(0, 1fr); }
  .badge { grid-row: 1 / span 2; } .what { grid-column: 2 / span 2; } td { padding-right: 6px; } }
@media print { :root { color-scheme: light; --paper: #fff; --ink: #000; --faint: #444; --line: #bbb; --band: #f4f4f4;
  --neutral: #3c5a78; --good: #156b3f; --bad: #a82222; --dropped: #8a5000; --wait: #bcd3ee; --sleep: #cfc6e6;
  --standby: #f1d5a8; --on: #fff; --onbar: #000; } @page { size: landscape; margin: 12mm; }
  * { print-color-adjust: exact; } .wide { display: block; overflow: visible; } .narrow { display: none; }
  .wide svg { width: 100%; height: auto; min-width: 0; } li, h3 { break-inside: avoid; } h3 { break-after: avoid; } }
)css";

const char* ClassOf(Tone tone) {
  switch (tone) {
    case Tone::Good:
      return "good";
    case Tone::Bad:
      return "bad";
    case Tone::Dropped:
      return "dropped";
    case Tone::Neutral:
      break;
  }
  return "neutral";
}

const char* ClassOf(BarKind kind) {
  switch (kind) {
    case BarKind::Sleep:
      return "sleep";
    case BarKind::Standby:
      return "standby";
    case BarKind::Wait:
      break;
  }
  return "wait";
}

std::string Html(const std::wstring& text) {
  return Markup(Printable(Utf8(text), LineBreaks::Replace));
}

// About how wide a character is in a label, in the widest of the usual fonts.
double Width(wchar_t unit) {
  constexpr std::wstring_view kThin = L"ijl.,:;'|!";
  constexpr std::wstring_view kNarrow = L" ftr()[]{}/\\-\"";
  if (kThin.find(unit) != std::wstring_view::npos) return 3.7;
  if (kNarrow.find(unit) != std::wstring_view::npos) return 4.7;
  if (unit == L'm' || unit == L'w' || unit == L'M' || unit == L'W' || unit == L'@') return 11;
  if (unit >= 0x80) return 11;
  return (unit >= L'A' && unit <= L'Z') ? 8 : 7;
}

double Width(std::wstring_view text) {
  double width = 0;
  for (const wchar_t unit : text) width += Width(unit);
  return width;
}

// `text` cut to so many pixels, as HTML. Empty when not even a few characters fit.
std::string Fitted(const std::wstring& text, double room) {
  constexpr std::size_t kFewest = 4;
  if (Width(text) <= room) return Html(text);
  double width = kEllipsis;
  std::size_t length = 0;
  while (length < text.size() && width + Width(text[length]) <= room)
    width += Width(text[length++]);
  if (length < kFewest) return {};
  if (text[length - 1] >= 0xD800 && text[length - 1] < 0xDC00) --length;  // not half a pair
  return Html(text.substr(0, length)) + "…";
}

// "1 h 1 min 11 s"
std::string TimeText(milliseconds moment) {
  const auto total = moment.count();
  const auto hours = total / 3'600'000;
  const auto minutes = total / 60'000 % 60;
  const auto thousandths = total % 60'000;
  char seconds[32];
  if (thousandths % 1000 == 0) {
    std::snprintf(seconds, sizeof seconds, "%d s", static_cast<int>(thousandths / 1000));
  } else {
    std::snprintf(seconds, sizeof seconds, "%.3f s", static_cast<double>(thousandths) / 1000);
  }
  std::string text;
  if (hours != 0) text += std::to_string(hours) + " h ";
  if (minutes != 0) text += std::to_string(minutes) + " min ";
  if (thousandths != 0 || text.empty()) text += seconds;
  if (text.back() == ' ') text.pop_back();
  return text;
}

// "1:01:11"
std::string ClockText(milliseconds moment) {
  const auto total = moment.count();
  char text[48];
  const int hours = static_cast<int>(total / 3'600'000);
  const int minutes = static_cast<int>(total / 60'000 % 60);
  const int seconds = static_cast<int>(total / 1000 % 60);
  if (hours != 0) {
    std::snprintf(text, sizeof text, "%d:%02d:%02d", hours, minutes, seconds);
  } else {
    std::snprintf(text, sizeof text, "%d:%02d", minutes, seconds);
  }
  return text;
}

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

// A moment on an axis, with the room for its marks and the weight of the time before it.
struct Slot {
  milliseconds moment;
  double width;
  double gap;
};

// The moments of a picture along one direction. Marks of one moment need room beside one another,
// and a long time between two moments is drawn shorter than it is: a first boot waits for an hour
// after a minute in which most happens.
class Axis {
 public:
  Axis(const Picture& picture, double begin, double length) {
    std::map<milliseconds, std::map<std::size_t, int>> moments;
    moments[milliseconds{}];
    moments[picture.end];
    for (const PictureMark& mark : picture.marks) ++moments[mark.at][mark.lane];
    for (const PictureBar& bar : picture.bars) {
      moments[bar.from];
      moments[bar.to];
    }
    double fixed = 0;
    double gaps = 0;
    milliseconds before{};
    for (const auto& [moment, lanes] : moments) {
      int most = 1;
      for (const auto& [lane, count] : lanes) most = std::max(most, count);
      if (moment != before) gaps += Weight(moment - before);
      fixed += most * kMarkStep;
      widths.push_back(
          {moment, double(most * kMarkStep), moment == before ? 0 : Weight(moment - before)});
      before = moment;
    }
    const double room = length - fixed;
    const double unit = gaps == 0 ? 0 : std::max(kLeastUnit, room / gaps);
    double at = begin;
    for (const Slot& slot : widths) {
      at += slot.gap * unit;
      centres[slot.moment] = at + slot.width / 2;
      starts[slot.moment] = at;
      at += slot.width;
    }
    end = std::max(at, begin + length);
  }

  double Centre(milliseconds moment) const { return centres.at(moment); }
  // Of mark number `index` of one lane and moment.
  double Place(milliseconds moment, int index) const {
    return starts.at(moment) + kMarkStep * (index + 0.5);
  }
  double End() const { return end; }
  const std::map<milliseconds, double>& Centres() const { return centres; }

 private:
  static constexpr double kLeastUnit = 6;

  static double Weight(milliseconds length) {
    return 1 + std::log2(1 + static_cast<double>(length.count()) / 1000);
  }

  double end = 0;
  std::vector<Slot> widths;
  std::map<milliseconds, double> centres;
  std::map<milliseconds, double> starts;
};

std::string Shape(Tone tone, double x, double y) {
  const std::string kind = std::string("\" class=\"shape ") + ClassOf(tone) + "\"/>";
  const double r = kRadius;
  switch (tone) {
    case Tone::Bad:
      return "<rect x=\"" + Number(x - r) + "\" y=\"" + Number(y - r) + "\" width=\"" +
             Number(2 * r) + "\" height=\"" + Number(2 * r) + "\" rx=\"2" + kind;
    case Tone::Dropped:
      return "<path d=\"M" + Number(x) + " " + Number(y - r - 2.5) + "l" + Number(r + 2.5) + " " +
             Number(r + 2.5) + "l" + Number(-r - 2.5) + " " + Number(r + 2.5) + "l" +
             Number(-r - 2.5) + " " + Number(-r - 2.5) + "z" + kind;
    default:
      return "<circle cx=\"" + Number(x) + "\" cy=\"" + Number(y) + "\" r=\"" + Number(r) + kind;
  }
}

std::string Text(double x, double y, const char* kind, const std::string& html,
                 const char* more = "") {
  return "<text x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" class=\"" + kind + "\"" + more +
         ">" + html + "</text>";
}

std::string Line(double x1, double y1, double x2, double y2, const char* kind) {
  return "<line x1=\"" + Number(x1) + "\" y1=\"" + Number(y1) + "\" x2=\"" + Number(x2) +
         "\" y2=\"" + Number(y2) + "\" class=\"" + kind + "\"/>";
}

std::string Rectangle(double x, double y, double width, double height, const std::string& kind) {
  return "<rect x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" width=\"" + Number(width) +
         "\" height=\"" + Number(height) + "\" class=\"" + kind + "\"/>";
}

std::string Described(const PictureMark& mark) {
  return TimeText(mark.at) + ": " + Html(mark.text) +
         (mark.reason.empty() ? "" : " (" + Html(mark.reason) + ")");
}

std::string LinkedMark(const PictureMark& mark, std::size_t number, double x, double y) {
  const std::string digits = std::to_string(number);
  return "<a href=\"#m" + digits + "\"><title>" + Described(mark) + "</title>" +
         Shape(mark.tone, x, y) + Text(x, y + 3.5, "number", digits) + "</a>";
}

std::string BarShape(const PictureBar& bar, double x, double y, double width, double height) {
  return Rectangle(x, y, width, height,
                   std::string("bar ") + ClassOf(bar.kind) + (bar.open ? " open" : ""));
}

// Marks of one lane and moment are placed one after the other.
class Counter {
 public:
  int Next(const PictureMark& mark) { return counts[{mark.lane, mark.at}]++; }

 private:
  std::map<std::pair<std::size_t, milliseconds>, int> counts;
};

// Bars that overlap lie in tracks of their own. The number of tracks per lane, at least one where
// there is a bar, goes into `tracks`.
std::vector<std::size_t> Tracks(const Picture& picture, std::vector<std::size_t>& tracks) {
  tracks.assign(picture.lanes.size(), 0);
  std::map<std::pair<std::size_t, std::size_t>, milliseconds> ends;  // of lane and track
  std::vector<std::size_t> order(picture.bars.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return picture.bars[a].from < picture.bars[b].from;
  });
  std::vector<std::size_t> result(picture.bars.size());
  for (const std::size_t i : order) {
    const PictureBar& bar = picture.bars[i];
    std::size_t track = 0;
    while (track < tracks[bar.lane] && ends[{bar.lane, track}] > bar.from) ++track;
    ends[{bar.lane, track}] = bar.to;
    tracks[bar.lane] = std::max(tracks[bar.lane], track + 1);
    result[i] = track;
  }
  return result;
}

std::string WideSvg(const Picture& picture) {
  constexpr double kNames = 170;
  constexpr double kWidth = 1230;
  constexpr double kAfter = 60;  // for the label of the last mark
  constexpr double kTop = 34;
  const Axis axis(picture, kNames, kWidth - kNames - kAfter);
  const double width = axis.End() + kAfter;
  std::vector<std::size_t> tracks;
  const auto trackOf = Tracks(picture, tracks);
  std::vector<double> tops;
  double y = kTop;
  for (const std::size_t count : tracks) {
    tops.push_back(y);
    y += 38 + static_cast<double>(count) * (kBarHeight + 3) + 6;
  }
  const double height = y + 4;
  std::string svg =
      "<svg role=\"img\" aria-label=\"The picture of what the list below says\" "
      "viewBox=\"0 0 " +
      Number(width) + " " + Number(height) + "\" width=\"" + Number(width) + "\">";
  for (std::size_t lane = 0; lane < picture.lanes.size(); ++lane) {
    const double bottom = lane + 1 < tops.size() ? tops[lane + 1] : y;
    if (lane % 2 == 0) svg += Rectangle(0, tops[lane], width, bottom - tops[lane], "band");
    svg += Text(10, tops[lane] + 22, "name", Fitted(picture.lanes[lane].name, kNames / kBold - 12));
    svg += Text(10, tops[lane] + 37, "faint", Fitted(picture.lanes[lane].detail, kNames - 12));
  }
  double free = 0;
  for (const auto& [moment, x] : axis.Centres()) {
    svg += Line(x, kTop - 5, x, y, "rule");
    const std::string label = TimeText(moment);
    const double half = Width(Wide(label)) / 2;
    if (x - half < free) continue;
    svg += Text(x, kTop - 12, "faint", label, " text-anchor=\"middle\"");
    free = x + half + 8;
  }
  for (std::size_t i = 0; i < picture.bars.size(); ++i) {
    const PictureBar& bar = picture.bars[i];
    const double from = axis.Centre(bar.from);
    const double length = axis.Centre(bar.to) - from;
    if (length <= 0) continue;
    const double top = tops[bar.lane] + 38 + static_cast<double>(trackOf[i]) * (kBarHeight + 3);
    svg += "<g><title>" + Html(bar.text) + ", " + TimeText(bar.from) + " to " + TimeText(bar.to) +
           (bar.open ? ", not over" : "") + "</title>" +
           BarShape(bar, from, top, length, kBarHeight) +
           Text(from + 6, top + 11, "in", Fitted(bar.text, length - 8)) + "</g>";
  }
  Counter counter;
  std::vector<double> places;
  for (const PictureMark& mark : picture.marks) {
    places.push_back(axis.Place(mark.at, counter.Next(mark)));
  }
  std::vector<double> next(picture.lanes.size(), width - 4);  // where the label has to end
  for (std::size_t i = picture.marks.size(); i-- != 0;) {
    const PictureMark& mark = picture.marks[i];
    const double centre = tops[mark.lane] + 19;
    const double begin = places[i] + kRadius + 4;
    svg += LinkedMark(mark, i + 1, places[i], centre);
    svg += Text(begin, centre + 4, "label", Fitted(mark.text, next[mark.lane] - begin - 4));
    next[mark.lane] = places[i] - kRadius;
  }
  return svg + "</svg>";
}

std::string NarrowSvg(const Picture& picture) {
  constexpr double kTimes = 64;
  constexpr double kWidth = 370;
  constexpr double kTop = 136;
  const Axis axis(picture, kTop, 320);
  const double step =
      std::max<double>(26, (kWidth - kTimes) / static_cast<double>(picture.lanes.size()));
  const double width = std::max(kWidth, kTimes + step * static_cast<double>(picture.lanes.size()));
  const double height = axis.End() + 8;
  const auto centre = [&](std::size_t lane) {
    return kTimes + step * (static_cast<double>(lane) + 0.5);
  };
  std::string svg =
      "<svg role=\"img\" aria-label=\"The picture of what the list below says\" "
      "viewBox=\"0 0 " +
      Number(width) + " " + Number(height) + "\">";
  for (std::size_t lane = 0; lane < picture.lanes.size(); ++lane) {
    const double x = centre(lane);
    if (lane % 2 == 0) svg += Rectangle(x - step / 2, kTop - 6, step, height - kTop + 6, "band");
    const std::string turn =
        " transform=\"rotate(-90 " + Number(x + 4) + " " + Number(kTop - 12) + ")\"";
    svg +=
        Text(x + 4, kTop - 12, "name", Fitted(picture.lanes[lane].name, 116 / kBold), turn.c_str());
  }
  double free = 0;
  for (const auto& [moment, y] : axis.Centres()) {
    svg += Line(kTimes - 4, y, width, y, "rule");
    if (y < free) continue;
    svg += Text(kTimes - 8, y + 4, "faint", ClockText(moment), " text-anchor=\"end\"");
    free = y + 14;
  }
  std::vector<std::size_t> tracks;
  const auto trackOf = Tracks(picture, tracks);
  for (std::size_t i = 0; i < picture.bars.size(); ++i) {
    const PictureBar& bar = picture.bars[i];
    const double from = axis.Centre(bar.from);
    const double length = axis.Centre(bar.to) - from;
    if (length <= 0) continue;
    const double share = (step - 6) / static_cast<double>(tracks[bar.lane]);
    const double x = centre(bar.lane) - step / 2 + 3 + share * static_cast<double>(trackOf[i]);
    svg += "<g><title>" + Html(bar.text) + ", " + TimeText(bar.from) + " to " + TimeText(bar.to) +
           "</title>" + BarShape(bar, x, from, share - 1, length) + "</g>";
  }
  Counter counter;
  for (std::size_t i = 0; i < picture.marks.size(); ++i) {
    const PictureMark& mark = picture.marks[i];
    svg += LinkedMark(mark, i + 1, centre(mark.lane), axis.Place(mark.at, counter.Next(mark)));
  }
  return svg + "</svg>";
}

std::string Badge(Tone tone, const std::string& text) {
  return "<svg class=\"badge\" viewBox=\"0 0 24 24\" aria-hidden=\"true\">" + Shape(tone, 12, 12) +
         Text(12, 15.5, "number", text) + "</svg>";
}

std::string Legend() {
  const auto mark = [](Tone tone, const char* text) {
    return "<li>" + Badge(tone, "") + text + "</li>";
  };
  const auto bar = [](BarKind kind, const char* text) {
    return std::string("<li><svg width=\"30\" height=\"14\" aria-hidden=\"true\">") +
           Rectangle(0, 0, 30, 14, std::string("bar ") + ClassOf(kind)) + "</svg>" + text + "</li>";
  };
  return "<ul class=\"legend\">" + mark(Tone::Neutral, "happened") + mark(Tone::Good, "done") +
         mark(Tone::Bad, "refused or failed") + mark(Tone::Dropped, "dropped") +
         bar(BarKind::Wait, "waits") + bar(BarKind::Sleep, "the machine sleeps") +
         bar(BarKind::Standby, "Modern Standby") +
         "<li>Long times are drawn shorter than they are.</li></ul>";
}

std::string LinesHtml(const std::vector<PictureLine>& lines) {
  if (lines.empty()) return {};
  std::size_t count = 0;
  std::string rows;
  for (const PictureLine& line : lines) {
    count += line.count;
    rows += "<tr class=\"" + Html(line.level) + "\"><td>" + TimeText(line.first) + "</td><td>" +
            Html(line.level) + "</td><td>";
    if (!line.caller.empty()) rows += "[" + Html(line.caller) + "] ";
    rows += "<span class=\"message\">" + Html(line.message) + "</span>";
    if (line.count > 1) {
      rows += " <i>(<span class=\"count\">" + std::to_string(line.count) + "</span> times until " +
              TimeText(line.last) + ")</i>";
    }
    rows += "</td></tr>\n";
  }
  return "<details><summary>" + std::to_string(count) + (count == 1 ? " line" : " lines") +
         "</summary><table>" + rows + "</table></details>";
}

std::string MarkHtml(const Picture& picture, std::size_t index) {
  const PictureMark& mark = picture.marks[index];
  const PictureLane& lane = picture.lanes[mark.lane];
  const std::string number = std::to_string(index + 1);
  std::string html = "<li id=\"m" + number + "\">" + Badge(mark.tone, number) +
                     "<span class=\"time\">" + TimeText(mark.at) + "</span><span class=\"lane\">" +
                     Html(lane.name) +
                     (lane.detail.empty() ? "" : " <small>" + Html(lane.detail) + "</small>") +
                     "</span><div class=\"what\"><b class=\"" + ClassOf(mark.tone) + "\">" +
                     Html(mark.text) + "</b>";
  if (!mark.reason.empty()) html += " <span class=\"reason\">" + Html(mark.reason) + "</span>";
  return html + LinesHtml(mark.lines) + "</div></li>\n";
}

std::string List(const Picture& picture) {
  std::string html = "<ol class=\"marks\">\n";
  std::size_t heading = 0;
  for (std::size_t i = 0; i <= picture.marks.size(); ++i) {
    for (; heading < picture.headings.size() && picture.headings[heading].mark == i; ++heading) {
      html += "</ol><h3>" + Html(picture.headings[heading].text) + "</h3><ol class=\"marks\">\n";
    }
    if (i < picture.marks.size()) html += MarkHtml(picture, i);
  }
  return html + "</ol>\n";
}

}  // namespace

std::string TimelinePage(const PageHead& head, const Picture& picture) {
  const std::string title = Html(head.title);
  std::string page =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
      "'unsafe-inline'\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
      title + "</title>\n<style>" + kStyle + "</style></head>\n<body>\n<h1>" + title + "</h1>\n";
  if (!head.verdict.empty()) {
    page += std::string("<p class=\"") + (head.met ? "met" : "unmet") + "\">" + Html(head.verdict) +
            "</p>\n";
  }
  page +=
      "<p>From 0 s to " + TimeText(picture.end) + ". Each number leads to its entry below.</p>\n";
  page += "<figure class=\"wide\">" + WideSvg(picture) + "</figure>\n<figure class=\"narrow\">" +
          NarrowSvg(picture) + "</figure>\n" + Legend() + "\n<h2>What happened</h2>\n" +
          List(picture) + "</body></html>\n";
  return page;
}

}  // namespace Vx::Host
