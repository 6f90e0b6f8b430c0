// As much of a browser's page as the console touches: elements, forms, dialogs, storage. Nothing is laid out or drawn.

import { readFileSync } from "node:fs";

const VOID = new Set(["meta", "link", "input", "img"]);

class Text {
  constructor(text) {
    this.textContent = text;
  }
}

class Element {
  #attributes = new Map();
  #listeners = [];
  childNodes = [];
  parentNode = null;
  scrollLeft = 0;
  clicked = 0;

  constructor(tag) {
    this.tag = tag;
    this.dataset = new Proxy({}, {
      get: (_, name) => this.getAttribute(`data-${name}`) ?? undefined,
      set: (_, name, value) => (this.setAttribute(`data-${name}`, value), true),
    });
    this.classList = { toggle: (name, on) => this.#toggleClass(name, on), add: (name) => this.#toggleClass(name, true),
      remove: (name) => this.#toggleClass(name, false), contains: (name) => this.#classes().includes(name) };
  }

  getAttribute = (name) => this.#attributes.get(name) ?? null;
  setAttribute(name, value) {
    this.#attributes.set(name, String(value));
    if (["value", "type", "name", "href", "download"].includes(name)) this[name] = String(value);
    if (["checked", "disabled"].includes(name)) this[name] = true;
  }
  removeAttribute = (name) => this.#attributes.delete(name);

  get id() { return this.getAttribute("id"); }
  get className() { return this.getAttribute("class") ?? ""; }
  set className(value) { this.setAttribute("class", value); }
  get hidden() { return this.#attributes.has("hidden"); }
  set hidden(on) { on ? this.setAttribute("hidden", "") : this.removeAttribute("hidden"); }
  get open() { return this.#attributes.has("open"); }
  set open(on) {
    on ? this.setAttribute("open", "") : this.removeAttribute("open");
    this.fire("toggle");
  }
  #classes = () => this.className.split(" ").filter(Boolean);
  #toggleClass(name, on = !this.#classes().includes(name)) {
    this.className = [...this.#classes().filter((each) => each !== name), ...(on ? [name] : [])].join(" ");
  }

  // The tree

  get children() { return this.childNodes.filter((node) => node instanceof Element); }
  get firstElementChild() { return this.children[0] ?? null; }
  get lastElementChild() { return this.children.at(-1) ?? null; }
  get nextElementSibling() { return this.parentNode.children[this.parentNode.children.indexOf(this) + 1] ?? null; }
  get isConnected() { return this === document.root || Boolean(this.parentNode?.isConnected); }
  get textContent() { return this.childNodes.map((node) => node.textContent).join(""); }
  set textContent(text) { this.replaceChildren(text); }
  hasChildNodes = () => this.childNodes.length > 0;
  remove() {
    if (this.parentNode) this.parentNode.childNodes = this.parentNode.childNodes.filter((node) => node !== this);
    this.parentNode = null;
  }
  #insert(index, nodes) {
    for (const [i, node] of nodes.entries()) {
      if (node instanceof Element) node.remove();
      this.childNodes.splice(index + i, 0, node instanceof Element ? node : new Text(String(node)));
      if (node instanceof Element) node.parentNode = this;
    }
  }
  append(...nodes) { for (const node of nodes) this.#insert(this.childNodes.length, [node]); }
  prepend(...nodes) { this.#insert(0, nodes); }
  insertBefore(node, before) {
    node.remove();
    this.#insert(before ? this.childNodes.indexOf(before) : this.childNodes.length, [node]);
  }
  insertAdjacentElement(_, node) {
    this.parentNode.insertBefore(node, this.nextElementSibling);
    return node;
  }
  replaceChildren(...nodes) {
    for (const child of this.children) child.remove();
    this.childNodes = [];
    this.append(...nodes.filter((node) => node !== ""));
  }
  *all() {
    for (const child of this.children) {
      yield child;
      yield* child.all();
    }
  }
  querySelectorAll(selector) { return [...this.all()].filter((element) => element.matches(selector, this)); }
  querySelector(selector) { return this.querySelectorAll(selector)[0] ?? null; }

  /// A chain of simple selectors, apart by blanks or ">".
  matches(selector, scope) {
    const parts = selector.replaceAll(/\s*>\s*/g, " > ").split(" ");
    const last = parts.pop();
    if (last === ":scope" ? this !== scope : !this.#matchesOne(last)) return false;
    if (parts.length === 0) return true;
    const direct = parts.at(-1) === ">";
    if (direct) parts.pop();
    for (let up = this.parentNode; up; up = direct ? null : up.parentNode) if (up.matches(parts.join(" "), scope)) return true;
    return false;
  }
  #matchesOne(simple) {
    const [, not] = /:not\((.*)\)/.exec(simple) ?? [];
    if (not && this.#matchesOne(not)) return false;
    return [...simple.replace(/:not\(.*\)/, "").matchAll(/^[a-z0-9]+|#[\w-]+|\.[\w-]+|\[([\w-]+)(?:="([^"]*)")?\]/g)].every(([text, name, value]) => {
      if (text[0] === "#") return this.id === text.slice(1);
      if (text[0] === ".") return this.#classes().includes(text.slice(1));
      if (text[0] === "[") return value === undefined ? this.#attributes.has(name) : this.getAttribute(name) === value;
      return this.tag === text;
    });
  }

  // What a person and scripts do

  addEventListener(type, work, { once } = {}) { this.#listeners.push({ type, work, once }); }
  removeEventListener(type, work) { this.#listeners = this.#listeners.filter((each) => each.type !== type || each.work !== work); }
  fire(type, bubbles = false, details = {}) {
    const event = { type, target: this, prevented: false, preventDefault() { this.prevented = true; }, ...details };
    for (let at = this; at; at = bubbles ? at.parentNode : null) at.#hear(event);
    return event;
  }
  #hear(event) {
    this[`on${event.type}`]?.(event);
    for (const listener of [...this.#listeners]) {
      if (listener.type !== event.type) continue;
      if (listener.once) this.removeEventListener(event.type, listener.work);
      listener.work.call(this, event);
    }
  }
  click() {
    if (this.disabled) return;
    this.clicked += 1;
    this.fire("click", true);
    const form = this.tag === "button" && (this.type ?? "submit") === "submit" && this.#form();
    if (form) form.submit(this.value);
  }
  #form() {
    let up = this;
    while (up && up.tag !== "form") up = up.parentNode;
    return up;
  }
  submit(value) {
    if (this.getAttribute("method") !== "dialog") return this.fire("submit");
    this.parentNode.returnValue = value;
    return this.parentNode.close();
  }
  reset() {
    for (const element of this.all()) if (element.tag === "input") element.value = element.getAttribute("value") ?? "";
  }
  fill(value) {
    this.value = value;
    this.fire("input", true);
  }
  check() {
    for (const other of this.#form()?.all() ?? []) if (other.type === "radio" && other.name === this.name) other.checked = false;
    this.checked = true;
    this.fire("input", true);
  }
  get valueAsNumber() { return this.value === "" ? NaN : Number(this.value); }
  showModal() { this.open = true; }
  close() {
    this.open = false;
    this.fire("close");
  }
  focus() { document.activeElement = this; }
  select() {}
  setSelectionRange(from, to) { this.selection = [from, to]; }
  scrollIntoView() {}
  getBoundingClientRect() { return this.box ?? { left: 0, right: 0 }; }
}

/// The elements of a page that closes whatever it opens.
function build(html) {
  const root = new Element("root");
  let at = root;
  for (const [, close, tag, attributes, text] of html.matchAll(/<(\/?)([a-z][a-z0-9]*)((?:\s+[\w-]+(?:="[^"]*")?)*)\s*>|([^<]+|<)/g)) {
    if (text) at.childNodes.push(new Text(text.replaceAll("&amp;", "&")));
    else if (close) at = at.parentNode;
    else {
      const element = new Element(tag);
      if (["input", "textarea"].includes(tag)) element.value = "";
      for (const [, name, value] of attributes.matchAll(/([\w-]+)(?:="([^"]*)")?/g)) element.setAttribute(name, value ?? "");
      at.append(element);
      if (!VOID.has(tag)) at = element;
    }
  }
  return root;
}

const root = build(readFileSync(new URL("../../../console/index.html", import.meta.url), "utf8").replace(/<!doctype html>/, ""));
const ids = new Map([...root.all()].filter(({ id }) => id).map((element) => [element.id, element])); // none comes later
const listeners = new Map();
const stored = new Map();

globalThis.document = Object.assign(new EventTarget(), {
  root, hidden: false, title: "", activeElement: null,
  getElementById: (id) => ids.get(id) ?? null,
  querySelector: (selector) => root.querySelector(selector),
  querySelectorAll: (selector) => root.querySelectorAll(selector),
  createElement(tag) {
    const element = new Element(tag);
    if (["input", "textarea"].includes(tag)) element.value = "";
    return element;
  },
  createElementNS: (_, tag) => new Element(tag),
});
globalThis.addEventListener = (type, work) => listeners.set(type, work);
globalThis.location = Object.assign(new URL("http://127.0.0.1:8080/"), { reload: () => (location.reloaded = true) });
globalThis.history = { pushState: (_, __, hash) => (location.hash = hash) };
globalThis.scrollTo = () => {};
globalThis.ResizeObserver = class {
  constructor(work) { globalThis.resized = work; }
  observe() {}
};
globalThis.sessionStorage = { getItem: (key) => stored.get(key) ?? null, setItem: (key, value) => stored.set(key, String(value)), removeItem: (key) => stored.delete(key) };
globalThis.FormData = class {
  constructor(form) { this.form = form; }
  get(name) { return [...this.form.all()].find((each) => each.name === name && each.checked)?.value ?? null; }
};
Object.defineProperty(globalThis, "navigator", { configurable: true, value: { clipboard: { writeText: async (text) => void (globalThis.copied = text) } } });

export const byId = document.getElementById;
export const texts = (selector) => document.querySelectorAll(selector).map((element) => element.textContent);
export function turnTo(area) {
  location.hash = `#/${area}`;
  listeners.get("hashchange")();
}
