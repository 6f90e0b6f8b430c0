// Puts the console together.

import { RateChart } from "./chart.js";
import { Deliveries } from "./deliveries.js";
import { byId, h, setText, show, syncList } from "./dom.js";
import { Events } from "./events.js";
import { Feed } from "./feed.js";
import { PostForm } from "./postform.js";
import { Rates, rateText } from "./rates.js";
import { offerSignOut } from "./session.js";
import { StateDocument } from "./statedoc.js";
import { Status } from "./status.js";
import { Store } from "./store.js";
import { Stream } from "./stream.js";
import { serverNow, startTicking } from "./time.js";
import { Timers } from "./timers.js";
import { onShow, startViews } from "./views.js";
import { Watches } from "./watches.js";

const NAMES_OFFERED = 500;

const store = new Store();
const feed = new Feed();
const rates = new Rates();

const postForm = new PostForm(store);
const stream = new Stream((posting) => postForm.prepare(posting.name, posting.record.post_data));
const timers = new Timers(store);
const watches = new Watches(store);
new RateChart(rates, (name) => stream.only(name));
new Events(store, rates, (name) => postForm.prepare(name));
new Deliveries(store);
new StateDocument(store);
new Status(store, feed);

feed.addEventListener("postings", ({ detail: postings }) => {
  for (const posting of postings) rates.add(posting);
  stream.add(postings);
  timers.noteFirings(postings);
  watches.noteChanges(postings);
  store.expectDeliveries();
});
feed.addEventListener("gap", ({ detail: text }) => stream.mark(text));
feed.addEventListener("change", () => feed.state === "open" && store.refresh());

store.addEventListener("queue", () => {
  const names = store.queue.event_list.slice(0, NAMES_OFFERED).map((event) => event.event_name);
  syncList(byId("event-names"), names, (name) => name, (name) => h("option", { value: name }));
});

/// What a token that is for some events does not let see is not offered.
store.addEventListener("queue", () => {
  const narrowed = store.narrowed !== "";
  setText(byId("narrowed"), narrowed ? `${store.narrowed} Shown is what belongs to those events.` : "");
  for (const area of ["deliveries", "state"]) show(document.querySelector(`.rail a[href="#/${area}"]`), !narrowed);
  show(byId("limits-open"), !narrowed);
});

function showRate() {
  const counts = rates.all.until(Math.floor(serverNow() / 1000));
  const text = rateText(counts);
  setText(byId("stream-rate"), text);
  setText(byId("nav-live"), text === "0/min" ? "" : text);
}

for (const view of ["events", "timers", "watches", "deliveries", "state"]) onShow(view, () => store.refresh());

offerSignOut();
startViews();
startTicking();
setInterval(() => document.hidden || showRate(), 1000);
store.start();
feed.start();
