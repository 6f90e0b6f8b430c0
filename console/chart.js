// The rate of postings over the last minutes: one line for all, a small one for each of the busiest events.

import { byId, h, oncePerFrame, setText, show, svg, syncList } from "./dom.js";
import { rateText } from "./rates.js";
import { serverNow } from "./time.js";

const ROWS = 8;
const WIDTH = 300;

/// Draws the rates into the element `rates`; `choose(name)` is called for the event a person picks.
export class RateChart {
  constructor(rates, choose) {
    this.rates = rates;
    this.choose = choose;
    this.area = svg("path", { class: "area" });
    this.line = svg("path", { class: "line" });
    this.peak = h("span", { class: "peak" });
    this.picture = svg("svg", { viewBox: `0 0 ${WIDTH} 72`, preserveAspectRatio: "none", role: "img", class: "rate" }, this.area, this.line);
    this.rows = h("ul", { class: "rate-rows", "aria-label": "Busiest events" });
    this.more = h("p", { class: "muted hint" });
    byId("rates").append(h("div", { class: "rate-box" }, this.picture, this.peak,
      h("span", { class: "axis from" }, "5 min ago"), h("span", { class: "axis to" }, "now")), this.rows, this.more);
    const draw = oncePerFrame(() => this.draw());
    setInterval(() => document.hidden || draw(), 1000);
    draw();
  }

  draw() {
    const second = Math.floor(serverNow() / 1000);
    const counts = this.rates.all.until(second);
    const peak = Math.max(...counts);
    const points = outline(thin(counts.slice(0, -1)), 70);
    this.line.setAttribute("d", points);
    this.area.setAttribute("d", `${points}L${WIDTH} 72L0 72Z`);
    const now = rateText(counts);
    this.picture.setAttribute("aria-label", `All postings over the last 5 minutes: now ${now}, at most ${peak} in one second`);
    setText(this.peak, `peak ${peak.toLocaleString("en")}/s`);
    this.drawRows(second);
  }

  drawRows(second) {
    const { rows, more } = this.rates.busiest(second, ROWS);
    syncList(this.rows, rows, (row) => row.name, (row) => this.row(row), update);
    setText(this.more, more ? `and ${more} more` : rows.length ? "" : "Nothing was posted in this time.");
    show(this.more, this.more.textContent !== "");
  }

  row({ name }) {
    const picture = svg("svg", { viewBox: `0 0 ${WIDTH} 20`, preserveAspectRatio: "none", "aria-hidden": "true" }, svg("path", { class: "line" }));
    return h("li", {}, h("button", { type: "button", class: "quiet", title: `Show only “${name}”`, onclick: () => this.choose(name) },
      h("span", { class: "name" }, name), picture, h("span", { class: "value" })));
  }
}

function update(element, { counts, total }) {
  element.querySelector("path").setAttribute("d", outline(thin(counts.slice(0, -1)), 18));
  setText(element.querySelector(".value"), rateText(counts));
  element.firstElementChild.setAttribute("aria-description", `${total} postings in 5 minutes`);
}

/// Three seconds to a point: a narrow picture shows no more.
function thin(counts) {
  const points = [];
  for (let i = counts.length; i > 0; i -= 3) points.unshift(counts.slice(Math.max(0, i - 3), i).reduce((a, b) => a + b, 0));
  return points;
}

function outline(counts, height) {
  const top = Math.max(...counts, 1);
  const step = WIDTH / (counts.length - 1);
  return counts.map((n, i) => `${i ? "L" : "M"}${(i * step).toFixed(1)} ${(height + 1 - (n / top) * height).toFixed(1)}`).join("");
}
