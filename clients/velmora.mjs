// A client of velmora-server in one file, for browsers and Node.js from version 18 on: posts events, reads the history,
// and follows the feed across interruptions, so that every posting arrives once and in order or a gap is reported.
//
//   const client = new Client("http://127.0.0.1:8080", { token: "…" });
//   const id = await client.post("order.paid", { number: 17 });
//   for await (const { id, posting } of client.follow({ events: ["order.*"] })) console.log(id, posting);

const PREFIX = "/api/v1";
const FIRST_PAUSE_MS = 500;
const LONGEST_PAUSE_MS = 10000;
const SETTLED_MS = 5000; // a connection that lasts this long starts the pauses anew
const SILENCE_MS = 45000; // of a stream of server-sent events, whose heartbeat comes every 15 s
const BUFFERED = 10000; // postings that an iteration has not taken; more are fetched again when it has

/// A request that the server refused (`status`, and `errors` with what is wrong where) or did not answer (status 0).
export class VelmoraError extends Error {
  constructor(status, message, errors = []) {
    super(message);
    this.name = "VelmoraError";
    this.status = status;
    this.errors = errors;
  }
}

export class Client {
  /// `address` is the server's, with its base path where a proxy adds one. Options: `token` (a text, or a function that
  /// gives it), `parse` (JSON.parse; one that keeps numbers as they are written, say), `fetch` and `WebSocket` (those of
  /// the platform; without a WebSocket, or with `WebSocket: null`, the feed comes as server-sent events).
  constructor(address, { token = "", parse = JSON.parse, fetch = globalThis.fetch, WebSocket = globalThis.WebSocket } = {}) {
    this.address = String(address).replace(/\/+$/, "");
    this.parse = parse;
    this.WebSocket = WebSocket;
    this.send = fetch.bind(globalThis);
    this.tokenText = typeof token === "function" ? token : () => token;
  }

  /// Posts an event and resolves to the posting's id. `data` is an object, or nothing.
  async post(name, data = undefined) {
    const answer = await this.request("POST", `/events/${encodeURIComponent(name)}`, data);
    return answer?.id;
  }

  /// What was posted after the id `after`, of the events named (a name may end in "*"): {history, last_id, gap?}.
  history({ after = "", events = [], limit = undefined } = {}) {
    const query = feedQuery(after, events);
    if (limit !== undefined) query.set("limit", limit);
    return this.request("GET", `/history?${query}`);
  }

  /// Follows the feed until the returned Feed is closed. See there.
  follow(options = {}) {
    return new Feed(this, options);
  }

  /// Any other request below /api/v1. Resolves to what the answer holds; rejects with a VelmoraError.
  async request(method, path, body = undefined) {
    const headers = { Accept: "application/json", ...this.authorization() };
    if (body !== undefined) headers["Content-Type"] = "application/json";
    let response, text;
    try {
      response = await this.send(this.url(path), { method, headers, body: body && JSON.stringify(body), cache: "no-store" });
      text = await response.text();
    } catch (failure) {
      throw new VelmoraError(0, `${method} ${this.url(path)} was not answered: ${failure.cause?.message ?? failure.message}`);
    }
    if (!response.ok) throw refusal(response, text);
    return text === "" ? undefined : this.parse(text);
  }

  url(path) {
    return this.address + PREFIX + path;
  }

  authorization() {
    const token = this.tokenText();
    return token ? { Authorization: `Bearer ${token}` } : {};
  }
}

function refusal(response, text) {
  let known = {};
  try {
    known = JSON.parse(text);
  } catch {
    // Not the server's own answer: a proxy's page, say.
  }
  return new VelmoraError(response.status, known.detail ?? `${response.status} ${response.statusText}`, known.errors ?? []);
}

function feedQuery(after, events) {
  const query = new URLSearchParams();
  if (after) query.set("after", after);
  for (const name of events) query.append("event_name", name);
  return query;
}

/// The feed, connected again by itself whenever the connection ends, from the last posting that was taken on.
///
/// Give callbacks, or iterate over it (`for await`), not both. An iteration that is slower than the feed is not flooded:
/// the connection pauses and goes on from the last posting that fitted.
export class Feed {
  state = "new"; // then "connecting", "open", "waiting" (until `retryAt`), "full" (see above), "closed"
  retryAt = 0; // milliseconds, as Date.now()
  failure = null; // why the last connection ended, where that is known
  lastId; // of the last posting; the place from which the feed goes on

  #client;
  #options;
  #pause = FIRST_PAUSE_MS;
  #connection = null; // what ends the present one
  #generation = 0; // of connections: what an earlier one still says is not heard
  #timer = null;
  #gapTold = "";
  #items = null; // of the iteration
  #taker = null;

  /// `events`: the names wanted, each of which may end in "*"; none: all. `after`: the id to go on from; "": from now on.
  /// `onPosting({id, posting, text})`, where `text` is the message as it came; `onGap({after, id})`: postings between the
  /// two are missing; `onOpen({after, id, gap})`: it is connected, and what was posted between the two comes first;
  /// `onState(feed)`: its state has changed. `prepare(feed)` is awaited before every connection (and may set `lastId`);
  /// where it rejects, the feed waits and tries again.
  constructor(client, options = {}) {
    const { events = [], after = "", onPosting = null, onGap = null, onOpen = null, onState = null, prepare = null } = options;
    this.#client = client;
    this.lastId = after;
    this.#items = onPosting ? null : []; // for an iteration, which may begin later
    this.#options = { events, onPosting, onGap, onOpen, onState, prepare };
    queueMicrotask(() => this.#connect());
  }

  /// Ends it; an iteration over it ends too.
  close() {
    this.#end("closed");
    this.#taker?.();
  }

  /// Connects at once where it was waiting.
  hurry() {
    if (this.state !== "waiting") return;
    clearTimeout(this.#timer);
    this.#connect();
  }

  async *[Symbol.asyncIterator]() {
    try {
      while (this.state !== "closed" || this.#items.length) {
        while (this.#items.length) yield this.#items.shift();
        if (this.state === "full") this.#connect();
        if (this.state !== "closed") await new Promise((resolve) => (this.#taker = resolve));
      }
    } finally {
      this.close();
    }
  }

  async #connect() {
    if (this.state === "closed") return;
    this.#become("connecting");
    const generation = (this.#generation += 1);
    const current = () => generation === this.#generation;
    try {
      await this.#options.prepare?.(this);
    } catch (failure) {
      if (current()) this.#wait(failure);
      return;
    }
    if (!current()) return;
    const open = this.#client.WebSocket ? openSocket : openEvents;
    const query = feedQuery(this.lastId, this.#options.events);
    this.#connection = open(this.#client, query, {
      message: (message) => current() && this.#take(message),
      end: (failure) => current() && this.#wait(failure),
    });
  }

  // The first message says where the feed stands, every further one is a posting.
  #take(message) {
    if (message.posting !== undefined) return this.#deliver(message);
    this.failure = null;
    if (!this.lastId) this.lastId = message.id;
    else if (message.gap && this.#gapTold !== this.lastId) {
      this.#gapTold = this.lastId; // once, also where the connection ends before a posting has come
      this.#options.onGap?.({ after: this.lastId, id: message.id });
    }
    this.#options.onOpen?.({ after: this.lastId, id: message.id, gap: message.gap });
    this.#timer = setTimeout(() => (this.#pause = FIRST_PAUSE_MS), SETTLED_MS);
    this.#become("open");
  }

  #deliver(message) {
    this.lastId = message.id;
    this.#options.onPosting?.(message);
    if (!this.#items) return;
    this.#items.push(message);
    this.#taker?.();
    if (this.#items.length >= BUFFERED) this.#end("full");
  }

  #wait(failure) {
    this.failure = failure ?? null;
    if ([400, 401, 403, 404].includes(failure?.status)) this.#pause = LONGEST_PAUSE_MS; // will not go away by itself
    const pause = this.#pause * (0.8 + 0.4 * Math.random());
    this.#pause = Math.min(this.#pause * 2, LONGEST_PAUSE_MS);
    this.retryAt = Date.now() + pause;
    this.#end("waiting");
    this.#timer = setTimeout(() => this.#connect(), pause);
  }

  #end(state) {
    clearTimeout(this.#timer);
    this.#generation += 1;
    this.#connection?.();
    this.#connection = null;
    this.#become(state);
  }

  #become(state) {
    if (this.state === state) return;
    this.state = state;
    this.#options.onState?.(this);
  }
}

// Transports: each calls `on.message` with every message and `on.end` once, with the reason where it is known. What they
// return ends them.

function openSocket(client, query, on) {
  const protocols = ["velmora.feed.v2"];
  const token = client.tokenText();
  if (token) protocols.push(`bearer.${btoa(token).replaceAll("+", "-").replaceAll("/", "_").replace(/=+$/, "")}`);
  const address = new URL(client.url(`/feed?${query}`), globalThis.location?.href);
  address.protocol = address.protocol === "https:" ? "wss:" : "ws:";
  const socket = new client.WebSocket(address, protocols);
  let opened = false;
  socket.onopen = () => (opened = true);
  socket.onmessage = ({ data }) => on.message({ ...client.parse(data), text: data });
  socket.onclose = async ({ code, reason }) => {
    if (opened) return on.end(new VelmoraError(0, reason || `The feed was closed (${code}).`));
    on.end(await whyRefused(client, query));
  };
  return () => socket.close();
}

// A WebSocket does not say why it was refused. The history takes the same parameters and the same token.
async function whyRefused(client, query) {
  query.set("limit", "1");
  return client.request("GET", `/history?${query}`).then(
    () => new VelmoraError(0, "The server does not take the WebSocket."),
    (failure) => failure,
  );
}

function openEvents(client, query, on) {
  const ending = new AbortController();
  follow(client, query, on, ending).then(
    () => on.end(new VelmoraError(0, "The feed ended.")),
    (failure) => on.end(failure instanceof VelmoraError ? failure : new VelmoraError(0, failure.cause?.message ?? failure.message)),
  );
  return () => ending.abort();
}

async function follow(client, query, on, ending) {
  const headers = { Accept: "text/event-stream", ...client.authorization() };
  const response = await client.send(client.url(`/feed?${query}`), { headers, cache: "no-store", signal: ending.signal });
  if (!response.ok) throw refusal(response, await response.text());
  const reader = response.body.pipeThrough(new TextDecoderStream()).getReader();
  let rest = "";
  for (;;) {
    const silence = setTimeout(() => ending.abort(new Error("The feed has gone silent.")), SILENCE_MS);
    const { done, value } = await reader.read().finally(() => clearTimeout(silence));
    if (done) return;
    const events = (rest + value).split("\n\n");
    rest = events.pop();
    for (const event of events) takeEvent(client, event, on);
  }
}

function takeEvent(client, event, on) {
  let id = "";
  let type = "";
  const data = [];
  for (const line of event.split("\n")) {
    if (line.startsWith("id:")) id = line.slice(3).trim();
    else if (line.startsWith("event:")) type = line.slice(6).replace(/^ /, "");
    else if (line.startsWith("data:")) data.push(line.slice(5).replace(/^ /, ""));
  }
  if (data.length === 0) return; // a heartbeat
  const text = data.join("\n");
  const content = client.parse(text);
  on.message(type === "velmora.hello" ? content : { id, posting: content, text });
}
