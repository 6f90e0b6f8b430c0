// The listeners of one event: what is called, how the last call ended.

import { get, path, post, remove } from "./api.js";
import { dataDetails } from "./datadetails.js";
import { digits, h, setText, show, syncList } from "./dom.js";
import { holdsData } from "./json.js";
import { JsonEditor } from "./jsoneditor.js";
import { attempt, confirmed, say } from "./notices.js";
import { deliveryKey, failed, isPython, lastCall, outcomeLine } from "./outcome.js";
import { exactUTC, parseTime } from "./time.js";

export class ListenerList {
  constructor(store, event) {
    this.store = store;
    this.event = event;
    this.list = h("ul", { class: "listeners", "aria-label": `Listeners of ${event}` });
    this.formPlace = h("div");
    this.element = h("div", {}, this.list, this.formPlace);
  }

  draw(listeners) {
    const last = lastCall(this.store);
    const kept = this.store.failing !== null;
    syncList(this.list, listeners, (listener) => listener.id, (listener) => this.row(listener), (row, listener) => {
      const delivery = last(listener);
      row.classList.toggle("failing", kept ? this.store.failing.has(listener.id) : Boolean(delivery && failed(delivery)));
      drawOutcome(row.outcome, kept ? "not called lately" : neverCalled(listener), delivery);
      for (const element of row.whereKept) show(element, kept);
    });
    show(this.list, listeners.length > 0);
  }

  row(listener) {
    const outcome = h("span", { class: "last" });
    const test = h("button", { type: "button", class: "small", "aria-label": `Test listener ${listener.callback}`, onclick: () => this.test(listener) }, "Test");
    const status = this.statusDetails(listener);
    const row = h("li", {}, h("span", { class: "kind" }, kindOf(listener)), h("code", { class: "callback" }, listener.callback), outcome, test,
      h("button", { type: "button", class: "small danger", "aria-label": `Delete listener ${listener.callback}`, onclick: () => this.remove(listener) }, "Delete…"),
      dataDetails("Listener data", listener.listener_data), status);
    row.outcome = outcome;
    row.whereKept = [test, status];
    return row;
  }

  /// How its calls went so far, read anew whenever someone looks.
  statusDetails(listener) {
    const text = h("p", { class: "muted" });
    const read = () => attempt(async () => {
      const { data } = await get(path("events", this.event, "listeners", listener.id));
      setText(text, data.status ? statusText(data.status) : "It was not called yet.");
    });
    return h("details", { class: "data", ontoggle: (toggle) => toggle.target.open && read() }, h("summary", {}, "Calls"), text);
  }

  async test(listener) {
    await attempt(async () => {
      await post(path("events", this.event, "listeners", listener.id, "test"), {});
      say("The listener is called, and nobody else; see under Deliveries.");
      this.store.expectDeliveries();
    });
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

const neverCalled = ({ callback }) => (isPython(callback) ? "outcome in the server's log" : "not called lately");

function statusText(status) {
  const parts = [`${digits(status.calls)} calls, ${digits(status.failures)} failed`];
  if (status.failures_in_a_row) parts.push(`${digits(status.failures_in_a_row)} failures in a row`);
  if (status.retries_waiting) parts.push(`${digits(status.retries_waiting)} retries waiting`);
  parts.push(status.last_success ? `last success ${exactUTC(parseTime(status.last_success))}` : "no success so far");
  parts.push(`last hundred: mean ${digits(status.duration_mean_ms)} ms, worst ${digits(status.duration_worst_ms)} ms`);
  return `${parts.join("; ")}.`;
}

function drawOutcome(place, without, delivery) {
  const signature = delivery ? `${deliveryKey(delivery)} ${delivery.calls} ${delivery.retries_waiting}` : without;
  if (place.dataset.shown === signature) return;
  place.dataset.shown = signature;
  if (delivery) place.replaceChildren(...outcomeLine(delivery).filter(Boolean));
  else place.replaceChildren(h("span", { class: "muted" }, without));
}

function kindOf({ callback, listener_data: data }) {
  if (isPython(callback)) return "Python";
  return holdsData(data) ? "POST" : "GET";
}
