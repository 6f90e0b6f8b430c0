// Reading JSON that a person typed, and saying where it is wrong.

const BLANK = /[ \t\r\n]*/y;
const NUMBER = /-?(0|[1-9]\d*)(\.\d+)?([eE][+-]?\d+)?/y;
const STRING = /"([^"\\\u0000-\u001f]|\\(["\\/bfnrt]|u[0-9a-fA-F]{4}))*"/y;

class Fault extends Error {
  constructor(at, message) {
    super(message);
    this.at = at;
  }
}

/// Finds the first fault of a text that JSON.parse() refuses. Browsers word and place theirs each in its own way, and
/// some do not place it at all.
class Reader {
  constructor(text) {
    this.text = text;
    this.at = 0;
  }

  take(pattern) {
    pattern.lastIndex = this.at;
    const found = pattern.exec(this.text);
    if (found) this.at = pattern.lastIndex;
    return found !== null;
  }

  fail(message, at = this.at) {
    throw new Fault(at, at >= this.text.length ? `${message}, but the text ends here` : message);
  }

  document() {
    this.take(BLANK);
    this.value();
    this.take(BLANK);
    if (this.at < this.text.length) this.fail("Nothing may follow the value");
  }

  value() {
    const c = this.text[this.at];
    if (c === "{") this.members("}", () => this.member());
    else if (c === "[") this.members("]", () => this.value());
    else if (c === '"') this.string();
    else if (/[-\d]/.test(c ?? "")) this.number();
    else if (!this.take(/(true|false|null)\b/y)) {
      this.fail(c === "'" ? "Texts stand in double quotes" : "A value was expected");
    }
  }

  members(close, one) {
    this.at += 1;
    this.take(BLANK);
    if (this.text[this.at] === close) {
      this.at += 1;
      return;
    }
    for (;;) {
      one();
      this.take(BLANK);
      const c = this.text[this.at];
      if (c !== "," && c !== close) this.fail(`"," or "${close}" was expected`);
      const comma = this.at;
      this.at += 1;
      if (c === close) return;
      this.take(BLANK);
      if (this.text[this.at] === close) this.fail("There is a comma too many", comma);
    }
  }

  member() {
    if (this.text[this.at] !== '"') this.fail("A name in double quotes was expected");
    this.string();
    this.take(BLANK);
    if (this.text[this.at] !== ":") this.fail('":" was expected');
    this.at += 1;
    this.take(BLANK);
    this.value();
  }

  number() {
    const start = this.at;
    if (!this.take(NUMBER) || /[\w.+-]/.test(this.text[this.at] ?? "")) this.fail("This is not a number", start);
  }

  string() {
    if (this.take(STRING)) return;
    let i = this.at + 1;
    for (; i < this.text.length && this.text[i] !== '"'; i += 1) {
      if (this.text[i] < " ") this.fail("A text ends in the line it began in (write \\n for a line break)", i);
      if (this.text[i] !== "\\") continue;
      if (!/^\\(["\\/bfnrt]|u[0-9a-fA-F]{4})/.test(this.text.slice(i, i + 6))) this.fail("Unknown escape", i);
      i += 1;
    }
    this.fail("The closing double quote is missing", i);
  }
}

/// {value} or {fault: {message, at, line, column, excerpt}}; lines and columns count from 1.
export function readJSON(text) {
  try {
    return { value: JSON.parse(text) };
  } catch {
    try {
      new Reader(text).document();
      return { fault: locate(text, 0, "This is not JSON") };
    } catch (fault) {
      return { fault: locate(text, fault.at ?? 0, fault.message) };
    }
  }
}

/// The same for what has to be a dictionary; a text of blanks gives {value: undefined}.
export function readDictionary(text) {
  if (!text.trim()) return { value: undefined };
  const result = readJSON(text);
  if (result.fault || isDictionary(result.value)) return result;
  return { fault: locate(text, text.search(/\S/), "This has to be a dictionary: { … }") };
}

export const isDictionary = (value) => typeof value === "object" && value !== null && !Array.isArray(value);

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

/// One line of at most `limit` characters that shows what a value holds; nothing for an empty dictionary.
export function preview(value, limit = 160) {
  const text = JSON.stringify(value) ?? "";
  if (text === "{}") return "";
  return text.length > limit ? `${text.slice(0, limit)}…` : text;
}

export const pretty = (value) => JSON.stringify(value, null, 2);
