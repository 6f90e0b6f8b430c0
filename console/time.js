// Times as people read them: relative or local on the page, exact UTC on hover. They count by the server's clock,
// whose difference from this computer's is learnt from the Date of its answers.

import { h, setText } from "./dom.js";

let skew = 0; // milliseconds that the server is ahead

export function learnServerTime(dateHeader) {
  const server = Date.parse(dateHeader ?? "");
  if (Number.isNaN(server)) return;
  const ahead = server + 500 - Date.now(); // the header has whole seconds
  skew = Math.abs(ahead) < 1500 ? 0 : ahead;
}

export const serverNow = () => Date.now() + skew;

/// Milliseconds since 1970, or NaN for what is not a time.
export const parseTime = (text) => Date.parse(typeof text === "string" ? text : "");

const clock = new Intl.DateTimeFormat(undefined, { hour: "2-digit", minute: "2-digit", second: "2-digit", hourCycle: "h23" });
const dayAndClock = new Intl.DateTimeFormat(undefined, {
  month: "short", day: "numeric", hour: "2-digit", minute: "2-digit", second: "2-digit", hourCycle: "h23",
});

export const zone = Intl.DateTimeFormat().resolvedOptions().timeZone;

export function clockText(ms) {
  const sameDay = new Date(ms).toDateString() === new Date(serverNow()).toDateString();
  return (sameDay ? clock : dayAndClock).format(ms);
}

export const exactUTC = (ms) => `${new Date(ms).toISOString().replace("T", " ").replace(/\.\d+Z$/, "")} UTC`;

/// The text form of the server's own documents.
export const timestampText = (ms) => `${new Date(ms).toISOString().slice(0, 19)}+00:00`;

/// "4 s", "12 min 5 s", "3 h 20 min", "2 d 4 h"
export function duration(ms) {
  const s = Math.max(0, Math.round(ms / 1000));
  const [d, hours, min, sec] = [Math.floor(s / 86400), Math.floor(s / 3600) % 24, Math.floor(s / 60) % 60, s % 60];
  if (d) return hours ? `${d} d ${hours} h` : `${d} d`;
  if (hours) return min ? `${hours} h ${min} min` : `${hours} h`;
  if (min) return sec ? `${min} min ${sec} s` : `${min} min`;
  return `${sec} s`;
}

export function relative(ms) {
  const away = ms - serverNow();
  if (Math.abs(away) < 1000) return "now";
  return away > 0 ? `in ${duration(away)}` : `${duration(-away)} ago`;
}

/// A <time>: `form` is "relative" (kept current while it is on the page) or "clock".
export function timeElement(ms, form = "relative") {
  return setTime(h("time", { "data-form": form }), ms);
}

export function setTime(element, ms) {
  const at = String(ms);
  if (element.dataset.at !== at) {
    element.dataset.at = at;
    element.dateTime = new Date(ms).toISOString();
    element.title = `${exactUTC(ms)}\n${dayAndClock.format(ms)} ${zone}`;
  }
  setText(element, element.dataset.form === "clock" ? clockText(ms) : relative(ms));
  return element;
}

/// Keeps the relative times of the visible view current.
export function startTicking() {
  setInterval(() => {
    if (document.hidden) return;
    for (const element of document.querySelectorAll('section.view:not([hidden]) time[data-form="relative"]')) {
      setText(element, relative(Number(element.dataset.at)));
    }
  }, 1000);
}
