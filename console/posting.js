// One posting, as the feed and the history give it.

import { isDictionary, parse, write } from "./json.js";
import { parseTime, serverNow } from "./time.js";

/// What a message of the feed says, or null; see postingOf().
export function readPosting(message) {
  try {
    return postingOf(parse(message));
  } catch {
    return null;
  }
}

/// {name, ms, second, record, text}, or null for what is no posting. `text` is the same for equal postings,
/// wherever they came from.
export function postingOf(record) {
  if (!isDictionary(record) || typeof record.event_name !== "string") return null;
  const parsed = parseTime(record.timestamp);
  const ms = Number.isNaN(parsed) ? serverNow() : parsed;
  return {
    name: record.event_name, ms, second: Math.floor(ms / 1000), record, text: write(record),
  };
}

/// What is worth showing of it in one line: what was posted with it, else the event's own data.
export const gist = ({ record }) => record.post_data ?? record.event_data;

/// Whether it passes a filter of {name, text}, both in lower case and possibly empty.
export function passes(posting, { name, text }) {
  return (!name || posting.name.toLowerCase().includes(name)) && (!text || posting.text.toLowerCase().includes(text));
}
