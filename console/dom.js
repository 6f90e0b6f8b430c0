// Building and updating the page. Text always goes in as text nodes or attributes, never as markup.

export const byId = (id) => document.getElementById(id);

const SVG = "http://www.w3.org/2000/svg";

/// An element with properties and children: h("button", {class: "small", onclick: f}, "Delete").
/// "on…" functions are listeners, false and null leave an attribute out, true sets it without a value.
export function h(tag, props = {}, ...children) {
  return fill(document.createElement(tag), props, children);
}

export function svg(tag, props = {}, ...children) {
  return fill(document.createElementNS(SVG, tag), props, children);
}

function fill(element, props, children) {
  for (const [name, value] of Object.entries(props)) {
    if (value === null || value === undefined || value === false) continue;
    if (name.startsWith("on")) element.addEventListener(name.slice(2), value);
    else element.setAttribute(name, value === true ? "" : String(value));
  }
  element.append(...children.flat().filter((child) => child !== null && child !== undefined && child !== false));
  return element;
}

/// Sets the text only where it differs, so that an unchanged page is left alone.
export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

export function show(element, visible) {
  if (element.hidden === visible) element.hidden = !visible;
}

/// Makes the children of `parent` follow `items`, keeping the element of every item whose key was there before:
/// focus, open details and half-filled forms survive. `update(element, item)` runs for new and kept ones alike.
export function syncList(parent, items, keyOf, create, update) {
  const kept = parent.syncedElements ?? new Map();
  const next = new Map();
  let place = parent.firstElementChild;
  for (const item of items) {
    const key = keyOf(item);
    const element = kept.get(key) ?? create(item);
    next.set(key, element);
    update?.(element, item);
    if (element === place) place = place.nextElementSibling;
    else parent.insertBefore(element, place);
  }
  for (const [key, element] of kept) if (!next.has(key)) element.remove();
  parent.syncedElements = next;
}

/// Runs `work` once in the next frame however often it is called before that.
export function oncePerFrame(work) {
  let asked = false;
  return () => {
    if (asked) return;
    asked = true;
    requestAnimationFrame(() => {
      asked = false;
      work();
    });
  };
}

const whole = new Intl.NumberFormat("en");

export function count(number, one, many = `${one}s`) {
  return `${whole.format(number)} ${number === 1 ? one : many}`;
}

export const digits = (number) => whole.format(number);
