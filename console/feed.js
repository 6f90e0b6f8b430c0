// The connection to the feed: every posting as it happens, and after an interruption what was missed.

import { get, path } from "./api.js";
import { Ledger } from "./ledger.js";
import { postingOf, readPosting } from "./posting.js";
import { token, tokenProtocol } from "./session.js";

const FIRST_PAUSE_MS = 500;
const LONGEST_PAUSE_MS = 10000;
const SETTLED_MS = 5000; // a connection that lasts this long starts the pauses anew
const GATHER_MS = 40; // postings that come within it are handled together
const FILL = 2000; // postings taken from the history at most
const HISTORY_MS = 30000; // how far the server's history reaches back

const readAll = (texts) => texts.map(readPosting).filter(Boolean);

/// Events: "postings" ({detail: [posting…]}, in order), "gap" ({detail: text}), "change" (see `state`).
export class Feed extends EventTarget {
  state = "connecting"; // "connecting", "open", "waiting" (until `retryAt`)
  retryAt = 0;
  lostAt = 0; // when the last connection ended; 0: there was none
  ledger = new Ledger();
  pause = FIRST_PAUSE_MS;

  start() {
    addEventListener("online", () => this.hurry());
    document.addEventListener("visibilitychange", () => document.hidden || this.hurry());
    this.connect();
  }

  /// Connects at once where it was waiting.
  hurry() {
    if (this.state !== "waiting") return;
    clearTimeout(this.timer);
    this.connect();
  }

  async connect() {
    this.become("connecting");
    try {
      await get(path("config")); // a refused token shows here; a WebSocket would not say why it was refused
    } catch {
      this.wait();
      return;
    }
    const address = new URL(path("feed"), location.href);
    address.protocol = address.protocol === "https:" ? "wss:" : "ws:";
    const protocols = ["velmora.feed.v1", ...(token() ? [tokenProtocol()] : [])];
    this.listen(new WebSocket(address, protocols));
  }

  listen(socket) {
    let texts = []; // what came and was not taken yet
    let filled = false; // the history, which goes before it, has been read
    let due = null;
    const drain = () => {
      due = null;
      if (!filled) return;
      this.take(readAll(texts));
      texts = [];
    };
    socket.onopen = async () => {
      this.settle = setTimeout(() => (this.pause = FIRST_PAUSE_MS), SETTLED_MS);
      await this.fill(() => readAll(texts));
      filled = true;
      drain();
      if (socket.readyState === WebSocket.OPEN) this.become("open");
    };
    socket.onmessage = ({ data }) => {
      texts.push(data);
      due ??= setTimeout(drain, GATHER_MS);
    };
    socket.onclose = () => {
      clearTimeout(this.settle);
      drain();
      if (this.state === "open") this.lostAt = Date.now();
      this.wait();
    };
  }

  take(postings) {
    for (const { second, text } of postings) this.ledger.note(second, text);
    if (postings.length) this.dispatchEvent(new CustomEvent("postings", { detail: postings }));
  }

  /// Puts what the history holds and was not seen before what has come in meanwhile.
  async fill(early) {
    let history;
    try {
      const { data } = await get(`${path("history")}?limit=${FILL}`);
      history = data.history.map(postingOf).filter(Boolean);
    } catch (failure) {
      this.say(`What was posted meanwhile could not be read from the history: ${failure.message}`);
      return;
    }
    const known = this.ledger.copy();
    for (const { second, text } of early()) known.note(second, text);
    const missed = known.missing(history);
    if (this.lostAt) this.sayWhatWasMissed(missed.length, history.length >= FILL && missed.length === history.length);
    this.take(missed);
  }

  sayWhatWasMissed(count, cut) {
    const away = Date.now() - this.lostAt;
    const filled = `${count} missed ${count === 1 ? "posting was" : "postings were"} filled in from the history`;
    const length = `${Math.max(1, Math.round(away / 1000))} s without connection`;
    if (cut) this.say(`${length}: only the last ${count} postings could be filled in, those before are missing here.`);
    else if (away > HISTORY_MS) this.say(`${length}: ${filled}, which reaches back 30 s; what was posted before that is missing here.`);
    else this.say(`${length}: ${filled}.`);
  }

  say(text) {
    this.dispatchEvent(new CustomEvent("gap", { detail: text }));
  }

  wait() {
    this.retryAt = Date.now() + this.pause * (0.8 + 0.4 * Math.random());
    this.pause = Math.min(this.pause * 2, LONGEST_PAUSE_MS);
    this.timer = setTimeout(() => this.connect(), this.retryAt - Date.now());
    this.become("waiting");
  }

  become(state) {
    this.state = state;
    this.dispatchEvent(new Event("change"));
  }
}
