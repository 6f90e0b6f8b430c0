// The strip at the top: is the server there, is it ready, does anything fail. Seen from across the room.

import { request, path } from "./api.js";
import { byId, count, digits, setText, show } from "./dom.js";
import { unseenExpired } from "./expired.js";
import { announce, say } from "./notices.js";
import { failingListeners } from "./outcome.js";
import { duration, exactUTC, serverNow } from "./time.js";

export class Status {
  constructor(store, feed) {
    this.store = store;
    this.feed = feed;
    byId("reconnect").onclick = () => feed.hurry();
    byId("limits-open").onclick = () => this.openLimits();
    byId("limits-cancel").onclick = () => byId("limits-dialog").close();
    byId("limits-form").onsubmit = (submit) => this.setLimits(submit);
    feed.addEventListener("change", () => this.showConnection());
    for (const what of ["queue", "deliveries", "server"]) store.addEventListener(what, () => this.showServer());
    setInterval(() => this.tick(), 1000);
    this.showConnection();
  }

  tick() {
    if (document.hidden) return;
    if (this.feed.state === "waiting") this.showConnection();
    this.showUptime();
  }

  showConnection() {
    const { state, retryAt } = this.feed;
    const texts = {
      open: "Live",
      connecting: "Connecting…",
      waiting: `Not connected, again in ${duration(Math.max(1000, retryAt - Date.now()))}`,
    };
    const pill = byId("connection");
    setText(pill, texts[state]);
    pill.dataset.state = state;
    show(byId("reconnect"), state === "waiting");
    if (state !== this.announced && state !== "connecting") {
      if (this.announced) announce(state === "open" ? "Connected to the server." : "Connection to the server lost.");
      this.announced = state;
    }
    this.showAlarm();
  }

  showServer() {
    const { server, queue } = this.store;
    setText(byId("version"), server.version || "–");
    setText(byId("clients"), server.clients === null || server.clients === undefined ? "–" : digits(server.clients));
    const listeners = queue.event_list.reduce((sum, event) => sum + event.listener_list.length, 0);
    setText(byId("listener-use"), use(listeners, queue.max_listeners));
    setText(byId("watch-use"), use(queue.watch_list.length, queue.max_watches));
    const ready = byId("ready");
    ready.dataset.state = !server.reachable ? "unknown" : server.ready ? "ready" : "unready";
    setText(ready, !server.reachable ? "Not answering" : server.ready ? "Ready" : `Not ready: ${server.notReady.join("; ")}`);
    this.showUptime();
    this.showAlarm();
  }

  showUptime() {
    const { startedAt, reachable } = this.store.server;
    const known = reachable && startedAt !== undefined;
    setText(byId("uptime"), known ? coarse(serverNow() - startedAt) : "–");
    byId("uptime").title = known ? `Since ${exactUTC(startedAt)}` : "";
  }

  /// Failing listeners and timers that came too late, in the strip, in the tab's title and in its icon.
  showAlarm() {
    const failing = failingListeners(this.store.queue, this.store).length;
    const expired = unseenExpired(this.store.server);
    const offline = this.feed.state === "waiting";
    showCount(byId("failing"), failing, `${count(failing, "listener")} failing`);
    showCount(byId("expired"), expired, `${count(expired, "timer")} too late`);
    const strip = byId("strip");
    strip.classList.toggle("alarmed", failing > 0 || expired > 0 || this.store.server.ready === false);
    strip.classList.toggle("offline", offline);
    const alarms = [failing && `${failing} failing`, expired && `${expired} too late`].filter(Boolean);
    const title = offline ? "(offline) " : alarms.length ? `(${alarms.join(", ")}) ` : "";
    document.title = `${title}Velmora events`;
    const icon = title ? "console/mark-alarm.svg" : "console/mark.svg";
    if (byId("favicon").getAttribute("href") !== icon) byId("favicon").setAttribute("href", icon);
  }

  // Limits

  openLimits() {
    byId("max-listeners").value = this.store.queue.max_listeners;
    byId("max-watches").value = this.store.queue.max_watches;
    setText(byId("limits-error"), "");
    byId("limits-dialog").showModal();
  }

  async setLimits(submit) {
    submit.preventDefault();
    const limits = { max_listeners: byId("max-listeners").valueAsNumber, max_watches: byId("max-watches").valueAsNumber };
    if (!Object.values(limits).every(Number.isInteger)) {
      setText(byId("limits-error"), "Both limits have to be whole numbers.");
      return;
    }
    try {
      await request("PATCH", path("config"), limits);
      byId("limits-dialog").close();
      say("The limits are set until the server ends.");
      await this.store.readQueue();
    } catch (failure) {
      setText(byId("limits-error"), failure.message);
    }
  }
}

function showCount(element, number, text) {
  setText(element, number > 0 ? text : "");
  show(element, number > 0);
}

/// Whole minutes from the first one on.
const coarse = (ms) => duration(ms < 60000 ? ms : ms - (ms % 60000));

const use = (used, limit) => `${digits(used)} / ${limit < 0 ? "no limit" : Number.isNaN(limit) ? "–" : digits(limit)}`;
