// Timers that came too late and did not fire: the server counts them, a person says when they were seen.

const KEY = "velmora.expired-seen";
const SAME_START_MS = 5000; // the time of the start is only known to some seconds

/// How many the server has counted since it started, or since they were last said to be seen in this tab.
export function unseenExpired({ expired, startedAt }) {
  const seen = JSON.parse(sessionStorage.getItem(KEY)) ?? { expired: 0, startedAt };
  const sameServer = Math.abs(seen.startedAt - startedAt) < SAME_START_MS && seen.expired <= expired;
  return sameServer ? expired - seen.expired : (expired ?? 0);
}

export function markExpiredSeen({ expired, startedAt }) {
  sessionStorage.setItem(KEY, JSON.stringify({ expired, startedAt }));
}
