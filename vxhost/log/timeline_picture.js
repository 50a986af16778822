'use strict';

const ROUNDING = 20;   // maximum difference between log and record clocks, in milliseconds
const POLL = 1000;     // milliseconds between poll rounds
const ROUND = 5;       // maximum lines per poll round
const SUBSCRIBE = [7, 9, 14];
const UNSUBSCRIBE = [15, 19];
const SESSION_CODES = {1: 'a session is at the console', 2: 'a session leaves the console', 5: 'a user logs on',
  6: 'a user logs off', 7: 'the session is locked', 8: 'the session is unlocked'};

// Effects of service lines that do not concern a delivery: part of the line, the wait that starts,
// the wait that ends, the text (of the new wait or else of a mark), and the mark's tone.
const SERVICE_LINES = [
  ['OrvaneService: OOBE not completed', 'set-up', '', 'first-run set-up'],
  ['OrvaneService: Verified that OOBE completed.', '', 'set-up', 'first-run set-up is complete', 'good'],
  ['Wrote born on date to shared data store', '', '', 'the born-on date is stored', 'good'],
  ['OrvaneService: start waiting for real user session', 'user', '', 'a user'],
  ['OrvaneService: got real user session', '', 'user', 'a user is there', 'good'],
  ['OrvaneService: waited for 2 hours for real user session', '', 'user', 'no user came for two hours', 'dropped'],
  ['CheckToSendWakeupEvent: Started', 'report', '', 'a user to report'],
  ['FulfillZephraManagementEventRequests for: ', '', 'report', 'the first user after the boot is reported', 'good'],
  ['CheckToSendWakeupEvent: Not a new boot', '', 'report', ''],
  ['Scheduling Vx Aurelo launch', 'aurelo', '', 'an hour for Aurelo'],
  ['Aurelo launched', '', 'aurelo', 'Aurelo is started', 'good'],
  ['Aurelo not launched', '', 'aurelo', 'Aurelo is not started', 'bad'],
];

// Returns the entries of deliveries. A delivery has its own thread, or shares one with the others
// of its event. The thread's entries from the delivery's start to its record belong to it.
function entriesOfDeliveries(entries) {
  const found = new Set();
  const threads = new Map();
  for (const entry of entries) {
    const {thread, record} = entry;
    if (!thread) continue;
    const since = threads.get(thread) || [];
    threads.set(thread, since);
    since.push(entry);
    if (!record || record.decision === 'waiting') continue;
    const begin = record.delivery ? entry.at - record.milliseconds - ROUNDING : Infinity;
    for (const one of since) {
      if (one.at >= begin) found.add(one);
    }
    threads.delete(thread);
  }
  return found;
}

// Builds the picture from the tool's data: decisions from the module's records, with each
// delivery's lines. A running service's log has no steps, and shows commands only as records.
function readPicture(data) {
  const [machine, user, service] = ['Machine', 'User', 'Service'].map(name => ({name, detail: ''}));
  const lanes = [machine, user, service];
  const bars = [];
  const marks = [];              // in chronological order
  const headings = [];           // each precedes the mark with this index
  const subscriptions = new Map();  // lanes by subscription hash
  const open = new Map();        // bars of waiting deliveries
  const waits = new Map();       // bars of the service's waits
  const ofThread = new Map();    // lines of deliveries, by thread
  let loose = [];                // lines not yet assigned to a mark
  let last = null;               // last mark outside the subscription lanes
  let standby = null;            // bar of the current standby
  let end = data.end;
  let step = 0;

  const seconds = length => Math.floor(length / 1000) + ' s';

  function addBar(lane, kind, from, to, text, isOpen) {
    bars.push({lane, kind, from, to, text, open: isOpen});
    return bars.at(-1);
  }

  function addMark(lane, at, tone, text, reason = '', lines = []) {
    const mark = {lane, at, tone, text, reason, lines, number: marks.length + 1};
    marks.push(mark);
    if (lanes.indexOf(lane) > 2) return mark;
    mark.lines = loose;
    loose = [];
    last = mark;
    return mark;
  }

  // Polling repeats a few lines every second. Keeps one of each and counts the others.
  function addLine(lines, line) {
    const same = lines.slice(-ROUND).find(one =>
      one.text === line.text && one.level === line.level && line.first - one.last <= POLL);
    if (!same) {
      lines.push(line);
      return;
    }
    same.count += line.count;
    same.last = line.last;
  }

  function lineOf({at, what, text, level, caller = ''}) {
    return {first: at, last: at, count: 1, level: what === 'event' ? 'EVENT' : level, caller, text: data.texts[text]};
  }

  // Lines outside a delivery belong to the next mark at the same moment, else to the previous one.
  function flushLines(now) {
    if (!last || !loose.length || loose.at(-1).last === now) return;
    for (const line of loose) addLine(last.lines, line);
    loose = [];
  }

  // Returns a subscription's lane, created from its first entry.
  function laneOf({subscription, event, target = ''}, delay = 0) {
    if (!subscriptions.has(subscription)) {
      const when = event + (delay > 0 ? ' + ' + seconds(delay) : '');
      const program = target.slice(target.lastIndexOf('\\') + 1);
      const lane = {name: program || when, detail: program && when};
      lanes.push(lane);
      subscriptions.set(subscription, lane);
    }
    return subscriptions.get(subscription);
  }

  function endWait(name, at) {
    const bar = waits.get(name);
    if (bar) Object.assign(bar, {to: at, open: false});
    waits.delete(name);
  }

  // The process has ended or was replaced, so none of its deliveries is waiting any more.
  function endDeliveries(at) {
    for (const name of [...waits.keys()]) endWait(name, at);
    for (const bar of open.values()) {
      bar.to = Math.min(bar.to, at);
      addMark(bar.lane, at, 'dropped', 'dropped', 'its service ended before it did');
    }
    open.clear();
  }

  // Adds a mark if the line is a broadcast. Returns whether it was one.
  function takeBroadcast(at, text) {
    const [, kind, code] = text.match(/^(power event|session change) (\d+)/) || [];
    if (!kind) return false;
    const codes = kind === 'power event' ? data.powerCodes : SESSION_CODES;
    addMark(machine, at, 'neutral', text, codes[code] || 'code ' + code);
    return true;
  }

  function takeCall({at}, text) {
    if (takeBroadcast(at, text)) return;
    const verb = {start: 'starts', end: 'ends', 'end and start': 'restarts'}[text];
    if (verb && text !== 'start') endDeliveries(at);
    if (verb) addMark(service, at, 'neutral', 'the service ' + verb);
    else addMark(machine, at, 'neutral', text);
  }

  function takeCommand({at, command, name, done, result, request, names}) {
    const takesBack = UNSUBSCRIBE.includes(command);
    if (done && names && (takesBack || SUBSCRIBE.includes(command))) {
      addMark(laneOf(names, names.milliseconds), at, 'neutral', takesBack ? 'taken back' : 'subscribed',
        takesBack ? '' : request);
      return;
    }
    addMark(service, at, done ? 'neutral' : 'bad', name || 'command ' + command, 'command ' + command + ': ' + result);
  }

  function takeEvent(entry, text) {
    const {at} = entry;
    const [, sleep] = text.match(/^the machine sleeps for ([\d.]+)/) || [];
    if (sleep) {
      const to = at + Math.round(sleep * 1000);
      addBar(machine, 'sleep', at, to, 'asleep', false);
      end = Math.max(end, to);
    }
    if (text === 'the machine enters Modern Standby') {
      standby ||= addBar(machine, 'standby', at, at, 'Modern Standby', true);
    }
    if (text === 'the machine leaves Modern Standby' && standby) {
      Object.assign(standby, {to: at, open: false});
      standby = null;
    }
    if (text.includes('are notified that the machine came up')) {
      addLine(loose, lineOf(entry));  // logged with every power event
      return;
    }
    const isMessage = text.includes(' receives ');
    const isOfUser = isMessage || / logs o| starts | uninstalls | cannot start /.test(text);
    const refused = text.includes('cannot ') || (isMessage && !text.endsWith(' returns 0'));
    addMark(isOfUser ? user : machine, at, refused ? 'bad' : 'neutral', text);
  }

  function takeLog(entry, text) {
    const {at, what} = entry;
    if (what === 'started' || what === 'ended') {
      endDeliveries(at);
      addMark(service, at, 'neutral', what === 'started' ? 'the module is started' : text);
    } else if (what === 'host' && text.startsWith('power event ')) {
      takeBroadcast(at, text);
    }
    for (const [part, begins, ends, meaning, tone] of SERVICE_LINES) {
      if (!text.includes(part)) continue;
      if (ends) endWait(ends, at);
      if (begins) {
        if (!waits.has(begins)) waits.set(begins, addBar(service, 'wait', at, at, 'waits for ' + meaning, true));
      } else if (meaning) {
        addLine(addMark(service, at, tone, meaning).lines, lineOf(entry));
        return;
      }
    }
    addLine(loose, lineOf(entry));
  }

  function takeRecord({at, thread}, record) {
    const {kind, subscription, event, decision, tone, why, client, delivery, milliseconds, process} = record;
    if (!delivery && kind === 'completion') {
      addMark(laneOf(record), at, 'neutral', decision, why);
    } else if (!delivery) {
      if (data.steps.length) return;
      addMark(service, at, tone === 'good' ? 'neutral' : 'bad',
        (subscription ? 'subscription' : event) + ' ' + decision,
        [why, subscription, 'client ' + client].filter(text => text).join(', '));
    } else if (decision === 'waiting') {
      const lane = laneOf(record, milliseconds);
      open.set(delivery, addBar(lane, 'wait', at, at + milliseconds, seconds(milliseconds), false));
    } else {
      const waited = open.get(delivery);
      if (waited) waited.to = Math.min(waited.to, at);
      open.delete(delivery);
      addMark(waited ? waited.lane : laneOf(record), at, tone, decision, process ? 'process ' + process : why,
        ofThread.get(thread));
      ofThread.delete(thread);
    }
  }

  function announce(until) {
    for (; step < until; ++step) {
      if (data.steps[step]) headings.push({mark: marks.length, text: data.steps[step]});
    }
  }

  const take = {
    call: takeCall,
    command: takeCommand,
    event: takeEvent,
    failure: ({at}, text) => addMark(service, at, 'bad', 'not as expected', text),
  };

  for (const one of data.stored.filter(names => names)) laneOf(one, one.milliseconds);
  const ofDelivery = entriesOfDeliveries(data.entries);
  for (const entry of data.entries) {
    const {at, what, thread, record} = entry;
    const text = data.texts[entry.text];
    announce(Math.min(entry.step, data.steps.length));
    end = Math.max(end, at);
    flushLines(at);
    if (ofDelivery.has(entry)) {
      if (!ofThread.has(thread)) ofThread.set(thread, []);
      addLine(ofThread.get(thread), lineOf(entry));
    } else {
      (take[what] || takeLog)(entry, text);
    }
    if (record) takeRecord(entry, record);
  }
  announce(data.steps.length);
  for (const bar of open.values()) {
    bar.open = true;
    addMark(bar.lane, end, 'neutral', 'still waits');
  }
  for (const bar of bars) {
    if (bar.open) bar.to = end;
  }
  flushLines(Infinity);
  if (loose.length) addMark(service, end, 'neutral', 'log lines');
  return {end, lanes, bars, marks, headings};
}
