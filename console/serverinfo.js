// The server itself: version, how long it runs, whether it is ready, who is on the feed.

import { serverNow } from "./time.js";

/// {reachable, ready, notReady: [why], version, startedAt, clients, expired (timers)}. `before` is the description before this one, for
/// what the server does not answer now.
export async function describeServer(before) {
  const [health, readiness, metrics] = await Promise.all([read("/healthz", "json"), read("/readyz", "json"), read("/metrics", "text")]);
  if (!health || !readiness) return { ...before, reachable: false };
  return {
    reachable: true,
    ready: readiness.ready === true,
    notReady: failedChecks(readiness.checks),
    version: health.version,
    startedAt: steady(serverNow() - health.uptime_sec * 1000, before.startedAt),
    clients: sample(metrics ?? "", "velmora_feed_clients"),
    expired: sample(metrics ?? "", "velmora_timers_expired_total") ?? before.expired,
  };
}

/// An answer's content whatever its status (/readyz answers 503 with what is wrong), null where there is none.
async function read(url, form) {
  try {
    const response = await fetch(url, { cache: "no-store", signal: AbortSignal.timeout(10000) });
    return await response[form]();
  } catch {
    return null;
  }
}

/// The checks that do not pass, each as a line.
function failedChecks(checks) {
  return Object.entries(checks ?? {}).filter(([, check]) => !check.ok)
    .map(([name, check]) => `${name.replaceAll("_", " ")}: ${check.detail}`);
}

/// Whole seconds of uptime make the start jitter; it only changes where the server was started anew.
const steady = (now, before) => (Math.abs(now - before) < 2500 ? before : now);

/// The value of a metric without labels, or null.
function sample(text, name) {
  const line = text.split("\n").find((each) => each.startsWith(`${name} `));
  return line ? Number(line.slice(name.length + 1)) : null;
}
