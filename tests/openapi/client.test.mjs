// The compiled calls against a real server.

import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { after, before, test } from "node:test";
import { connect, document, eventsAndListeners, operations, timersAndWatches } from "./client.js";

const folder = mkdtempSync(join(tmpdir(), "velmora-openapi-"));
let server, api;

before(async () => {
  const config = join(folder, "config.json");
  writeFileSync(config, JSON.stringify({ StateFile: join(folder, "state.json") }));
  server = spawn(process.env.VELMORA_SERVER, ["--config", config, "--listen", "127.0.0.1:0", "--log-level", "error"],
    { stdio: ["ignore", "pipe", "inherit"] });
  for await (const line of createInterface({ input: server.stdout })) {
    const url = /^Listening on (http\S+)/.exec(line)?.[1];
    if (!url) continue;
    api = connect(url.replace(/\/$/, ""));
    server.stdout.resume();
    return;
  }
  throw new Error("The server ended before it listened.");
});

after(async () => {
  const ended = once(server, "exit");
  server.kill("SIGTERM");
  await ended;
  rmSync(folder, { recursive: true, force: true });
});

test("events and listeners", async () => {
  assert.deepEqual(await eventsAndListeners(api), {
    event: ["a/b é", "storage", 0],
    listener: [true, "/healthz", 1],
    posted: true,
    history: [["a/b é", ["thing"], "storage"], ["a/b é", undefined, "storage"]],
    listed: ["/HEALTHZ"],
  });
});

test("timers and watches", async () => {
  assert.deepEqual(await timersAndWatches(api, folder), {
    timers: [2, 3, "2099"],
    warnings: 0,
    watches: [[folder, false, { deep: 1 }]],
  });
});

test("a document that was answered is taken", async () => {
  assert.deepEqual(await document(api), [1, 1, 1024 + 4096, "string"]);
});

test("operations", async () => {
  assert.deepEqual(await operations(api), {
    health: ["alive", true],
    ready: [true, true, true],
    metrics: true,
    deliveries: true,
    problem: [422, "/event_name"],
  });
});
