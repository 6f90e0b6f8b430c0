// Watches: which files and folders post which event.

import { PREFIX, encodeName, path, post, remove } from "./api.js";
import { dataDetails } from "./datadetails.js";
import { byId, count, h, show, syncList } from "./dom.js";
import { holdsData, parse } from "./json.js";
import { JsonEditor } from "./jsoneditor.js";
import { attempt, confirmed, say } from "./notices.js";
import { setTime, timeElement } from "./time.js";
import { setCount } from "./views.js";

const LEAVING_MS = 3000; // a deleted watch stays in the list until the worker's next passes

export class Watches {
  changedAt = new Map(); // path -> when a change of it was last posted
  leaving = new Set(); // paths that were deleted here and are still listed

  constructor(store) {
    this.store = store;
    this.data = new JsonEditor("watch-data", "Watch data", "A JSON dictionary that is kept with the watch; its postings carry the path only. Empty for none.");
    this.warnings = h("div", { role: "status" });
    byId("watch-form").append(this.warnings);
    byId("watch-form").onsubmit = (submit) => {
      submit.preventDefault();
      this.create();
    };
    byId("watches-clear").onclick = () => this.clear();
    store.addEventListener("queue", () => this.draw());
    setInterval(() => document.hidden || this.drawTimes(), 1000);
  }

  noteChanges(postings) {
    if (this.store.queue.watch_list.length === 0) return;
    for (const { record, ms } of postings) {
      const changed = changedPath(record.post_data);
      if (changed !== undefined) this.changedAt.set(changed, ms);
    }
    if (this.changedAt.size > 2000) this.changedAt.clear();
  }

  draw() {
    const watches = this.store.queue.watch_list;
    setCount("watches", watches.length);
    syncList(byId("watch-rows"), watches, (watch) => watch.path, (watch) => this.row(watch),
      (row, watch) => row.classList.toggle("leaving", this.leaving.has(watch.path)));
    this.drawTimes();
    show(byId("watches-empty"), watches.length === 0);
    byId("watches-clear").disabled = watches.length === 0;
  }

  row(watch) {
    return h("tr", {}, h("td", {}, h("code", {}, watch.path), watch.once ? h("span", { class: "badge" }, "once") : null),
      h("td", { class: "name" }, watch.event_name), h("td", {}, h("span", { class: "muted" }, "none yet")),
      h("td", {}, dataDetails("Data", watch.watch_data) ?? h("span", { class: "muted" }, "none")),
      h("td", { class: "actions" }, h("button", { type: "button", class: "small danger", "aria-label": `Delete the watch on ${watch.path}`, onclick: () => this.remove(watch) }, "Delete…")));
  }

  drawTimes() {
    const rows = byId("watch-rows").syncedElements ?? new Map();
    for (const [watched, row] of rows) {
      const ms = this.changedAt.get(watched);
      if (ms === undefined) continue;
      const time = row.children[2].querySelector("time");
      if (time) setTime(time, ms);
      else row.children[2].replaceChildren(timeElement(ms));
    }
  }

  // What a person does

  async create() {
    const data = this.data.value();
    if (data === null) return;
    this.warnings.replaceChildren();
    await attempt(async () => {
      const wanted = { path: byId("watch-path").value, event_name: byId("watch-event").value, once: byId("watch-once").checked, watch_data: data };
      const { data: created } = await post(path("watches"), wanted);
      this.warn(created.warnings ?? [], wanted);
      say(`Changes of ${wanted.path} post “${wanted.event_name}”.`);
      await this.store.readQueue();
    });
  }

  warn(warnings, { event_name: name }) {
    const known = this.store.queue.event_list.some((event) => event.event_name === name);
    const all = known ? warnings : [...warnings, `There is no event “${name}” now; until there is, changes go nowhere.`];
    this.warnings.replaceChildren(...all.map((warning) => h("p", { class: "note warning" }, warning)));
  }

  async remove(watch) {
    if (!(await confirmed("Delete this watch?", `Changes of ${watch.path} no longer post “${watch.event_name}”.`))) return;
    await attempt(async () => {
      await remove(`${PREFIX}/watches?path=${encodeName(watch.path)}`);
      say("The watch is deleted.");
      this.leaving.add(watch.path);
      this.draw();
      await this.store.readQueue();
      setTimeout(() => this.forget(watch.path), LEAVING_MS);
    });
  }

  forget(watched) {
    this.leaving.delete(watched);
    this.store.readQueue().then(() => this.draw());
  }

  async clear() {
    const watches = this.store.queue.watch_list.length;
    if (!(await confirmed(`Delete all ${count(watches, "watch", "watches")}?`, "No change of a file posts anything any more.", "Delete all"))) return;
    await attempt(async () => {
      await remove(path("watches"));
      say("All watches are deleted.");
      await this.store.readQueue();
    });
  }
}

/// Watches post {"path"} and nothing else.
function changedPath(data) {
  return holdsData(data) && data.text.startsWith('{"path":"') ? parse(data.text).path : undefined;
}
