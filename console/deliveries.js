// The last calls to listeners and how they ended.

import { get, path, post, remove } from "./api.js";
import { byId, h, setText, show, syncList } from "./dom.js";
import { attempt, say } from "./notices.js";
import { deliveryKey, failed, outcomeBadge } from "./outcome.js";
import { parseTime, serverNow, timeElement } from "./time.js";
import { setCount } from "./views.js";

const RECENT_MS = 5 * 60 * 1000; // failures that are counted beside the name of the area

export class Deliveries {
  constructor(store) {
    this.store = store;
    const form = byId("delivery-filters");
    form.onsubmit = (submit) => submit.preventDefault();
    form.addEventListener("input", () => this.draw());
    store.addEventListener("deliveries", () => this.draw());
  }

  draw() {
    const threshold = byId("delivery-threshold").valueAsNumber || Infinity;
    const text = byId("delivery-text").value.toLowerCase();
    const kinds = {
      all: () => true,
      failed,
      slow: (delivery) => delivery.duration_ms >= threshold,
      waiting: ({ outcome }) => outcome === "waiting",
      dead: ({ outcome }) => outcome === "dead",
    };
    const matching = this.store.deliveries.filter((delivery) => delivery.url.toLowerCase().includes(text));
    for (const [kind, test] of Object.entries(kinds)) setText(byId(`delivery-${kind}`), String(matching.filter(test).length));
    const wanted = new FormData(byId("delivery-filters")).get("delivery-show");
    const rows = matching.filter(kinds[wanted]);
    for (const kind of ["waiting", "dead"]) show(byId(`delivery-only-${kind}`), this.store.failing !== null);
    syncList(byId("delivery-rows"), rows, deliveryKey, (delivery) => this.row(delivery), (element, delivery) =>
      element.classList.toggle("slow", kinds.slow(delivery)));
    const recent = serverNow() - RECENT_MS;
    setCount("deliveries", this.store.deliveries.filter((each) => failed(each) && parseTime(each.time) > recent).length, true);
    show(byId("deliveries-empty"), rows.length === 0);
    setText(byId("deliveries-empty-lead"), this.store.deliveries.length ? "None of the last deliveries matches." : "No deliveries yet.");
  }

  row(delivery) {
    return h("tr", { class: failed(delivery) ? "failing" : null }, h("td", {}, timeElement(parseTime(delivery.time))),
      h("td", {}, outcomeBadge(delivery)), h("td", { class: "number" }, `${delivery.duration_ms} ms`),
      h("td", {}, h("span", { class: "kind" }, delivery.method), " ", h("code", {}, delivery.url), delivery.id ? details(delivery) : null),
      h("td", { class: "reason" }, delivery.reason, this.actions(delivery)));
  }

  /// What can be done about one that was not taken, where the server keeps it.
  actions(delivery) {
    const { id, outcome, attempt: made, attempts } = delivery;
    if (!id || outcome === "ok") return null;
    const button = (text, onclick) =>
      h("button", { type: "button", class: "small", "aria-label": `${text}: ${delivery.url}`, onclick: () => this.act(onclick) }, text);
    const which = attempts > 1 ? h("span", { class: "muted" }, `attempt ${made} of ${attempts}`) : null;
    const dismiss = outcome === "failed" ? null : button("Dismiss", async () => {
      await remove(path("deliveries", id));
      say("The delivery is dismissed.");
    });
    return h("div", { class: "actions" }, which, button("Send again", async () => {
      await post(path("deliveries", id, "resend"));
      say("The delivery is sent again.");
    }), dismiss);
  }

  async act(work) {
    await attempt(work);
    this.store.expectDeliveries();
  }
}

/// Body, answer and traceback, read when someone looks.
function details({ id }) {
  const place = h("div");
  const part = (label, text) => (text ? [h("p", { class: "muted" }, label), h("pre", { class: "code" }, text)] : []);
  const read = () => attempt(async () => {
    const { data } = await get(path("deliveries", id));
    place.replaceChildren(...part("Body", data.body), ...part("Answer", data.answer), ...part("Traceback", data.traceback));
    if (!place.hasChildNodes()) place.append(h("p", { class: "muted" }, "Neither body nor answer."));
  });
  return h("details", { class: "data", ontoggle: (toggle) => toggle.target.open && read() }, h("summary", {}, "Body and answer"), place);
}
