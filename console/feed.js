// The connection to the feed: every posting as it happens, and after an interruption what was missed.

import { Client } from "../clients/velmora.mjs";
import { BASE, get, path } from "./api.js";
import { parse } from "./json.js";
import { postingOf } from "./posting.js";
import { token } from "./session.js";

const GATHER_MS = 40; // postings that come within it are handled together
const FILL = 2000; // postings that a page begins with at most

/// Events: "postings" ({detail: [posting…]}, in order), "gap" ({detail: text}), "change" (see `state`).
export class Feed extends EventTarget {
  lostAt = 0; // when the last connection ended; 0: there was none
  fresh = []; // came and was not handed on yet
  due = null;

  get state() {
    return this.feed === undefined || this.feed.state === "new" ? "connecting" : this.feed.state; // "connecting", "open", "waiting" (until `retryAt`)
  }

  get retryAt() {
    return this.feed?.retryAt ?? 0;
  }

  start() {
    this.feed = new Client(location.origin + BASE, { token, parse }).follow({
      prepare: (feed) => this.prepare(feed),
      onOpen: (standing) => this.lostAt && this.sayWhatWasMissed(standing),
      onPosting: ({ posting }) => this.gather(posting),
      onState: (feed) => this.changed(feed),
    });
    addEventListener("online", () => this.hurry());
    document.addEventListener("visibilitychange", () => document.hidden || this.hurry());
  }

  /// Connects at once where it was waiting.
  hurry() {
    this.feed.hurry();
  }

  async prepare(feed) {
    await get(path("config")).catch(refusedToSome); // asks for the token where the server refuses it
    if (feed.lastId) return;
    const { data } = await get(`${path("history")}?limit=${FILL}`);
    feed.lastId = data.last_id;
    this.take(data.history);
  }

  gather(record) {
    this.fresh.push(record);
    this.due ??= setTimeout(() => this.drain(), GATHER_MS);
  }

  drain() {
    clearTimeout(this.due);
    this.due = null;
    this.take(this.fresh.splice(0));
  }

  take(records) {
    const postings = records.map(postingOf).filter(Boolean);
    if (postings.length) this.dispatchEvent(new CustomEvent("postings", { detail: postings }));
  }

  changed({ state }) {
    if (state === "open") this.isOpen = true;
    else if (this.isOpen) {
      this.isOpen = false;
      this.lostAt = Date.now();
      this.drain();
    }
    this.dispatchEvent(new Event("change"));
  }

  sayWhatWasMissed({ after, id, gap }) {
    const length = `${Math.max(1, Math.round((Date.now() - this.lostAt) / 1000))} s without connection`;
    const anew = epochOf(id) !== epochOf(after);
    const count = numberOf(id) - (anew ? 0 : numberOf(after));
    const filled = `${count} missed ${count === 1 ? "posting was" : "postings were"} filled in from the history`;
    if (anew) this.say(`${length}: ${filled}. The server was started anew; what was posted right before its end may be missing here.`);
    else if (gap) this.say(`${length}: what the history still holds was filled in; what was posted before that is missing here.`);
    else this.say(`${length}: ${filled}.`);
  }

  say(text) {
    this.dispatchEvent(new CustomEvent("gap", { detail: text }));
  }
}

/// A token that is for some events only is one all the same.
function refusedToSome(failure) {
  if (failure.status !== 403) throw failure;
}

const epochOf = (id) => id.slice(0, id.lastIndexOf("-"));
const numberOf = (id) => Number(id.slice(id.lastIndexOf("-") + 1));
