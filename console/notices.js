// What the page tells the person: short notices, announcements for screen readers, and the question before something
// is destroyed.

import { byId, h, setText } from "./dom.js";

const STAY_MS = 6000;
const MOST = 4;

/// Reports what was done; goes away by itself.
export function say(text) {
  const notice = toast(text, "status", "good");
  setTimeout(() => notice.remove(), STAY_MS);
}

/// Reports a failure; stays until it is dismissed.
export function complain(failure) {
  toast(failure.message || String(failure), "alert", "bad");
}

function toast(text, role, kind) {
  const list = byId("toasts");
  for (const same of list.children) if (same.firstElementChild.textContent === text) same.remove();
  while (list.children.length >= MOST) list.firstElementChild.remove();
  const notice = h("div", { class: `toast ${kind}`, role }, h("p", {}, text),
    h("button", { type: "button", class: "quiet small", "aria-label": "Dismiss", onclick: () => notice.remove() }, "✕"));
  list.append(notice);
  return notice;
}

/// Runs `work` and complains about its failure. True where it went well.
export async function attempt(work) {
  try {
    await work();
    return true;
  } catch (failure) {
    complain(failure);
    return false;
  }
}

/// For what a screen reader ought to hear and eyes see elsewhere.
export function announce(text) {
  setText(byId("announcer"), text);
}

/// Asks once before something is destroyed. The safe answer has the focus, Escape means no.
export function confirmed(title, text, yes = "Delete") {
  const dialog = byId("confirm");
  setText(byId("confirm-title"), title);
  setText(byId("confirm-text"), text);
  setText(byId("confirm-yes"), yes);
  dialog.returnValue = "no";
  dialog.showModal();
  return new Promise((resolve) => {
    dialog.addEventListener("close", () => resolve(dialog.returnValue === "yes"), { once: true });
  });
}
