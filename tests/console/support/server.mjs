// A server that answers what a test wants, and remembers what it was asked.

export const asked = []; // {method, url, body, headers}
export const state = { event_list: [], timer_list: [], watch_list: [], max_listeners: 1024, max_watches: 1024 };
export const sockets = [];
export const server = { up: true, status: {}, deliveries: [], failing: undefined, one: {}, history: "[]", token: "", expired: 0, uptime: 100, queue: null };

const json = (body, status = 200) => new Response(typeof body === "string" ? body : JSON.stringify(body), { status, headers: { "Content-Type": "application/json" } });

globalThis.fetch = async (url, { method = "GET", body, headers = {}, signal } = {}) => {
  if (!server.up) throw new TypeError("fetch failed");
  const { pathname, search } = new URL(url, location.href);
  if (method !== "GET") asked.push({ method, url: pathname + search, body, headers, signal });
  if (pathname === "/healthz") return json({ version: "1.0.0", uptime_sec: server.uptime });
  if (pathname === "/readyz") return json({ ready: true, checks: {} });
  if (pathname === "/metrics") return new Response(`velmora_feed_clients 1\nvelmora_timers_expired_total ${server.expired}\n`);
  if (server.token && headers.Authorization !== `Bearer ${server.token}`) return json({ title: "Unauthorized" }, 401);
  const name = pathname.replace("/api/v1/", "");
  if (server.status[name]) return json({ detail: server.refusal ?? `no ${name}`, errors: server.refusal ? [] : [{ pointer: "/a", detail: "wrong" }] }, server.status[name]);
  if (method === "GET" && name === "queue") return json(server.queue ?? state);
  if (name === "deliveries") return json({ deliveries: server.deliveries, failing: server.failing });
  if (method === "GET" && name in server.one) return json(server.one[name]);
  if (name === "history") return json(`{"history":${server.history},"last_id":"e-0"}`);
  if (method === "DELETE") return new Response(null, { status: 204 });
  return json({ id: "new", ...state });
};

globalThis.WebSocket = class {
  static OPEN = 1;
  readyState = 0;

  constructor(url, protocols) {
    Object.assign(this, { url: String(url), protocols });
    sockets.push(this);
  }

  /// Opens it where the feed stands at `id`.
  async open(id = "e-0", gap = false) {
    this.readyState = 1;
    this.onopen();
    this.onmessage({ data: `{"id":"${id}","gap":${gap}}` });
  }

  close() {
    this.readyState = 3;
    this.onclose?.({ code: 1006, reason: "" });
  }
};
