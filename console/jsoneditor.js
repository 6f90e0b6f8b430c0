// A field for JSON: line numbers, and the fault at its line and column while one types.

import { byId, h, setText } from "./dom.js";
import { pretty, readDictionary } from "./json.js";

const PATIENCE_MS = 400; // after the last key, before a half-typed text is called wrong

let editors = 0;

export class JsonEditor {
  /// Builds the editor into the element with id `place`. Empty means none.
  constructor(place, label, hint = "") {
    const id = `json-${(editors += 1)}`;
    this.text = h("textarea", {
      id, class: "code", rows: 5, spellcheck: "false", autocomplete: "off", autocapitalize: "off",
      "aria-describedby": `${id}-fault ${id}-hint`, oninput: () => this.typed(), onscroll: () => this.follow(),
      onblur: () => this.check(),
    });
    this.numbers = h("pre", { class: "numbers", "aria-hidden": "true" });
    this.where = h("span");
    this.excerpt = h("pre", { "aria-hidden": "true" });
    this.jump = h("button", { type: "button", class: "quiet small", onclick: () => this.goToFault() }, "Go to it");
    this.faultBox = h("div", { class: "fault", id: `${id}-fault`, role: "status" });
    const tidy = h("button", { type: "button", class: "quiet small", onclick: () => this.tidy() }, "Tidy");
    (typeof place === "string" ? byId(place) : place).append(h("div", { class: "field editor" },
      h("div", { class: "bar" }, h("label", { for: id }, label), tidy),
      h("div", { class: "sheet" }, this.numbers, this.text), this.faultBox,
      h("p", { class: "muted hint", id: `${id}-hint` }, hint)));
    this.number();
  }

  /// The dictionary as a JsonText, undefined where the field is empty. A fault is shown, gets the focus, and null is returned.
  value() {
    const { value, fault } = readDictionary(this.text.value);
    this.showFault(fault);
    if (!fault) return value;
    this.goToFault();
    return null;
  }

  set(value) {
    this.text.value = value === undefined ? "" : pretty(value.text);
    this.number();
    this.check();
  }

  typed() {
    this.number();
    clearTimeout(this.waiting);
    if (this.fault) this.check();
    else this.waiting = setTimeout(() => this.check(), PATIENCE_MS);
  }

  check() {
    clearTimeout(this.waiting);
    this.showFault(readDictionary(this.text.value).fault);
  }

  showFault(fault) {
    this.fault = fault;
    this.text.setAttribute("aria-invalid", String(Boolean(fault)));
    this.number();
    if (!fault) {
      this.faultBox.replaceChildren();
      return;
    }
    setText(this.where, `Line ${fault.line}, column ${fault.column}: ${fault.message}.`);
    setText(this.excerpt, fault.excerpt);
    if (!this.where.isConnected) this.faultBox.replaceChildren(h("p", {}, this.where, this.jump), this.excerpt);
  }

  goToFault() {
    if (!this.fault) return;
    this.text.focus();
    this.text.setSelectionRange(this.fault.at, this.fault.at + 1);
  }

  tidy() {
    const value = this.value();
    if (value !== null && value !== undefined) this.set(value);
  }

  number() {
    const lines = this.text.value.split("\n").length;
    const signature = `${lines}:${this.fault?.line ?? 0}`;
    if (this.numbered === signature) return;
    this.numbered = signature;
    this.text.rows = Math.min(18, Math.max(4, lines + 1));
    this.numbers.replaceChildren(...Array.from({ length: lines }, (_, i) =>
      h("span", { class: this.fault?.line === i + 1 ? "wrong" : null }, `${i + 1}`)));
    this.follow();
  }

  follow() {
    this.numbers.scrollTop = this.text.scrollTop;
  }
}
