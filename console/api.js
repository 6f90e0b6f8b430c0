// Requests to the server. Every failure arrives as an ApiError whose message can be shown as it is.

import { parse, write } from "./json.js";
import { askForToken, token } from "./session.js";
import { learnServerTime } from "./time.js";

/// What a proxy puts in front of the server's paths; the page's own path says it.
export const BASE = new URL(".", location.href).pathname.replace(/\/$/, "");
export const PREFIX = `${BASE}/api/v1`;
const PATIENCE_MS = 15000;

export class ApiError extends Error {
  constructor(status, message, errors = []) {
    super(message);
    this.status = status; // 0: no answer
    this.errors = errors; // [{pointer, detail}]
  }
}

/// Percent-encodes a name, byte for byte: one that is no UTF-8 holds U+DC80 to U+DCFF in the place of such bytes.
export const encodeName = (name) => name.replaceAll(/[\udc80-\udcff]|[^\udc80-\udcff]+/gu, (part) =>
  /[\udc80-\udcff]/u.test(part) ? `%${(part.charCodeAt(0) & 0xff).toString(16).toUpperCase()}` : encodeURIComponent(part));

/// The path of one element below a collection: path("events", "a/b", "listeners") is "/api/v1/events/a%2Fb/listeners".
/// Browsers resolve "." and ".." however they are written, and an empty name is no segment at all.
export function path(...segments) {
  for (const segment of segments) {
    if (segment === "" || segment === "." || segment === "..") {
      throw new ApiError(0, `A browser cannot address the name “${segment}” in a URL. Use another client for it.`);
    }
  }
  return `${PREFIX}/${segments.map(encodeName).join("/")}`;
}

/// Sends one request and returns {status, data, text, headers}: `data` is what the JSON text holds. `body` is encoded as
/// JSON where it is not undefined. `patience` is how many milliseconds the server has; 0 is any time.
/// Asks for the token and repeats where the server wants one.
export async function request(method, url, body = undefined, { headers = {}, patience = PATIENCE_MS } = {}) {
  for (;;) {
    const used = token();
    const response = await send(method, url, body, { ...headers, ...(used && { Authorization: `Bearer ${used}` }) }, patience);
    learnServerTime(response.headers.get("Date"));
    if (response.status === 401) {
      await askForToken(used);
      continue;
    }
    const text = await response.text().catch((failure) => {
      throw unanswered(method, failure, "The connection ended in the middle of the answer.");
    });
    const data = content(response, text);
    if (response.ok || response.status === 304) return { status: response.status, data, text, headers: response.headers };
    throw problem(response, data);
  }
}

export const get = (url, options) => request("GET", url, undefined, options);
export const post = (url, body, options) => request("POST", url, body, options);
export const remove = (url) => request("DELETE", url);

async function send(method, url, body, headers, patience) {
  try {
    return await fetch(url, {
      method,
      headers: body === undefined ? headers : { ...headers, "Content-Type": "application/json" },
      body: body === undefined ? undefined : write(body),
      cache: "no-store",
      signal: patience ? AbortSignal.timeout(patience) : undefined,
    });
  } catch (failure) {
    throw unanswered(method, failure, "The server cannot be reached.");
  }
}

function unanswered(method, failure, otherwise) {
  if (failure.name !== "TimeoutError") return new ApiError(0, otherwise);
  return new ApiError(0, `The server did not answer in time${method === "GET" ? "." : "; it may still do what was asked."}`);
}

function content(response, text) {
  if (!/json/.test(response.headers.get("Content-Type") ?? "")) return text;
  try {
    return parse(text);
  } catch {
    return text;
  }
}

function problem(response, data) {
  const known = typeof data === "object" && data !== null ? data : {};
  const errors = Array.isArray(known.errors) ? known.errors : [];
  const detail = known.detail || known.title || response.statusText || "The server refused the request.";
  const lines = errors.map((error) => `${error.pointer || "/"}: ${error.detail}`);
  return new ApiError(response.status, [detail, ...lines.slice(0, 5)].join("\n"), errors);
}
