// Requests to the server. Every failure arrives as an ApiError whose message can be shown as it is.

import { askForToken, token } from "./session.js";
import { learnServerTime } from "./time.js";

export const PREFIX = "/api/v1";
const TIMEOUT_MS = 15000;

export class ApiError extends Error {
  constructor(status, message, errors = []) {
    super(message);
    this.status = status; // 0: no answer
    this.errors = errors; // [{pointer, detail}]
  }
}

/// The path of one element below a collection: path("events", "a/b", "listeners") is "/api/v1/events/a%2Fb/listeners".
/// Browsers resolve "." and ".." however they are written, and an empty name is no segment at all.
export function path(...segments) {
  for (const segment of segments) {
    if (segment === "" || segment === "." || segment === "..") {
      throw new ApiError(0, `A browser cannot address the name “${segment}” in a URL. Use another client for it.`);
    }
  }
  return `${PREFIX}/${segments.map(encodeURIComponent).join("/")}`;
}

/// Sends one request and returns {status, data, headers}. `body` is encoded as JSON where it is not undefined.
/// Asks for the token and repeats where the server wants one.
export async function request(method, url, body = undefined, headers = {}) {
  for (;;) {
    const used = token();
    const response = await send(method, url, body, { ...headers, ...(used && { Authorization: `Bearer ${used}` }) });
    learnServerTime(response.headers.get("Date"));
    if (response.status === 401) {
      await askForToken(used);
      continue;
    }
    const data = await readBody(response);
    if (response.ok || response.status === 304) return { status: response.status, data, headers: response.headers };
    throw problem(response, data);
  }
}

export const get = (url, headers) => request("GET", url, undefined, headers);
export const post = (url, body) => request("POST", url, body);
export const remove = (url) => request("DELETE", url);

async function send(method, url, body, headers) {
  try {
    return await fetch(url, {
      method,
      headers: body === undefined ? headers : { ...headers, "Content-Type": "application/json" },
      body: body === undefined ? undefined : JSON.stringify(body),
      cache: "no-store",
      signal: AbortSignal.timeout(TIMEOUT_MS),
    });
  } catch (failure) {
    if (failure.name === "TimeoutError") throw new ApiError(0, "The server did not answer in time.");
    throw new ApiError(0, "The server cannot be reached.");
  }
}

async function readBody(response) {
  const text = await response.text().catch(() => {
    throw new ApiError(0, "The connection ended in the middle of the answer.");
  });
  if (!/json/.test(response.headers.get("Content-Type") ?? "")) return text;
  try {
    return JSON.parse(text);
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
