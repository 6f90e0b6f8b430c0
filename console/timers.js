// Timers: when each fires next, create, delete.

import { path, post, remove } from "./api.js";
import { dataDetails } from "./datadetails.js";
import { byId, count, h, setText, show, syncList } from "./dom.js";
import { markExpiredSeen, unseenExpired } from "./expired.js";
import { dataText } from "./json.js";
import { JsonEditor } from "./jsoneditor.js";
import { attempt, confirmed, say } from "./notices.js";
import { duration, exactUTC, parseTime, serverNow, setTime, timeElement, timestampText, zone } from "./time.js";
import { setCount } from "./views.js";

const LATE_MS = 10000; // a timer found later than this after its time is dropped without firing

export class Timers {
  firedAt = new Map(); // id -> when a repeating timer was last seen to fire, or was created here

  constructor(store) {
    this.store = store;
    this.data = new JsonEditor("timer-data", "Timer data", "A JSON dictionary that goes with each of its postings. Empty for none.");
    byId("timer-form").onsubmit = (submit) => {
      submit.preventDefault();
      this.create();
    };
    byId("timer-form").addEventListener("input", () => this.explain());
    byId("timers-clear").onclick = () => this.clear();
    setText(byId("timers-zone"), `times in ${zone}`);
    byId("timers-late-seen").onclick = () => this.confirmLate();
    store.addEventListener("queue", () => this.draw());
    store.addEventListener("server", () => this.drawLate());
    setInterval(() => document.hidden || this.drawTimes(), 1000);
    this.explain();
  }

  /// A repeating timer's next time is not in the server's documents; it is counted from the last firing seen.
  noteFirings(postings) {
    const repeating = this.store.queue.timer_list.filter((timer) => intervalOf(timer) > 0);
    if (repeating.length === 0) return;
    const last = new Map(postings.map((posting) => [`${posting.name}\n${dataText(posting.record.post_data)}`, posting]));
    for (const timer of repeating) {
      const fired = last.get(`${timer.event_name}\n${dataText(timer.timer_data)}`);
      if (fired) this.firedAt.set(timer.id, fired.ms);
    }
  }

  draw() {
    const timers = this.store.queue.timer_list;
    setCount("timers", timers.length);
    syncList(byId("timer-rows"), timers, (timer) => timer.id, (timer) => this.row(timer));
    this.drawTimes();
    const ids = new Set(timers.map((timer) => timer.id));
    for (const id of this.firedAt.keys()) if (!ids.has(id)) this.firedAt.delete(id);
    show(byId("timers-empty"), timers.length === 0);
    byId("timers-clear").disabled = timers.length === 0;
    this.explain();
  }

  drawLate() {
    const late = unseenExpired(this.store.server);
    setText(byId("timers-late-count"), late === 1 ? "1 timer was" : `${count(late, "timer")} were`);
    show(byId("timers-late"), late > 0);
  }

  confirmLate() {
    markExpiredSeen(this.store.server);
    byId("timers-title").focus(); // the button goes away
    this.store.dispatchEvent(new Event("server"));
  }

  row(timer) {
    const interval = intervalOf(timer);
    const row = h("tr", {}, h("td", { class: "name" }, timer.event_name),
      h("td", {}), h("td", {}, interval > 0 ? `every ${duration(interval * 1000)}` : "once"),
      h("td", {}, dataDetails("Data", timer.timer_data) ?? h("span", { class: "muted" }, "none")),
      h("td", { class: "actions" }, h("button", { type: "button", class: "small danger", "aria-label": `Delete the timer of ${timer.event_name}`, onclick: () => this.remove(timer) }, "Delete…")));
    return row;
  }

  drawTimes() {
    const rows = byId("timer-rows").syncedElements;
    for (const timer of this.store.queue.timer_list) {
      const row = rows?.get(timer.id);
      if (row) drawNext(row.children[1], this.nextOf(timer), intervalOf(timer));
    }
  }

  /// Milliseconds of the next firing, or null where it is not known.
  nextOf(timer) {
    if (timer.start_time) return parseTime(timer.start_time);
    const fired = this.firedAt.get(timer.id);
    const interval = intervalOf(timer) * 1000;
    if (fired === undefined || interval <= 0) return null;
    return Math.max(fired + interval, serverNow() - 500);
  }

  // Creating

  /// {request, at, interval} as the form stands; request is null where something is missing.
  read() {
    const event_name = byId("timer-event").value;
    const mode = new FormData(byId("timer-form")).get("timer-mode");
    const seconds = byId("timer-seconds").valueAsNumber;
    if (mode === "at") {
      const at = new Date(byId("timer-at").value).getTime();
      return { at, request: Number.isNaN(at) ? null : { event_name, start_time: timestampText(at) } };
    }
    if (!Number.isInteger(seconds) || seconds < 1) return { request: null };
    if (mode === "every") return { interval: seconds, request: { event_name, interval_sec: seconds } };
    const at = serverNow() + seconds * 1000;
    return { at, request: { event_name, start_time: timestampText(at) } };
  }

  explain() {
    const mode = new FormData(byId("timer-form")).get("timer-mode");
    show(byId("timer-at-box"), mode === "at");
    show(byId("timer-seconds-box"), mode !== "at");
    if (mode === "at" && !byId("timer-at").value) byId("timer-at").value = localInput(serverNow() + 3600000);
    setText(byId("timer-explains"), [this.whenText(this.read()), this.eventText()].filter(Boolean).join(" "));
  }

  whenText({ at, interval }) {
    if (interval) return `First fires ${duration(interval * 1000)} after it is created, then every ${duration(interval * 1000)}.`;
    if (at === undefined || Number.isNaN(at)) return "";
    if (at < serverNow() - LATE_MS) return `${exactUTC(at)} is past: the timer would be dropped without firing.`;
    return `Fires at ${exactUTC(at)}.`;
  }

  eventText() {
    const name = byId("timer-event").value;
    const { loaded, queue } = this.store;
    const missing = name && loaded && !queue.event_list.some((event) => event.event_name === name);
    return missing ? `There is no event “${name}” now; until there is, its postings go nowhere.` : "";
  }

  async create() {
    const { request, interval } = this.read();
    const data = this.data.value();
    if (data === null) return;
    await attempt(async () => {
      if (!request) throw new Error("When is the timer to fire? Give a whole number of seconds, or a date and a time.");
      const { data: created } = await post(path("timers"), { ...request, timer_data: data });
      if (interval) this.firedAt.set(created.id, serverNow());
      say(`The timer for “${request.event_name}” is set.`);
      await this.store.readQueue();
    });
  }

  async remove(timer) {
    if (!(await confirmed("Delete this timer?", `“${timer.event_name}” is no longer posted by it.`))) return;
    await attempt(async () => {
      await remove(path("timers", timer.id));
      say("The timer is deleted.");
      await this.store.readQueue();
    });
  }

  async clear() {
    const timers = this.store.queue.timer_list.length;
    if (!(await confirmed(`Delete all ${count(timers, "timer")}?`, "Nothing is posted by the clock any more.", "Delete all"))) return;
    await attempt(async () => {
      await remove(path("timers"));
      say("All timers are deleted.");
      await this.store.readQueue();
    });
  }
}

const intervalOf = (timer) => Number(timer.interval_sec ?? 0);

function drawNext(cell, next, interval) {
  if (next === null) {
    const text = interval > 0 ? `within ${duration(interval * 1000)}` : "with the next pass";
    if (!cell.querySelector("time")) setText(cell, text);
    return;
  }
  if (next < serverNow() - LATE_MS) {
    setText(cell, "fired or dropped");
    return;
  }
  const time = cell.querySelector("time");
  if (time) setTime(time, next);
  else cell.replaceChildren(timeElement(next));
}

/// The value of a datetime-local field, in local time.
function localInput(ms) {
  const date = new Date(ms - new Date(ms).getTimezoneOffset() * 60000);
  return date.toISOString().slice(0, 19);
}
