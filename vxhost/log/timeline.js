'use strict';

const GAP = 6;             // minimum pixels per unit of idle time
const MOST_GAPS = 3000;    // maximum pixels for all idle time, unless the window is wider
const MOST_MARKS = 250;    // drawn individually; beyond that, one per group of moments
const MOST_MOMENTS = 64;   // maximum groups of moments
const MOST_LINES = 5000;   // in the page from the start; beyond that, added when a mark is opened
const PAPER = 960;         // width of an A4 or Letter page in pixels
const BESIDE = 230;        // of these, for the lane names and the space after the last mark
const TONES = ['neutral', 'good', 'dropped', 'bad'];  // worst last

const source = document.getElementById('data');
const data = JSON.parse(source.textContent);
const {end, lanes, bars, marks, headings} = readPicture(data);
for (const lane of lanes) Object.assign(lane, {tracks: [], track: make('div', 'track')});
const grouped = marks.length > MOST_MARKS;
const STEP = grouped ? 30 : 24;  // pixels between marks at one moment in a lane
const picture = document.getElementById('picture');

// Text becomes text nodes, so it is never parsed as markup.
function make(tag, kind, ...content) {
  const element = document.createElement(tag);
  element.className = kind;
  element.append(...content);
  return element;
}

function set(element, numbers) {
  for (const [name, value] of Object.entries(numbers)) element.style.setProperty('--' + name, value);
  return element;
}

// Returns "1 h 1 min 11.5 s".
function timeText(moment) {
  const hours = Math.floor(moment / 3600000);
  const parts = [[hours, 'h'], [Math.floor(moment / 60000) % 60, 'min'], [moment % 60000 / 1000, 's']];
  return parts.filter(([count]) => count).map(part => part.join(' ')).join(' ') || '0 s';
}

// Returns a moment as "2026-11-25 11:31:46.251" or, on a page without clock times, as "1 h 5 s".
function momentText(moment) {
  return 'begin' in data ? new Date(data.begin + moment).toISOString().slice(0, -1).replace('T', ' ') : timeText(moment);
}

// Returns "1:01:11", or the time of day, with the date if the page covers several days.
function clockText(moment) {
  if ('begin' in data) return momentText(moment).slice(momentText(0).slice(0, 10) === momentText(end).slice(0, 10) ? 11 : 5, 19);
  const two = number => String(Math.floor(number) % 60).padStart(2, '0');
  return Math.floor(moment / 3600000) + ':' + two(moment / 60000) + ':' + two(moment / 1000);
}

// Assigns positions to moments, or to groups of them. Marks at one moment are drawn side by side.
// Long gaps are compressed: a first boot waits for an hour after a minute in which most happens.
function makeAxis() {
  const moments = new Set([0, end]);
  for (const mark of marks) moments.add(mark.at);
  for (const bar of bars) moments.add(bar.from).add(bar.to);
  const each = grouped ? Math.ceil(moments.size / MOST_MOMENTS) : 1;
  const slots = [];
  const slotOf = new Map();
  [...moments].sort((a, b) => a - b).forEach((moment, index) => {
    if (index % each === 0) slots.push({at: moment, index: slots.length, shapes: new Map()});
    slotOf.set(moment, slots.at(-1));
  });
  for (const mark of marks) {
    const {shapes} = slotOf.get(mark.at);
    if (!shapes.has(mark.lane)) shapes.set(mark.lane, []);
    const ofLane = shapes.get(mark.lane);
    if (grouped && ofLane.length) ofLane[0].push(mark);
    else ofLane.push([mark]);
  }
  let fixed = 0;
  let gaps = 0;
  slots.forEach((slot, index) => {
    if (index) gaps += 1 + Math.log2(1 + (slot.at - slots[index - 1].at) / 1000);
    slot.begin = fixed;
    slot.gaps = gaps;
    fixed += STEP * Math.max(1, ...[...slot.shapes.values()].map(shapes => shapes.length));
    slot.p = (slot.begin + fixed) / 2;
  });
  for (const slot of slots) slot.f = slot.gaps / (gaps || 1);
  return {slots, slotOf, fixed, least: fixed + (grouped ? 0 : Math.min(gaps * GAP, MOST_GAPS))};
}

function drawBars({slotOf}) {
  for (const bar of [...bars].sort((a, b) => a.from - b.from)) {
    const from = slotOf.get(bar.from);
    const to = slotOf.get(bar.to);
    // In a dense log, draw only bars that last longer than a group of moments.
    if (to.index - from.index < (grouped ? 2 : 1)) continue;
    // Overlapping bars get separate tracks.
    const {tracks} = bar.lane;
    const free = tracks.findIndex(end => end <= bar.from);
    const track = free < 0 ? tracks.length : free;
    tracks[track] = bar.to;
    const shape = make('div', 'bar ' + bar.kind + (bar.open ? ' open' : ''), make('span', 'in', bar.text));
    shape.title = bar.text + ', ' + momentText(bar.from) + ' to ' + momentText(bar.to) +
      (bar.open ? ', not over' : '');
    bar.lane.track.append(set(shape, {p: from.p, f: from.f, dp: to.p - from.p, df: to.f - from.f, track}));
  }
}

// Draws one or more marks of a lane as one shape, with the worst of their tones.
function markShape(all) {
  const [first, ...others] = all;
  const tone = TONES[Math.max(...all.map(mark => TONES.indexOf(mark.tone)))];
  const shape = others.length ? make('a', 'mark group ' + tone, all.length + '×')
    : make('a', 'mark ' + tone, first.number);
  shape.href = '#m' + first.number;
  shape.title = (others.length ? all.length + ' entries, the first at ' : '') + momentText(first.at) +
    ': ' + first.text + (first.reason && ' (' + first.reason + ')');
  return shape;
}

function drawMarks(lane, {slots, fixed}) {
  let next = {p: fixed + 70, f: 1};  // where the label must end
  const drawn = [];
  for (const slot of [...slots].reverse()) {
    const shapes = slot.shapes.get(lane) || [];
    for (let i = shapes.length; i-- > 0;) {
      const at = {p: slot.begin + STEP * (i + 0.5), f: slot.f};
      const label = make('span', 'label', grouped ? '' : shapes[i][0].text);
      drawn.unshift(set(markShape(shapes[i]), at),
        set(label, {...at, dp: next.p - at.p, df: next.f - at.f}));
      next = at;
    }
  }
  lane.track.append(...drawn);
}

function drawPicture() {
  const axis = makeAxis();
  const ticks = axis.slots.map(({at, p, f}) =>
    set(make('div', 'tick', make('span', '', clockText(at))), {p, f}));
  drawBars(axis);
  const rows = lanes.map(lane => {
    drawMarks(lane, axis);
    const who = make('div', 'who', make('b', '', lane.name), make('small', '', lane.detail));
    who.title = lane.name + (lane.detail && ': ' + lane.detail);
    return set(make('div', 'lane', who, lane.track), {tracks: lane.tracks.length});
  });
  const zoom = Math.min(1, PAPER / (axis.least + BESIDE));
  set(picture, {zoom, fixed: axis.fixed, least: axis.least});
  const line = make('div', 'ticks', ...ticks);
  picture.append(make('div', 'lanes', line, ...rows));

  // For a picture of this length, shows only the times that do not overlap the previous one.
  const thin = (length, size) => {
    let free = -Infinity;
    let before = '';
    axis.slots.forEach(({p, f}, index) => {
      const label = ticks[index].firstChild;
      const centre = p + f * (length - axis.fixed);
      const fits = centre - label[size] / 2 >= free && label.textContent !== before;
      label.style.visibility = fits ? '' : 'hidden';
      if (!fits) return;
      free = centre + label[size] / 2 + 4;
      before = label.textContent;
    });
  };
  const thinForScreen = () => {
    if (getComputedStyle(line).writingMode === 'horizontal-tb') thin(line.clientWidth, 'offsetWidth');
    else thin(line.clientHeight, 'offsetHeight');
  };
  new ResizeObserver(thinForScreen).observe(picture);
  addEventListener('beforeprint', () => thin(PAPER / zoom - BESIDE, 'offsetWidth'));
  addEventListener('afterprint', thinForScreen);
}

function lineRow({first, last, count, level, caller, text: message}) {
  const text = make('td', '', caller && '[' + caller + '] ', make('span', 'message', message));
  if (count > 1) {
    text.append(make('i', '', ' (', make('span', 'count', count), ' times until ' + momentText(last) + ')'));
  }
  return make('tr', level, make('td', '', momentText(first)), make('td', '', level), text);
}

function makeDetails(lines, atOnce) {
  const count = lines.reduce((sum, line) => sum + line.count, 0);
  const details = make('details', '', make('summary', '', count + (count === 1 ? ' line' : ' lines')));
  const fill = () => {
    const table = make('table', '');
    for (const line of lines) table.append(lineRow(line));
    details.append(table);
  };
  if (atOnce) fill();
  else details.addEventListener('toggle', fill, {once: true});
  return details;
}

function drawList() {
  const atOnce = marks.reduce((sum, mark) => sum + mark.lines.length, 0) <= MOST_LINES;
  const list = document.getElementById('list');
  const announce = until => {
    while (headings.length && headings[0].mark < until) list.append(make('h3', '', headings.shift().text));
  };
  for (const mark of marks) {
    announce(mark.number);
    const what = make('div', 'what', make('b', mark.tone, mark.text));
    if (mark.reason) what.append(' ', make('span', 'reason', mark.reason));
    if (mark.lines.length) what.append(makeDetails(mark.lines, atOnce));
    const entry = make('li', '', make('span', 'mark ' + mark.tone, mark.number),
      make('span', 'time', momentText(mark.at)),
      make('span', 'lane-name', mark.lane.name, ' ', make('small', '', mark.lane.detail)), what);
    entry.id = 'm' + mark.number;
    if (list.lastChild?.tagName !== 'OL') list.append(make('ol', ''));
    list.lastChild.append(entry);
  }
  announce(Infinity);
}

document.title = document.querySelector('h1').textContent = data.title;
const verdict = document.getElementById('verdict');
verdict.textContent = data.verdict || '';
verdict.className = data.met ? 'met' : 'unmet';
document.getElementById('span').textContent =
  'From ' + momentText(0) + ' to ' + momentText(end) + '. Each number leads to its entry below.';
drawPicture();
if (grouped) {
  document.getElementById('legend')
    .append(make('li', '', 'n× stands for n entries and leads to the first.'));
}
drawList();
source.remove();
