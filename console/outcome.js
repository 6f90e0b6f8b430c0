// How calls to listeners ended, and which call belongs to which listener.

import { h } from "./dom.js";
import { timeElement, parseTime } from "./time.js";

export const failed = ({ outcome, status }) => outcome !== "ok" || (status !== 0 && !(status >= 200 && status < 300));

const LOCAL = new Set(["localhost", "127.0.0.1", "[::1]", location.hostname]);

/// What a callback's calls are found under: the whole address, or the path where it leads to the server itself.
export function addressKey(text) {
  const isPath = text.startsWith("/");
  let url;
  try {
    url = new URL(text, location.href);
  } catch {
    return text;
  }
  url.username = url.password = url.hash = "";
  if (isPath || (LOCAL.has(url.hostname) && url.port === location.port)) return url.pathname + url.search;
  return url.href;
}

/// The newest delivery of each address: Map(key -> delivery).
export function newestByAddress(deliveries) {
  const newest = new Map();
  for (const delivery of deliveries) {
    const key = addressKey(delivery.url);
    if (!newest.has(key)) newest.set(key, delivery);
  }
  return newest;
}

/// Tells calls apart, also those of a server that was started anew and counts from 1 again.
export const deliveryKey = (delivery) => `${delivery.sequence} ${delivery.time}`;

export const isPython = (callback) => callback.startsWith("python://");

/// The listeners whose last call failed: [{event, listener, delivery}].
export function failingListeners(queue, deliveries) {
  const newest = newestByAddress(deliveries);
  return queue.event_list.flatMap((event) => event.listener_list.flatMap((listener) => {
    const delivery = isPython(listener.callback) ? undefined : newest.get(addressKey(listener.callback));
    return delivery && failed(delivery) ? [{ event, listener, delivery }] : [];
  }));
}

/// "200", "503", or a word where there was no answer at all.
export function outcomeBadge(delivery) {
  const bad = failed(delivery);
  const text = delivery.status ? String(delivery.status) : "no answer";
  return h("span", { class: `badge ${bad ? "bad" : "good"}` }, bad ? `Failed ${text}` : `OK ${text}`);
}

/// The outcome in a line, for a listener.
export function outcomeLine(delivery) {
  return [outcomeBadge(delivery), h("span", { class: "number" }, `${delivery.duration_ms} ms`),
    timeElement(parseTime(delivery.time)), delivery.reason ? h("span", { class: "reason" }, delivery.reason) : null];
}
