// What applying a state document would add to what is there. Applying only ever adds.

import { JsonText, dataText, holdsData, isDictionary, preview, write } from "./json.js";

/// {added: {events, listeners, timers, watches}: each [text], present: [text], ignored: [text], faults: [text]}
export function compareState(document, current) {
  const result = { added: { events: [], listeners: [], timers: [], watches: [] }, present: [], ignored: [], faults: [] };
  if (!isDictionary(document)) {
    result.faults.push("This is not a state document: it has to be a dictionary.");
    return result;
  }
  const sections = ["event_list", "timer_list", "watch_list"].filter((section) => section in document);
  if (sections.length === 0) result.faults.push('This is not a state document: it holds none of "event_list", "timer_list" and "watch_list".');
  for (const section of sections) if (!Array.isArray(document[section])) result.faults.push(`/${section} has to be an array.`);
  compareEvents(list(document.event_list), current, result);
  compareTimers(list(document.timer_list), current, result);
  compareWatches(list(document.watch_list), current, result);
  for (const limit of ["max_listeners", "max_watches"]) {
    if (limit in document && document[limit] !== current[limit]) result.ignored.push(`${limit} ${preview(document[limit])}: limits are not taken from a document`);
  }
  return result;
}

const list = (value) => (Array.isArray(value) ? value : []);
const text = (value) => (typeof value === "string" ? value : "");
const numeral = (value) => (typeof value === "number" || value instanceof JsonText ? String(value) : text(value));
const withData = (data) => (holdsData(data) ? ` with ${preview(data, 60)}` : "");

function compareEvents(entries, current, result) {
  const callbacks = new Map(current.event_list.map((event) => [event.event_name, new Set(event.listener_list.map((each) => each.callback))]));
  entries.forEach((entry, i) => {
    const name = text(entry?.event_name);
    if (!name) {
      result.faults.push(`/event_list/${i} has no name.`);
      return;
    }
    if (callbacks.has(name)) {
      result.present.push(`event ${name}`);
    } else {
      callbacks.set(name, new Set());
      result.added.events.push(`${name}${withData(entry.event_data)}`);
    }
    list(entry.listener_list).forEach((listener, j) => compareListener(listener, name, callbacks.get(name), `/event_list/${i}/listener_list/${j}`, result));
  });
}

function compareListener(listener, event, callbacks, pointer, result) {
  const callback = text(listener?.callback);
  if (!callback) {
    result.faults.push(`${pointer} has no callback.`);
  } else if (callbacks.has(callback)) {
    result.present.push(`listener ${callback} of ${event}`);
  } else {
    callbacks.add(callback);
    result.added.listeners.push(`${event} → ${callback}${withData(listener.listener_data)}`);
  }
}

/// Timers have no identity that outlives a document: every one of them is added, also beside an equal one.
function compareTimers(entries, current, result) {
  const like = (timer) => write([timer.event_name, numeral(timer.interval_sec), text(timer.start_time), dataText(timer.timer_data)]);
  const existing = new Set(current.timer_list.map(like));
  entries.forEach((entry, i) => {
    const interval = numeral(entry?.interval_sec);
    const repeats = Boolean(Number(interval));
    if (!text(entry?.event_name) || (!repeats && !text(entry.start_time))) {
      result.faults.push(`/timer_list/${i} has no event name, or neither a start nor an interval.`);
      return;
    }
    const when = repeats ? `every ${interval} s` : `at ${entry.start_time}`;
    const double = existing.has(like(entry)) ? " (beside an equal one that is there)" : "";
    result.added.timers.push(`${entry.event_name} ${when}${withData(entry.timer_data)}${double}`);
  });
}

/// Paths that differ only in the case of letters are the same watch.
function compareWatches(entries, current, result) {
  const lower = (path) => path.replace(/[A-Z]/g, (letter) => letter.toLowerCase());
  const paths = new Set(current.watch_list.map((watch) => lower(watch.path)));
  entries.forEach((entry, i) => {
    const path = text(entry?.path);
    if (!path || !text(entry?.event_name)) {
      result.faults.push(`/watch_list/${i} has no path or no event name.`);
    } else if (paths.has(lower(path))) {
      result.present.push(`watch on ${path}`);
    } else {
      paths.add(lower(path));
      result.added.watches.push(`${path} → ${entry.event_name}`);
    }
  });
}
