// Walking through a text of JSON, token by token.
//
// It goes without recursion, since the server takes data of any depth, and works on characters where a pattern would keep
// every step of a long text in mind.

export class Fault extends Error {
  constructor(at, message) {
    super(message);
    this.at = at;
  }
}

const NUMBER = /-?(0|[1-9]\d*)(\.\d+)?([eE][+-]?\d+)?/y;
const WORD = /(true|false|null)\b/y;
const ESCAPE = /\\(["\\/bfnrt]|u[0-9a-fA-F]{4})/y;
const [QUOTE, BACKSLASH, BLANK] = ['"', "\\", " "].map((c) => c.charCodeAt(0));

/// Calls `visit(kind, start, end)` for each token of `text`, with one of the kinds { } [ ] , : and "name" (of a member),
/// "string", "number", "word" (true, false, null). Throws the Fault that stands first in it.
export function walk(text, visit) {
  new Walker(text, visit).document();
}

class Walker {
  at = 0;
  closing = []; // what closes the dictionaries and arrays that stand open
  opened = false; // the innermost of them has just been opened

  constructor(text, visit) {
    this.text = text;
    this.visit = visit;
  }

  document() {
    do this.value();
    while (this.next());
    if (this.at < this.text.length) this.fail("Nothing may follow the value");
  }

  /// One value; of a dictionary or an array the beginning.
  value() {
    this.blanks();
    const c = this.text[this.at];
    this.opened = c === "{" || c === "[";
    if (this.opened) {
      this.closing.push(c === "{" ? "}" : "]");
      this.sign(c);
    } else if (c === '"') {
      this.string("string");
    } else if (c === "-" || (c >= "0" && c <= "9")) {
      this.number();
    } else if (!this.take(WORD, "word")) {
      this.fail(c === "'" ? "Texts stand in double quotes" : "A value was expected");
    }
  }

  /// Goes on to the next value, false where there is none.
  next() {
    for (this.blanks(); this.closing.length > 0; this.blanks()) {
      const close = this.closing[this.closing.length - 1];
      if (this.text[this.at] !== close) {
        if (!this.opened) this.comma(close);
        if (close === "}") this.name();
        return true;
      }
      this.closing.pop();
      this.opened = false;
      this.sign(close);
    }
    return false;
  }

  comma(close) {
    const comma = this.at;
    if (this.text[comma] !== ",") this.fail(`"," or "${close}" was expected`);
    this.sign(",");
    this.blanks();
    if (this.text[this.at] === close) this.fail("There is a comma too many", comma);
  }

  name() {
    if (this.text[this.at] !== '"') this.fail("A name in double quotes was expected");
    this.string("name");
    this.blanks();
    if (this.text[this.at] !== ":") this.fail('":" was expected');
    this.sign(":");
  }

  number() {
    const start = this.at;
    if (!this.take(NUMBER, "number") || /[\w.+-]/.test(this.text[this.at] ?? "")) this.fail("This is not a number", start);
  }

  string(kind) {
    const start = this.at;
    for (let i = start + 1; i < this.text.length; i += 1) {
      const c = this.text.charCodeAt(i);
      if (c === QUOTE) {
        this.at = i + 1;
        this.visit(kind, start, this.at);
        return;
      }
      if (c < BLANK) this.fail("A text ends in the line it began in (write \\n for a line break)", i);
      if (c === BACKSLASH) i += this.escape(i) - 1;
    }
    this.fail("The closing double quote is missing", this.text.length);
  }

  /// The length of the escape at `i`.
  escape(i) {
    ESCAPE.lastIndex = i;
    const found = ESCAPE.exec(this.text);
    if (!found) this.fail("Unknown escape", i);
    return found[0].length;
  }

  sign(kind) {
    this.at += 1;
    this.visit(kind, this.at - 1, this.at);
  }

  take(pattern, kind) {
    pattern.lastIndex = this.at;
    if (!pattern.test(this.text)) return false;
    const start = this.at;
    this.at = pattern.lastIndex;
    this.visit(kind, start, this.at);
    return true;
  }

  blanks() {
    for (; this.at < this.text.length; this.at += 1) {
      const c = this.text.charCodeAt(this.at);
      if (c !== BLANK && c !== 10 && c !== 13 && c !== 9) return;
    }
  }

  fail(message, at = this.at) {
    throw new Fault(at, at >= this.text.length ? `${message}, but the text ends here` : message);
  }
}
