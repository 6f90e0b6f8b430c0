// What the server holds, kept current while someone looks: the queue, the outcomes of deliveries, the server itself.

import { get, path } from "./api.js";
import { write } from "./json.js";
import { describeServer } from "./serverinfo.js";

const QUEUE_MS = 4000;
const DELIVERIES_MS = 3000;
const SERVER_MS = 5000;
const AFTER_POSTING_MS = 600; // a listener called by a posting has answered by then, mostly

const NOTHING = { event_list: [], timer_list: [], watch_list: [], max_listeners: NaN, max_watches: NaN };

/// Events: "queue", "deliveries", "server", each after what it names was read anew.
export class Store extends EventTarget {
  queue = NOTHING;
  deliveries = []; // newest first
  failing = null; // how the listeners do whose last call failed: Map(listener's id -> status); null where the server keeps no deliveries
  server = { reachable: false };
  etag = "";
  loaded = false; // the queue has been read once
  narrowed = ""; // why not all of it may be seen; then the queue holds what may be, and has no limits

  start() {
    this.every(QUEUE_MS, () => this.readQueue());
    this.every(DELIVERIES_MS, () => this.readDeliveries());
    this.every(SERVER_MS, () => this.readServer());
    document.addEventListener("visibilitychange", () => document.hidden || this.refresh());
  }

  async refresh() {
    await Promise.all([this.readQueue(), this.readDeliveries(), this.readServer()]);
  }

  /// Reads the deliveries soon; cheap to call for every posting.
  expectDeliveries() {
    this.expected ??= setTimeout(() => {
      this.expected = null;
      this.readDeliveries();
    }, AFTER_POSTING_MS);
  }

  async readQueue() {
    try {
      const { status, data, headers } = await get(path("queue"), { headers: this.etag ? { "If-None-Match": this.etag } : {} });
      if (status === 304) return;
      this.etag = headers.get("ETag") ?? "";
      this.take(data, "");
    } catch (failure) {
      if (failure.status === 403) await this.readParts(failure.message);
      else this.lostTouch(); // said by the connection's state
    }
  }

  /// For a token that is for some events: the lists hold what belongs to those.
  async readParts(narrowed) {
    try {
      const parts = await Promise.all(["events", "timers", "watches"].map((part) => get(path(part))));
      this.etag = "";
      const text = parts.map((part) => part.text).join();
      if (text === this.parts && narrowed === this.narrowed) return;
      this.parts = text;
      this.take(Object.assign({}, ...parts.map((part) => part.data)), narrowed);
    } catch {
      this.lostTouch();
    }
  }

  take(queue, narrowed) {
    this.queue = { ...NOTHING, ...queue };
    this.narrowed = narrowed;
    this.loaded = true;
    this.dispatchEvent(new Event("queue"));
  }

  async readDeliveries() {
    try {
      const { data } = await get(path("deliveries"));
      const newest = data.failing ? write(data) : write(data.deliveries.slice(0, 3)) + data.deliveries.length;
      if (newest === this.newestDeliveries) return;
      this.newestDeliveries = newest;
      this.deliveries = data.deliveries;
      this.failing = data.failing ? new Map(data.failing.map(({ listener_id: id, status }) => [id, status])) : null;
      this.dispatchEvent(new Event("deliveries"));
    } catch {
      this.lostTouch();
    }
  }

  async readServer() {
    this.server = await describeServer(this.server);
    this.dispatchEvent(new Event("server"));
  }

  lostTouch() {
    if (this.server.reachable) this.readServer();
  }

  /// Runs `work` now and again and again, never twice at once, and not while nobody sees the page.
  async every(pause, work) {
    if (!document.hidden) await work();
    setTimeout(() => this.every(pause, work), pause);
  }
}
