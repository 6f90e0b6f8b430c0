// JSON that comes out as it went in. JavaScript's own parser turns 9007199254740993 into another number, 1.0 into 1 and
// 1e400 into nothing, and puts names like "10" first: data of users therefore stays text from end to end.

import { Fault, walk } from "./jsonwalk.js";

const DATA = /_data$/; // members that hold what users gave
const LEVELS = 8; // the server's own documents are nested less
const INDENTED = 40; // levels that begin new lines; those beyond stand in one

/// A value that is kept as it is written: a user's data, or a number that JavaScript cannot hold.
export class JsonText {
  constructor(text) {
    this.text = text;
  }

  toString() {
    return this.text;
  }
}

/// Whether a member with a user's data is there and not an empty dictionary.
export const holdsData = (value) => value instanceof JsonText && value.text.startsWith("{") && value.text !== "{}";

/// The text of such a member; one that is not there is empty.
export const dataText = (value) => value?.text ?? "{}";

export const isDictionary = (value) =>
  typeof value === "object" && value !== null && !Array.isArray(value) && !(value instanceof JsonText);

/// A document of the server's. Data in it, what is nested deeper than such a document is, and numbers that would change are
/// JsonTexts without blanks.
export function parse(text) {
  const builder = new Builder(text);
  walk(text, (kind, start, end) => builder.token(kind, start, end));
  return builder.result;
}

class Builder {
  holders = []; // the dictionaries and arrays that are being filled
  names = []; // of the members that are being read, one for each holder
  kept = null; // of the value that stays text: {from, to (so far), depth, loose (it holds blanks)}

  constructor(text) {
    this.text = text;
  }

  token(kind, start, end) {
    if (this.kept) this.keep(kind, start, end);
    else if (kind === "name") this.names[this.names.length - 1] = unquoted(this.text.slice(start, end));
    else if (kind === "{" || kind === "[") this.begin(kind, start);
    else if (kind === "}" || kind === "]") this.put(this.holders.pop(), this.names.pop());
    else if (kind === "number") this.put(number(this.text.slice(start, end)));
    else if (kind === "string") this.put(unquoted(this.text.slice(start, end)));
    else if (kind === "word") this.put(JSON.parse(this.text.slice(start, end)));
  }

  begin(kind, start) {
    if (this.holders.length >= LEVELS || DATA.test(this.names[this.names.length - 1])) {
      this.kept = { from: start, to: start, depth: 0, loose: false };
      this.keep(kind, start, start + 1);
      return;
    }
    this.holders.push(kind === "{" ? Object.create(null) : []);
    this.names.push(undefined);
  }

  keep(kind, start, end) {
    const { kept } = this;
    kept.loose ||= start !== kept.to;
    kept.to = end;
    if (kind === "{" || kind === "[") kept.depth += 1;
    else if (kind === "}" || kind === "]") kept.depth -= 1;
    if (kept.depth > 0) return;
    const text = this.text.slice(kept.from, end);
    this.kept = null;
    this.put(new JsonText(kept.loose ? compact(text) : text));
  }

  put(value) {
    const holder = this.holders[this.holders.length - 1];
    if (holder === undefined) this.result = value;
    else if (Array.isArray(holder)) holder.push(value);
    else holder[this.names[this.names.length - 1]] = value;
  }
}

const unquoted = (text) => (text.includes("\\") ? JSON.parse(text) : text.slice(1, -1));

const number = (text) => (String(Number(text)) === text ? Number(text) : new JsonText(text));

/// The text of a value, its JsonTexts as they are.
export function write(value) {
  if (value instanceof JsonText) return value.text;
  if (Array.isArray(value)) return `[${value.map(write).join(",")}]`;
  if (!isDictionary(value)) return JSON.stringify(value);
  let text = "";
  for (const name of Object.keys(value)) {
    if (value[name] !== undefined) text += `${text && ","}${JSON.stringify(name)}:${write(value[name])}`;
  }
  return `{${text}}`;
}

/// The same text without blanks between its tokens.
export function compact(text) {
  const tokens = [];
  walk(text, (kind, start, end) => tokens.push(text.slice(start, end)));
  return tokens.join("");
}

/// The same text with one value to a line.
export function pretty(text) {
  const parts = [];
  let depth = 0;
  let before = "";
  const line = (within, indent) => within <= INDENTED && parts.push("\n", "  ".repeat(indent));
  walk(text, (kind, start, end) => {
    const first = before === "{" || before === "[";
    if (kind === "}" || kind === "]") {
      if (!first) line(depth, depth - 1);
      depth -= 1;
    } else if (first || before === ",") {
      line(depth, depth);
    }
    if (kind === "{" || kind === "[") depth += 1;
    parts.push(text.slice(start, end), kind === ":" ? " " : "");
    before = kind;
  });
  return parts.join("");
}

/// One line of at most `limit` characters that shows what a value holds; nothing for an empty dictionary.
export function preview(value, limit = 160) {
  const text = value === undefined ? "" : write(value);
  if (text === "{}") return "";
  if (text.length <= limit) return text;
  return `${text.slice(0, limit).replace(/[\ud800-\udbff]$/, "")}…`; // no half of a character
}

// What a person wrote

/// {value} or {fault: {message, at, line, column, excerpt}}; lines and columns count from 1.
export function readJSON(text) {
  return attempt(text, () => {
    refuseDoubles(text);
    return parse(text);
  });
}

/// The same for what has to be a dictionary, as a JsonText; a text of blanks gives {value: undefined}.
export function readDictionary(text) {
  if (!text.trim()) return { value: undefined };
  return attempt(text, () => {
    refuseDoubles(text);
    const start = text.search(/\S/);
    if (text[start] !== "{") throw new Fault(start, "This has to be a dictionary: { … }");
    return new JsonText(compact(text));
  });
}

function attempt(text, read) {
  try {
    return { value: read() };
  } catch (fault) {
    if (!(fault instanceof Fault)) throw fault;
    return { fault: locate(text, fault.at, fault.message) };
  }
}

/// The server refuses a dictionary that holds a name twice, and it would not be clear which of them is meant.
function refuseDoubles(text) {
  const names = [];
  walk(text, (kind, start, end) => {
    if (kind === "{") names.push(new Set());
    else if (kind === "}") names.pop();
    if (kind !== "name") return;
    const name = unquoted(text.slice(start, end));
    const known = names[names.length - 1];
    if (known.has(name)) throw new Fault(start, "This name stands in the dictionary already");
    known.add(name);
  });
}

function locate(text, at, message) {
  const before = text.slice(0, at);
  const start = before.lastIndexOf("\n") + 1;
  const end = text.indexOf("\n", at);
  const line = text.slice(start, end < 0 ? text.length : end);
  const column = at - start;
  const from = Math.max(0, column - 30);
  const shown = line.slice(from, from + 60).replaceAll("\t", " ");
  return {
    message, at, line: before.split("\n").length, column: column + 1,
    excerpt: `${shown}\n${" ".repeat(column - from)}^`,
  };
}
