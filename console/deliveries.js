// The last calls to listeners and how they ended.

import { byId, h, setText, show, syncList } from "./dom.js";
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
    };
    const matching = this.store.deliveries.filter((delivery) => delivery.url.toLowerCase().includes(text));
    for (const [kind, test] of Object.entries(kinds)) setText(byId(`delivery-${kind}`), String(matching.filter(test).length));
    const wanted = new FormData(byId("delivery-filters")).get("delivery-show");
    const rows = matching.filter(kinds[wanted]);
    syncList(byId("delivery-rows"), rows, deliveryKey, row, (element, delivery) =>
      element.classList.toggle("slow", kinds.slow(delivery)));
    const recent = serverNow() - RECENT_MS;
    setCount("deliveries", this.store.deliveries.filter((each) => failed(each) && parseTime(each.time) > recent).length, true);
    show(byId("deliveries-empty"), rows.length === 0);
    setText(byId("deliveries-empty-lead"), this.store.deliveries.length ? "None of the last deliveries matches." : "No deliveries yet.");
  }
}

function row(delivery) {
  return h("tr", { class: failed(delivery) ? "failing" : null }, h("td", {}, timeElement(parseTime(delivery.time))),
    h("td", {}, outcomeBadge(delivery)), h("td", { class: "number" }, `${delivery.duration_ms} ms`),
    h("td", {}, h("span", { class: "kind" }, delivery.method), " ", h("code", {}, delivery.url)),
    h("td", { class: "reason" }, delivery.reason));
}
