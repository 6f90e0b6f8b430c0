// The server itself: version, how long it runs, whether it is ready, who is on the feed.

import { get } from "./api.js";
import { serverNow } from "./time.js";

/// {reachable, ready, notReady: [why], version, startedAt, clients}. `before` is the last description: what does not change
/// while a server runs is asked once.
export async function describeServer(before) {
  const [readiness, metrics] = await Promise.all([readReadiness(), readMetrics()]);
  if (!readiness) return { ...before, reachable: false };
  const startedAt = metrics.startedAt ?? before.startedAt;
  const same = before.reachable && before.version && Math.abs(startedAt - before.startedAt) < 2000;
  return { reachable: true, ...readiness, version: same ? before.version : await readVersion(), startedAt, clients: metrics.clients };
}

async function readReadiness() {
  const response = await fetch("/readyz", { cache: "no-store" }).catch(() => null);
  const data = await response?.json().catch(() => null);
  if (!data) return null;
  return { ready: data.ready === true, notReady: failedChecks(data.checks) };
}

/// The checks that do not pass, each as a line: a check is a boolean, a text or {ok, detail}.
export function failedChecks(checks) {
  return Object.entries(checks ?? {}).flatMap(([name, check]) => {
    const label = name.replaceAll("_", " ");
    if (check === true || check === "ok" || check?.ok === true) return [];
    const why = typeof check === "string" ? check : check?.detail;
    return [why ? `${label}: ${why}` : label];
  });
}

async function readVersion() {
  try {
    const { data } = await get("/openapi.json");
    return data.info?.version ?? "";
  } catch {
    return "";
  }
}

async function readMetrics() {
  const response = await fetch("/metrics", { cache: "no-store" }).catch(() => null);
  const text = response?.ok ? await response.text().catch(() => "") : "";
  const started = sample(text, "process_start_time_seconds");
  const uptime = sample(text, "velmora_uptime_seconds");
  const startedAt = started !== null ? started * 1000 : uptime !== null ? serverNow() - uptime * 1000 : undefined;
  return { startedAt, clients: sample(text, "velmora_feed_clients") };
}

/// The value of a metric without labels, or null.
function sample(text, name) {
  const line = text.split("\n").find((each) => each.startsWith(`${name} `));
  return line ? Number(line.slice(name.length + 1)) : null;
}
