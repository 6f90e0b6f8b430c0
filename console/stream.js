// The live view: what a person can read of what is posted, newest first.
//
// Everything is kept in a ring and counted. While postings come slowly every one of them is shown; when they come faster
// than anyone reads, a few of each moment are, and the list says at the place how many it left out.

import { byId, count, digits, h, oncePerFrame, setText, show } from "./dom.js";
import { gist, passes } from "./posting.js";
import { preview, pretty } from "./json.js";
import { Ring } from "./ring.js";
import { clockText, serverNow, timeElement } from "./time.js";
import { toClipboard } from "./clipboard.js";

const KEPT = 5000; // postings that can be read back while paused or through a filter
const ROWS = 150; // in the page at once
const PAGE = 100; // further ones on demand
const MOMENT_MS = 500; // between two changes of the list while it is busy
const CROWD = 24; // in one moment: more than anyone reads
const PER_MOMENT = 8; // shown of a moment that is crowded

export class Stream {
  ring = new Ring(KEPT);
  filter = { name: "", text: "" };
  kept = 0; // so far, which numbers them
  fresh = []; // came since the list was last changed and pass the filter
  freshLeftOut = 0; // the same, beyond what is kept of them
  paused = false;
  reading = false; // paused because a row was opened
  missedWhilePaused = 0;
  leftOut = 0;
  lastChange = 0;

  /// `repost(posting)` is called for the posting a person wants to send again.
  constructor(repost) {
    this.repost = repost;
    this.list = byId("stream");
    this.schedule = oncePerFrame(() => this.flush());
    byId("stream-pause").onclick = () => (this.paused ? this.resume() : this.hold(false));
    byId("stream-more").onclick = () => this.showOlder();
    byId("stream-filters").onsubmit = (submit) => submit.preventDefault();
    for (const id of ["filter-name", "filter-text"]) byId(id).oninput = () => this.readFilter();
    this.tell();
  }

  add(postings) {
    for (const posting of postings) {
      this.keep(posting);
      if (!passes(posting, this.filter)) continue;
      if (this.paused) this.missedWhilePaused += 1;
      else this.fresh.push(posting);
    }
    if (this.fresh.length > 2 * ROWS) this.freshLeftOut += this.fresh.splice(0, this.fresh.length - ROWS).length;
    this.schedule();
  }

  /// A line of its own between the postings.
  mark(text) {
    const gap = this.keep({ gap: `${clockText(serverNow())} · ${text}` });
    if (this.paused) return;
    this.flush(true);
    this.list.prepend(this.row(gap));
    this.tell();
  }

  keep(item) {
    item.number = this.kept += 1;
    this.ring.push(item);
    return item;
  }

  only(name) {
    byId("filter-name").value = byId("filter-name").value === name ? "" : name;
    this.readFilter();
  }

  readFilter() {
    this.filter = { name: byId("filter-name").value.trim().toLowerCase(), text: byId("filter-text").value.trim().toLowerCase() };
    this.rebuild();
  }

  // Showing

  flush(now = false) {
    const size = this.fresh.length + this.freshLeftOut;
    if (size > 0) {
      const wait = this.lastChange + MOMENT_MS - performance.now();
      if (!now && wait > 0 && size > PER_MOMENT) {
        clearTimeout(this.later);
        this.later = setTimeout(this.schedule, wait);
        return;
      }
      this.lastChange = performance.now();
      this.showFresh();
    }
    this.tell();
  }

  showFresh() {
    const shown = this.fresh.slice(this.crowded() ? -PER_MOMENT : -ROWS);
    const hidden = this.fresh.length - shown.length + this.freshLeftOut;
    this.fresh = [];
    this.freshLeftOut = 0;
    if (hidden) {
      this.leftOut += hidden;
      this.list.prepend(h("li", { class: "marker" }, `${digits(hidden)} left out`));
    }
    this.list.prepend(...shown.reverse().map((posting) => this.row(posting)));
    while (this.list.children.length > ROWS) this.list.lastElementChild.remove();
  }

  /// The first postings of a page that was just opened are a batch, not a crowd.
  crowded() {
    return this.list.children.length > 0 && this.fresh.length + this.freshLeftOut > CROWD;
  }

  rebuild() {
    this.fresh = [];
    this.freshLeftOut = 0;
    this.missedWhilePaused = 0;
    this.list.replaceChildren(...this.older(Infinity, ROWS).map((posting) => this.row(posting)));
    this.tell();
  }

  /// The next `most` kept postings that pass the filter and are older than `number`.
  older(number, most) {
    const found = [];
    for (const posting of this.ring.newestFirst()) {
      if (posting.number < number && (posting.gap || passes(posting, this.filter))) found.push(posting);
      if (found.length === most) break;
    }
    return found;
  }

  showOlder() {
    const rows = this.older(this.oldestShown(), PAGE).map((posting) => this.row(posting));
    this.list.append(...rows);
    rows[0]?.querySelector("summary")?.focus();
    this.tell();
  }

  oldestShown() {
    return Number([...this.list.querySelectorAll(":scope > li[data-number]")].pop()?.dataset.number ?? Infinity);
  }

  // Pausing

  hold(reading) {
    if (!this.paused) {
      this.flush(true);
      this.paused = true;
      this.reading = reading;
      if (!reading) this.rebuild();
    }
    this.tell();
  }

  resume() {
    this.paused = false;
    this.reading = false;
    this.rebuild();
  }

  // Rows

  row(posting) {
    if (posting.gap) return h("li", { class: "marker gap", "data-number": posting.number }, posting.gap);
    const body = h("div", { class: "body" });
    const details = h("details", { ontoggle: () => this.toggled(details, body, posting) },
      h("summary", {}, timeElement(posting.ms, "clock"), h("span", { class: "name" }, posting.name),
        h("span", { class: "gist" }, preview(gist(posting)))), body);
    return h("li", { "data-number": posting.number }, details);
  }

  /// An opened row holds the list still, so that it does not run away under the eyes.
  toggled(details, body, posting) {
    if (details.open && !body.hasChildNodes()) body.append(...this.expansion(posting));
    if (details.open) this.hold(true);
    else if (this.reading && !this.list.querySelector("details[open]")) this.resume();
  }

  expansion(posting) {
    const button = (text, onclick) => h("button", { type: "button", class: "small", onclick }, text);
    return [h("pre", { class: "code", tabindex: 0, "aria-label": "Payload" }, pretty(posting.text)), h("div", { class: "actions" },
      button("Copy", () => toClipboard(pretty(posting.text), "The payload")),
      button("Post again…", () => this.repost(posting)),
      button("Only this event", () => this.only(posting.name)))];
  }

  // What stands around the list

  tell() {
    const button = byId("stream-pause");
    setText(button, this.paused ? "Resume" : "Pause");
    button.setAttribute("aria-pressed", String(this.paused));
    setText(byId("stream-note"), this.noteText());
    show(byId("stream-note"), byId("stream-note").textContent !== "");
    const empty = this.list.children.length === 0;
    const filtered = Boolean(this.filter.name || this.filter.text);
    show(byId("stream-empty"), empty);
    show(byId("stream-more"), this.paused && !empty && this.older(this.oldestShown(), 1).length > 0);
    setText(byId("stream-empty-lead"), filtered ? "Nothing matches the filter." : "No postings yet.");
    show(byId("stream-empty-hint"), !filtered);
  }

  noteText() {
    if (this.paused) {
      const why = this.reading ? "Held while you read." : "Paused.";
      return `${why} ${count(this.missedWhilePaused, "new posting")} since. The last ${digits(KEPT)} can be read back.`;
    }
    if (!this.leftOut) return "";
    return `${count(this.leftOut, "posting")} left out so far, which came faster than anyone reads. Pause to read back the last ${digits(KEPT)}.`;
  }
}
