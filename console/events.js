// Events and their listeners: create, look into, delete.

import { path, post, remove } from "./api.js";
import { dataDetails } from "./datadetails.js";
import { byId, count, h, setText, show, syncList } from "./dom.js";
import { JsonEditor } from "./jsoneditor.js";
import { ListenerList } from "./listeners.js";
import { attempt, confirmed, say } from "./notices.js";
import { failingListeners } from "./outcome.js";
import { setCount } from "./views.js";
import { setTime, timeElement } from "./time.js";

const MOST = 200; // events in the page at once

export class Events {
  /// `rates.last` knows when each event was last posted; `prepare(name)` fills the form that posts.
  constructor(store, rates, prepare) {
    this.store = store;
    this.rates = rates;
    this.prepare = prepare;
    this.data = new JsonEditor("event-data", "Event data", "A JSON dictionary that goes with every posting of the event; cannot be changed later. Empty for none.");
    byId("event-form").onsubmit = (submit) => {
      submit.preventDefault();
      this.create();
    };
    byId("events-clear").onclick = () => this.clear();
    byId("events-find").oninput = () => this.draw();
    store.addEventListener("queue", () => this.draw());
    store.addEventListener("deliveries", () => this.draw());
    setInterval(() => this.drawTimes(), 1000);
  }

  draw() {
    const { queue } = this.store;
    const failing = failingListeners(queue, this.store);
    const failingNames = new Set(failing.map(({ event }) => event.event_name));
    setCount("events", failing.length || queue.event_list.length, failing.length > 0);
    const wanted = byId("events-find").value.toLowerCase();
    const found = queue.event_list.filter((event) => matches(event, wanted));
    found.sort((a, b) => failingNames.has(b.event_name) - failingNames.has(a.event_name)); // stable: by name within
    syncList(byId("event-list"), found.slice(0, MOST), (event) => event.event_name,
      (event) => this.card(event), (card, event) => this.update(card, event, failingNames.has(event.event_name)));
    this.drawAround(queue.event_list.length, found.length);
  }

  drawAround(all, found) {
    show(byId("events-empty"), found === 0);
    const [lead, hint] = byId("events-empty").children;
    setText(lead, all ? "No event matches." : this.store.loaded ? "No events." : "Reading…");
    show(hint, all === 0);
    byId("events-clear").disabled = all === 0;
    this.rest ??= byId("event-list").insertAdjacentElement("afterend", h("p", { class: "muted" }));
    setText(this.rest, found > MOST ? `and ${count(found - MOST, "more event")}; use Find to narrow them down.` : "");
  }

  // One event

  card(event) {
    const name = event.event_name;
    const listeners = new ListenerList(this.store, name);
    const time = timeElement(0);
    const [meta, last] = [h("span", { class: "muted" }), h("span", { class: "muted" })];
    const button = (text, label, onclick, kind = "") =>
      h("button", { type: "button", class: `small ${kind}`, "aria-label": `${label} ${name}`, onclick }, text);
    const card = h("article", { class: "panel card", "aria-label": `Event ${name}` },
      h("div", { class: "bar" }, h("h3", { class: "name" }, name || "(empty name)"), meta, last, h("span", { class: "gap" }),
        button("Post…", "Post", () => this.prepare(name)),
        button("Add listener", "Add listener to", () => listeners.openForm()),
        button("Delete…", "Delete", () => this.remove(name), "danger")),
      dataDetails("Event data", event.event_data), listeners.element);
    card.parts = { listeners, time, last, meta };
    return card;
  }

  update(card, event, failing) {
    const { listeners, meta } = card.parts;
    card.classList.toggle("failing", failing);
    setText(meta, event.listener_list.length ? count(event.listener_list.length, "listener") : "no listeners");
    listeners.draw(event.listener_list);
    this.drawTime(card, event.event_name);
  }

  drawTimes() {
    if (document.hidden) return;
    for (const [name, card] of byId("event-list").syncedElements ?? []) this.drawTime(card, name);
  }

  drawTime(card, name) {
    const { last, time } = card.parts;
    const ms = this.rates.last.get(name);
    if (ms === undefined) return;
    setTime(time, ms);
    if (!last.hasChildNodes()) last.append("posted ", time);
  }

  // What a person does

  async create() {
    const name = byId("event-name").value;
    const data = this.data.value();
    if (data === null) return;
    await attempt(async () => {
      await post(path("events"), { event_name: name, event_data: data });
      say(`Event “${name}” is there.`);
      byId("event-form").reset();
      this.data.set(undefined);
      await this.store.readQueue();
      byId("event-name").focus();
    });
  }

  async remove(name) {
    const event = this.store.queue.event_list.find((each) => each.event_name === name);
    const listeners = event?.listener_list.length ?? 0;
    const loses = listeners ? `Its ${count(listeners, "listener")} ${listeners === 1 ? "goes" : "go"} with it. ` : "";
    if (!(await confirmed(`Delete event “${name}”?`, `${loses}Postings of it are refused from then on.`))) return;
    await attempt(async () => {
      await remove(path("events", name));
      say(`Event “${name}” is deleted.`);
      await this.store.readQueue();
    });
  }

  async clear() {
    const events = this.store.queue.event_list.length;
    if (!(await confirmed(`Delete all ${count(events, "event")}?`, "All listeners go with them. Timers and watches stay, but post nothing.", "Delete all"))) return;
    await attempt(async () => {
      await remove(path("events"));
      say("All events are deleted.");
      await this.store.readQueue();
    });
  }
}

const matches = (event, wanted) => !wanted || event.event_name.toLowerCase().includes(wanted) ||
  event.listener_list.some((listener) => listener.callback.toLowerCase().includes(wanted));
