// What the browser tests stand on: a real server of their own, a browser, and requests beside the page.

import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { createServer } from "node:http";
import net from "node:net";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { chromium } from "playwright-core";

const FLAGS = ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
  "--disable-component-update", "--disable-sync"];

export const openBrowser = () => chromium.launch({ executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium", args: FLAGS });

/// A server on a free port with a directory of its own.
export class Server {
  constructor(config = {}) {
    this.directory = mkdtempSync(join(tmpdir(), "velmora-console-"));
    this.token = config.AccessToken;
    this.file = join(this.directory, "config.json");
    this.listen = "127.0.0.1:0";
    writeFileSync(this.file, JSON.stringify({ StateFile: join(this.directory, "state.json"), ...config }));
  }

  async start() {
    this.process = spawn(process.env.VELMORA_SERVER, ["--config", this.file, "--listen", this.listen, "--log-level", "error"],
      { stdio: ["ignore", "pipe", "pipe"] });
    this.log = "";
    this.process.stderr.setEncoding("utf8").on("data", (text) => (this.log += text));
    for await (const line of createInterface({ input: this.process.stdout })) {
      const url = /^Listening on (http\S+)/.exec(line)?.[1];
      if (!url) continue;
      this.url = url;
      this.listen = new URL(url).host; // a restart takes the same port
      this.process.stdout.resume();
      return this;
    }
    throw new Error(`The server ended before it listened: ${this.log}`);
  }

  async stop(signal = "SIGTERM") {
    if (this.process.exitCode !== null || this.process.signalCode !== null) return;
    const ended = once(this.process, "exit");
    this.process.kill(signal);
    await ended;
  }

  async close() {
    await this.stop();
    rmSync(this.directory, { recursive: true, force: true });
  }

  async request(method, path, body) {
    const headers = { ...(body !== undefined && { "Content-Type": "application/json" }), ...(this.token && { Authorization: `Bearer ${this.token}` }) };
    const response = await fetch(`${this.url}/api/v1${path}`, { method, headers, body: body === undefined ? undefined : JSON.stringify(body) });
    if (!response.ok) throw new Error(`${method} ${path}: ${response.status} ${await response.text()}`);
    return response.status === 204 ? null : response.json();
  }

  event = (name, listeners = [], data = undefined) =>
    this.request("POST", "/queue", { event_list: [{ event_name: name, event_data: data, listener_list: listeners }] });
  post = (name, data) => this.request("POST", `/events/${encodeURIComponent(name)}`, data);
}

/// Posts an event `perSecond` times a second for `seconds`, many requests to one write, and resolves with the number
/// of postings that the server accepted.
export function postMany(server, name, perSecond, seconds) {
  const { hostname, port, host } = new URL(server.url);
  const socket = net.connect(Number(port), hostname);
  const total = perSecond * seconds;
  let [sent, answered, rest] = [0, 0, ""];
  const started = Date.now();
  const timer = setInterval(() => {
    const due = Math.min(total, Math.floor(((Date.now() - started) / 1000) * perSecond));
    let batch = "";
    for (; sent < due; sent += 1) {
      const body = `{"number":${sent}}`;
      batch += `POST /api/v1/events/${name} HTTP/1.1\r\nHost: ${host}\r\nContent-Type: application/json\r\nContent-Length: ${body.length}\r\n\r\n${body}`;
    }
    if (batch) socket.write(batch);
    if (sent === total) clearInterval(timer);
  }, 10);
  return new Promise((resolve, reject) => {
    socket.on("error", reject);
    socket.on("close", () => reject(new Error(`The connection ended after ${answered} answers.`)));
    socket.on("data", (data) => {
      const text = rest + data.toString("latin1");
      answered += text.split("HTTP/1.1 202").length - 1;
      rest = text.slice(text.lastIndexOf("HTTP/1.1 202") < text.length - 12 ? -11 : text.length);
      if (answered < total) return;
      socket.destroy();
      resolve(answered);
    });
  });
}

/// Something for listeners to call.
export async function listen(handler) {
  const target = createServer(handler).listen(0, "127.0.0.1");
  await once(target, "listening");
  target.url = `http://127.0.0.1:${target.address().port}`;
  return target;
}

/// A way to the server whose connections can be cut while the server lives on.
export async function cuttable(url) {
  const { hostname, port } = new URL(url);
  const ends = new Set();
  const way = net.createServer((near) => {
    const far = net.connect(Number(port), hostname);
    for (const [end, other] of [[near, far], [far, near]]) {
      ends.add(end);
      end.on("error", () => {}).on("close", () => ends.delete(end) && other.destroy()).pipe(other);
    }
  }).listen(0, "127.0.0.1");
  await once(way, "listening");
  const cut = () => ends.forEach((end) => end.destroy());
  const close = () => way.close() && cut();
  return { url: `http://127.0.0.1:${way.address().port}`, cut, close };
}

/// Opens the console in a context of its own. `page.faults` collects what the browser complains about.
export async function openConsole(browser, server, { area = "live", ready = true, url = server.url, ...options } = {}) {
  const context = await browser.newContext({ timezoneId: "Europe/Berlin", viewport: { width: 1366, height: 800 }, ...options });
  await context.grantPermissions(["clipboard-read", "clipboard-write"]).catch(() => {});
  const page = await context.newPage();
  page.setDefaultTimeout(20000);
  page.faults = [];
  page.on("console", (message) => ["error", "warning"].includes(message.type()) && page.faults.push(message.text()));
  page.on("pageerror", (error) => page.faults.push(error.stack));
  await page.goto(`${url}/#/${area}`);
  if (ready) await isLive(page);
  return page;
}

export const isLive = (page) => page.locator('#connection[data-state="open"]').waitFor();

/// Requests that the server refuses or cannot answer are the browser's to mention, and not a fault of the page.
export const realFaults = (page) => page.faults.filter((fault) => !/^Failed to load resource|^WebSocket connection to/.test(fault));
