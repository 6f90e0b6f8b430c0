// A clock that stands until it is moved on, in the place of the system's.

let now = Date.UTC(2026, 0, 31, 12, 0, 0, 500);
let numbers = 0;
const due = new Map(); // number -> {at, work, every}
const { setImmediate } = globalThis;

const start = (work, ms = 0, every = 0) => {
  due.set((numbers += 1), { at: now + ms, work, every });
  return numbers;
};
Date.now = () => now;
performance.now = () => now;
globalThis.setTimeout = (work, ms) => start(work, ms);
globalThis.setInterval = (work, ms) => start(work, ms, ms);
globalThis.clearTimeout = globalThis.clearInterval = (number) => due.delete(number);
globalThis.requestAnimationFrame = (work) => start(work, 16);

/// Lets everything run that waits for nothing but its turn.
export async function settle() {
  for (let i = 0; i < 5; i += 1) await new Promise(setImmediate);
}

/// Moves the clock on, and runs what falls due meanwhile at its time.
export async function pass(ms) {
  const end = now + ms;
  await settle();
  for (;;) {
    const [number, next] = [...due].reduce((first, each) => (each[1].at < (first?.[1].at ?? end + 1) ? each : first), undefined) ?? [];
    if (next === undefined) break;
    now = Math.max(now, next.at);
    if (next.every) next.at += next.every;
    else due.delete(number);
    next.work();
    await settle();
  }
  now = end;
}
