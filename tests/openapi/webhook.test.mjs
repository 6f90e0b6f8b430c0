// What listeners are sent is verified by a library of Standard Webhooks, also while a secret is being exchanged.

import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { createServer } from "node:http";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { test } from "node:test";
import { Webhook } from "standardwebhooks";

const [OLD, NEW] = ["k", "z"].map((letter) => `whsec_${Buffer.from(letter.repeat(32)).toString("base64")}`);

/// The calls that a listener gets, and the first two of them refused.
async function listen() {
  const calls = [];
  const listener = createServer(async (request, response) => {
    let body = "";
    for await (const part of request.setEncoding("utf8")) body += part;
    calls.push({ headers: request.headers, body });
    response.writeHead(calls.length < 3 ? 503 : 200).end();
    listener.emit("call");
  }).listen(0, "127.0.0.1");
  await once(listener, "listening");
  return { listener, calls, url: `http://127.0.0.1:${listener.address().port}/hook` };
}

async function serve(folder, config) {
  writeFileSync(join(folder, "config.json"), JSON.stringify(config));
  const server = spawn(process.env.VELMORA_SERVER, ["--config", join(folder, "config.json"), "--listen", "127.0.0.1:0", "--log-level", "crit"],
    { stdio: ["ignore", "pipe", "inherit"] });
  for await (const line of createInterface({ input: server.stdout })) {
    const url = /^Listening on (http\S+)/.exec(line)?.[1];
    if (url) return { server, url };
  }
  throw new Error("The server ended before it listened.");
}

test("signatures", async () => {
  const folder = mkdtempSync(join(tmpdir(), "velmora-webhook-"));
  const { listener, calls, url: callback } = await listen();
  const { server, url } = await serve(folder, {
    Destinations: [{ Match: callback, Attempts: 3, Backoff_ms: 1, SigningSecret: `${NEW} ${OLD}` }],
    EventManager: { event_list: [{ event_name: "e", listener_list: [{ callback, listener_data: { l: "é" } }] }] } });
  try {
    await fetch(`${url}/api/v1/events/e`, { method: "POST", headers: { "Content-Type": "application/json" }, body: '{"n": 1}' });
    while (calls.length < 3) await once(listener, "call");
    assert.equal(new Set(calls.map(({ headers }) => headers["webhook-id"])).size, 1);
    for (const { headers, body } of calls) {
      for (const secret of [OLD, NEW]) assert.deepEqual(new Webhook(secret).verify(body, headers).post_data, { n: 1 });
      assert.throws(() => new Webhook(OLD).verify(body.replace("1", "2"), headers));
      assert.throws(() => new Webhook(`whsec_${Buffer.from("x".repeat(32)).toString("base64")}`).verify(body, headers));
    }
  } finally {
    const ended = once(server, "exit");
    server.kill("SIGTERM");
    await ended;
    listener.close();
    rmSync(folder, { recursive: true, force: true });
  }
});
