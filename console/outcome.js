// How calls to listeners ended, and which call belongs to which listener.

import { count, h } from "./dom.js";
import { timeElement, parseTime } from "./time.js";

export const failed = ({ outcome, status }) => outcome === "failed" || outcome === "dead" || (outcome === "ok" && status !== 0 && !(status >= 200 && status < 300));

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
export const deliveryKey = ({ sequence, time, outcome, attempt }) => [sequence, time, outcome, attempt].join(" ");

export const isPython = (callback) => callback.startsWith("python://");

/// How the last call of a listener went: its status where the server has it as failing, otherwise its newest delivery, found
/// by its id where the server keeps deliveries, and by its address where not. Undefined where nothing is known.
export function lastCall({ deliveries, failing }) {
  if (failing) {
    const newest = new Map();
    for (const delivery of deliveries) if (!newest.has(delivery.listener_id)) newest.set(delivery.listener_id, delivery);
    return ({ id }) => failing.get(id) ?? newest.get(id);
  }
  const newest = newestByAddress(deliveries);
  return ({ callback }) => (isPython(callback) ? undefined : newest.get(addressKey(callback)));
}

/// The listeners whose last call failed: [{event, listener, delivery}].
export function failingListeners(queue, store) {
  const last = lastCall(store);
  return queue.event_list.flatMap((event) => event.listener_list.flatMap((listener) => {
    const delivery = last(listener);
    const fails = store.failing ? store.failing.has(listener.id) : delivery && failed(delivery);
    return fails ? [{ event, listener, delivery }] : [];
  }));
}

/// "OK 200", "Failed 503", "Dead", "Waiting": how it stands, and the answer's number or a word where there was no answer at all.
export function outcomeBadge(delivery) {
  const bad = failed(delivery);
  const words = { waiting: "Waiting", dead: "Dead", failed: "Failed", ok: bad ? "Failed" : "OK" };
  const answer = delivery.status || (bad && delivery.method !== "CALL" && delivery.status === 0 ? "no answer" : "");
  const text = `${words[delivery.outcome] ?? delivery.outcome} ${answer}`.trim();
  return h("span", { class: `badge ${delivery.outcome === "waiting" ? "" : bad ? "bad" : "good"}` }, text);
}

/// The outcome in a line, for a listener: of a delivery, or of its status.
export function outcomeLine(call) {
  const row = call.failures_in_a_row > 1 ? h("span", { class: "muted" }, `${call.failures_in_a_row} in a row`) : null;
  const waiting = call.retries_waiting > 0 ? h("span", { class: "muted" }, `${count(call.retries_waiting, "retry", "retries")} waiting`) : null;
  return [outcomeBadge(call), h("span", { class: "number" }, `${call.duration_ms ?? call.duration_mean_ms} ms`), row, waiting,
    timeElement(parseTime(call.time)), call.reason ? h("span", { class: "reason" }, call.reason) : null];
}
