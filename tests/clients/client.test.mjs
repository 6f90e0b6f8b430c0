// The client library for browsers and Node.js against a real server, over server-sent events; over WebSockets, tests/browser.
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { after, before, test } from "node:test";

import { Client, VelmoraError } from "../../clients/velmora.mjs";

const TOKEN = "a-token-of-the-test";
const PATIENCE_MS = 30000;

class Server {
  folder = mkdtempSync(join(tmpdir(), "velmora-client-"));
  port = 0;

  async start() {
    const config = join(this.folder, "config.json");
    const events = ["a.1", "b"].map((event_name) => ({ event_name }));
    writeFileSync(config, JSON.stringify({ BindAddress: { ListenPort: this.port }, AccessToken: TOKEN, EventManager: { event_list: events } }));
    this.process = spawn(process.env.VELMORA_SERVER, ["--config", config], { stdio: ["ignore", "pipe", "ignore"] });
    this.ended = new Promise((resolve) => this.process.once("exit", resolve));
    await new Promise((resolve, reject) => {
      this.process.once("exit", () => reject(new Error("the server did not start")));
      createInterface(this.process.stdout).on("line", (line) => {
        const found = /Listening on (http:\/\/[^:]+:(\d+))/.exec(line);
        if (found) resolve(([, this.url, this.port] = [found[0], found[1], Number(found[2])]));
      });
    });
  }

  async kill() {
    this.process.kill("SIGKILL");
    await this.ended;
  }
}

const server = new Server();
before(() => server.start());
after(async () => {
  await server.kill();
  rmSync(server.folder, { recursive: true });
});

const client = () => new Client(server.url, { token: TOKEN, WebSocket: null });

async function eventually(condition, what) {
  for (const deadline = Date.now() + PATIENCE_MS; ; ) {
    const found = await condition();
    if (found) return found;
    assert.ok(Date.now() < deadline, `not in time: ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 10));
  }
}

test("posts, and says why it was refused", async () => {
  const id = await client().post("a.1", { n: 1 });
  assert.match(id, /^.+-\d+$/);
  await client().post("b");
  const { history } = await client().history({ after: id });
  assert.deepEqual(history.map((posting) => posting.event_name), ["b"]);
  const refused = await client().request("POST", "/timers", { event_name: 5 }).catch((failure) => failure);
  assert.ok(refused instanceof VelmoraError);
  assert.equal(refused.status, 422);
  assert.equal(refused.errors[0].pointer, "/event_name");
  const alone = await new Client("http://127.0.0.1:1").post("a.1").catch((failure) => failure);
  assert.equal(alone.status, 0);
});

test("follows some events from an id on, in order, across a restart, and tells of the gap", async () => {
  const start = await client().post("b");
  const got = [];
  const gaps = [];
  const feed = client().follow({ events: ["a.*"], after: start, onPosting: (message) => got.push(message), onGap: (gap) => gaps.push(gap) });
  const posted = [];
  for (let n = 0; n < 50; n += 1) {
    posted.push(await client().post("a.1", { n }));
    await client().post("b");
  }
  await eventually(() => got.length === posted.length, "all are there");
  assert.deepEqual(got.map(({ id }) => id), posted);
  assert.deepEqual(got.map(({ posting }) => posting.post_data.n), posted.map((_, n) => n));
  await server.kill();
  await eventually(() => feed.state === "waiting", "it notices");
  await server.start();
  await eventually(() => feed.state === "open", "it is back");
  const behind = await client().post("a.1");
  await eventually(() => got.at(-1).id === behind, "it goes on");
  assert.equal(gaps.length, 1, "a restart begins a new epoch");
  assert.equal(gaps[0].after, posted.at(-1));
  feed.close();
});

test("is iterated over, and ends when it is closed", async () => {
  const feed = client().follow({ after: await client().post("b") });
  for (let n = 0; n < 3; n += 1) await client().post("a.1", { n });
  const seen = [];
  for await (const { posting } of feed) {
    seen.push(posting.post_data.n);
    if (seen.length === 3) break;
  }
  assert.deepEqual(seen, [0, 1, 2]);
  assert.equal(feed.state, "closed");
});

test("says what it waits for where it is refused", async () => {
  const feed = new Client(server.url, { token: "wrong", WebSocket: null }).follow();
  await eventually(() => feed.state === "waiting", "it waits");
  assert.equal(feed.failure.status, 401);
  feed.close();
});
