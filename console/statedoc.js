// The state document as a file: download, and upload with a look at what it would add.

import { get, path, post } from "./api.js";
import { copyCurl } from "./curl.js";
import { byId, count, h, setText } from "./dom.js";
import { JsonText, pretty, readJSON } from "./json.js";
import { attempt, say } from "./notices.js";
import { compareState } from "./statediff.js";
import { timestampText } from "./time.js";

const SHOWN = 100; // entries of one kind in the preview

const KINDS = { events: ["event", "events"], listeners: ["listener", "listeners"], timers: ["timer", "timers"], watches: ["watch", "watches"] };

export class StateDocument {
  constructor(store) {
    this.store = store;
    this.place = byId("state-preview");
    byId("state-download").onclick = () => attempt(() => download());
    byId("state-curl").onclick = () => copyCurl("GET", path("queue"));
    byId("state-file").onchange = ({ target }) => this.open(target.files[0]);
    const drop = byId("state-drop");
    drop.ondragover = (drag) => {
      drag.preventDefault();
      drop.classList.add("over");
    };
    drop.ondragleave = () => drop.classList.remove("over");
    drop.ondrop = (dropped) => {
      dropped.preventDefault();
      drop.classList.remove("over");
      this.open(dropped.dataTransfer.files[0]);
    };
    store.addEventListener("queue", () => this.summarise());
  }

  summarise() {
    const { event_list: events, timer_list: timers, watch_list: watches } = this.store.queue;
    const listeners = events.reduce((sum, event) => sum + event.listener_list.length, 0);
    setText(byId("state-summary"), `${count(events.length, "event")} with ${count(listeners, "listener")}, ${count(timers.length, "timer")}, ${count(watches.length, "watch", "watches")}.`);
  }

  async open(file) {
    if (!file || this.applying) return;
    await attempt(async () => {
      const text = decoded(await file.arrayBuffer());
      if (text === null) {
        this.refuse(file.name, ["It holds bytes that are no UTF-8."]);
        return;
      }
      const { value, fault } = readJSON(text);
      if (fault) this.refuse(file.name, [`Line ${fault.line}, column ${fault.column}: ${fault.message}.`]);
      else await this.preview(file.name, value, new JsonText(text));
    });
  }

  refuse(name, reasons, lead = `${name} cannot be applied.`) {
    this.place.replaceChildren(h("p", { class: "note bad" }, lead),
      h("ul", { class: "plain bad" }, reasons.slice(0, SHOWN).map((reason) => h("li", {}, reason))));
  }

  /// `text` is what is sent: the document as it stands in the file.
  async preview(name, document, text) {
    await this.store.readQueue(); // what is compared with has to be what is there now
    const result = compareState(document, this.store.queue);
    if (result.faults.length) {
      this.refuse(name, result.faults);
      return;
    }
    const total = Object.values(result.added).reduce((sum, entries) => sum + entries.length, 0);
    const apply = h("button", { type: "button", class: "primary", onclick: () => this.apply(name, text, [apply, cancel]) }, "Add these");
    const cancel = h("button", { type: "button", onclick: () => this.close() }, "Cancel");
    this.place.replaceChildren(
      h("h4", { tabindex: -1 }, total ? `${name} would add` : `${name} would add nothing`),
      ...Object.entries(result.added).filter(([, entries]) => entries.length).map(([kind, entries]) => section(count(entries.length, ...KINDS[kind]), entries, "plus", true)),
      result.present.length ? section(`${result.present.length} already there, left as they are`, result.present, "same", false) : "",
      result.ignored.length ? section("Not taken over", result.ignored, "same", true) : "",
      h("div", { class: "actions" }, total ? apply : "", cancel));
    this.place.querySelector("h4").focus();
  }

  /// Takes as long as the server takes: a second try would add the timers once more.
  async apply(name, text, buttons) {
    const before = this.store.queue;
    this.applying = true;
    for (const button of buttons) button.disabled = true;
    setText(buttons[0], "Adding…");
    try {
      const { data } = await post(path("queue"), text, { patience: 0 });
      const added = ["event_list", "timer_list", "watch_list"].map((list) => data[list].length - before[list].length);
      say(`${name} is applied: ${count(added[0], "event")}, ${count(added[1], "timer")} and ${count(added[2], "watch", "watches")} more than before.`);
      this.close();
      await this.store.readQueue();
    } catch (failure) {
      const unknown = failure.status === 0 ? `Whether ${name} was applied is not known; look before you try again.` : undefined;
      this.refuse(name, failure.message.split("\n"), unknown);
    } finally {
      this.applying = false;
    }
  }

  close() {
    this.place.replaceChildren();
    byId("state-file").value = "";
    byId("state-file").focus();
  }
}

function section(title, entries, kind, open) {
  const rest = entries.length - SHOWN;
  return h("details", { class: `changes ${kind}`, open }, h("summary", {}, title),
    h("ul", { class: "plain" }, entries.slice(0, SHOWN).map((entry) => h("li", {}, entry)), rest > 0 ? h("li", { class: "muted" }, `and ${rest} more`) : ""));
}

/// Null where the bytes are no text.
function decoded(bytes) {
  try {
    return new TextDecoder("utf-8", { fatal: true }).decode(bytes);
  } catch {
    return null;
  }
}

async function download() {
  const { text } = await get(path("queue"), { patience: 0 });
  const url = URL.createObjectURL(new Blob([`${pretty(text)}\n`], { type: "application/json" }));
  const stamp = timestampText(Date.now()).slice(0, 19).replaceAll(/[-:]/g, "").replace("T", "-");
  h("a", { href: url, download: `velmora-state-${stamp}.json` }).click();
  setTimeout(() => URL.revokeObjectURL(url), 60000);
}
