// The listeners of one event: what is called, how the last call ended.

import { path, post, remove } from "./api.js";
import { dataDetails } from "./datadetails.js";
import { h, setText, show, syncList } from "./dom.js";
import { holdsData } from "./json.js";
import { JsonEditor } from "./jsoneditor.js";
import { attempt, confirmed, say } from "./notices.js";
import { addressKey, deliveryKey, failed, isPython, newestByAddress, outcomeLine } from "./outcome.js";

export class ListenerList {
  constructor(store, event) {
    this.store = store;
    this.event = event;
    this.list = h("ul", { class: "listeners", "aria-label": `Listeners of ${event}` });
    this.formPlace = h("div");
    this.element = h("div", {}, this.list, this.formPlace);
  }

  draw(listeners) {
    const newest = newestByAddress(this.store.deliveries);
    syncList(this.list, listeners, (listener) => listener.id, (listener) => this.row(listener), (row, listener) => {
      const delivery = isPython(listener.callback) ? undefined : newest.get(addressKey(listener.callback));
      row.classList.toggle("failing", Boolean(delivery && failed(delivery)));
      drawOutcome(row.outcome, listener, delivery);
    });
    show(this.list, listeners.length > 0);
  }

  row(listener) {
    const outcome = h("span", { class: "last" });
    const row = h("li", {}, h("span", { class: "kind" }, kindOf(listener)), h("code", { class: "callback" }, listener.callback), outcome,
      h("button", { type: "button", class: "small danger", "aria-label": `Delete listener ${listener.callback}`, onclick: () => this.remove(listener) }, "Delete…"),
      dataDetails("Listener data", listener.listener_data));
    row.outcome = outcome;
    return row;
  }

  async remove(listener) {
    if (!(await confirmed("Delete this listener?", `${listener.callback} is no longer called when “${this.event}” is posted.`))) return;
    await attempt(async () => {
      await remove(path("events", this.event, "listeners", listener.id));
      say("The listener is deleted.");
      await this.store.readQueue();
    });
  }

  // Adding one

  openForm() {
    if (!this.form) this.buildForm();
    show(this.form, true);
    this.callback.focus();
  }

  buildForm() {
    const editor = h("div");
    this.callback = h("input", { autocomplete: "off", spellcheck: "false", required: true, placeholder: "https://…, /api/v1/events/…, or python://module", oninput: () => this.explain() });
    this.explains = h("p", { class: "note", "aria-live": "polite" });
    this.form = h("form", { class: "body inset", novalidate: true, "aria-label": `New listener of ${this.event}`, onsubmit: (submit) => this.create(submit) },
      h("label", { class: "field" }, h("span", {}, "Callback"), this.callback), editor, this.explains,
      h("div", { class: "actions" }, h("button", { class: "primary" }, "Add listener"),
        h("button", { type: "button", onclick: () => show(this.form, false) }, "Cancel")));
    this.data = new JsonEditor(editor, "Listener data", "A JSON dictionary that is delivered with every posting.");
    this.data.text.addEventListener("input", () => this.explain());
    this.formPlace.append(this.form);
    this.explain();
  }

  explain() {
    const data = this.data.text.value.trim().replace(/\s/g, "");
    const python = isPython(this.callback.value.trim());
    setText(this.explains, python
      ? "Runs event_handler(payload) of the Python module inside the server; a slow handler delays every posting."
      : data && data !== "{}"
        ? "Is called with POST; the body holds the posting and this data."
        : "Without data it is called with GET and learns nothing of the posting. Give it data, however little, to have the posting sent along.");
  }

  async create(submit) {
    submit.preventDefault();
    const data = this.data.value();
    if (data === null) return;
    await attempt(async () => {
      await post(path("events", this.event, "listeners"), { callback: this.callback.value.trim(), listener_data: data });
      say(`The listener is called from the next posting of “${this.event}” on.`);
      this.form.remove();
      this.form = null;
      await this.store.readQueue();
    });
  }
}

function drawOutcome(place, listener, delivery) {
  const signature = delivery ? deliveryKey(delivery) : "none";
  if (place.dataset.shown === signature) return;
  place.dataset.shown = signature;
  if (delivery) place.replaceChildren(...outcomeLine(delivery).filter(Boolean));
  else place.replaceChildren(h("span", { class: "muted" }, isPython(listener.callback) ? "outcome in the server's log" : "not called lately"));
}

function kindOf({ callback, listener_data: data }) {
  if (isPython(callback)) return "Python";
  return holdsData(data) ? "POST" : "GET";
}
