// The whole console on a page and against a server that are both pretended.
import { pass, settle } from "./support/clock.mjs";
import { byId, texts, turnTo } from "./support/page.mjs";
import { asked, server, sockets, state } from "./support/server.mjs";
import assert from "node:assert/strict";
import { beforeEach, it } from "node:test";

const NUMBERS = '{"10":9007199254740993,"2":1.0,"1":1e400}';
const stamp = () => `${new Date(Date.now()).toISOString().slice(0, 19)}+00:00`;
const posting = (name, data) => `{"event_name":"${name}","timestamp":"${stamp()}","post_data":${data},"event_data":{}}`;
const button = (text, within = document) => within.querySelectorAll("button").find((each) => each.textContent === text || each.getAttribute("aria-label") === text);
const answer = async (text) => {
  button(text, byId("confirm")).click();
  await settle();
};
const last = () => asked.at(-1);
const feed = async (...messages) => {
  for (const data of messages) sockets.at(-1).onmessage({ data });
  await pass(1200);
};

beforeEach(() => {
  asked.length = 0;
  byId("toasts").replaceChildren();
});

it("connects, reads and shows", async () => {
  server.history = `[${posting("before", "{}")}]`;
  await import("../../console/app.js");
  await settle();
  assert.equal(sockets.length, 1);
  assert.equal(sockets[0].url, "ws://127.0.0.1:8080/api/v1/feed");
  assert.deepEqual(sockets[0].protocols, ["velmora.feed.v1"]);
  await sockets[0].open();
  await pass(100);
  assert.equal(byId("connection").textContent, "Live");
  assert.deepEqual(texts("#stream .name"), ["before"]);
  assert.equal(byId("ready").textContent, "Ready");
  assert.equal(byId("version").textContent, "1.0.0");
  assert.equal(byId("watch-use").textContent, "0 / 1,024");
});

it("shows what was posted as it is, and sends it again so", async () => {
  await feed(posting("door", NUMBERS));
  assert.equal(texts("#stream .gist")[0], NUMBERS);
  const details = byId("stream").querySelector("details");
  details.open = true;
  assert.match(details.querySelector("pre").textContent, /"10": 9007199254740993,\n {4}"2": 1\.0,\n {4}"1": 1e400/);
  button("Copy", details).click();
  await settle();
  assert.match(globalThis.copied, /"10": 9007199254740993,/);
  button("Post again…", details).click();
  byId("post-form").submit();
  await settle();
  assert.deepEqual([last().url, last().body], ["/api/v1/events/door", NUMBERS]);
  button("Copy as curl", byId("post-form")).click();
  await settle();
  assert.ok(globalThis.copied.endsWith(`--data-binary '${NUMBERS}'`));
  await feed(posting("door", '{"held":1}'));
  assert.match(byId("stream-note").textContent, /^Held while you read\. 1 new posting since\./);
  details.open = false;
  assert.equal(texts("#stream .gist")[0], '{"held":1}');
  byId("filter-text").fill("HELD");
  assert.equal(texts("#stream .gist").length, 1);
  byId("filter-text").fill("");
  assert.equal(texts("#stream .gist").length, 3);
});

it("says where data is wrong and sends nothing", async () => {
  const [data] = byId("post-data").querySelectorAll("textarea");
  byId("post-name").fill("door");
  data.fill('{"a":1,\n"a":2}');
  byId("post-form").submit();
  await settle();
  assert.equal(asked.length, 0);
  assert.match(byId("post-data").textContent, /Line 2, column 1: This name stands/);
  assert.deepEqual(data.selection, [8, 9]);
  data.fill('{"b": 1.0}');
  button("Tidy", byId("post-data")).click();
  assert.equal(data.value, '{\n  "b": 1.0\n}');
  server.status["events/door"] = 404;
  byId("post-form").submit();
  await settle();
  assert.match(byId("post-outcome").textContent, /^no events\/door/);
  server.status = {};
  button("Create it and post").click();
  await settle();
  assert.deepEqual(asked.slice(-2).map(({ url, body }) => [url, body]), [["/api/v1/events", '{"event_name":"door"}'], ["/api/v1/events/door", '{"b":1.0}']]);
});

it("leaves out what comes faster than anyone reads, and says how much", async () => {
  const before = byId("stream").children.length;
  await feed(...Array.from({ length: 100 }, (_, i) => posting("flood", `{"n":${i}}`)));
  assert.equal(byId("stream").children.length, before + 9);
  assert.match(byId("stream-note").textContent, /^92 postings left out/);
  assert.equal(texts("#stream .gist")[0], '{"n":99}');
  byId("stream-pause").click();
  assert.equal(texts("#stream .gist").filter((text) => text.includes('"n"')).length, 100);
  byId("stream-pause").click();
  assert.match(texts("#rates li").join(), /flood/);
});

it("fills in what was missed, once, and waits longer each time until a connection lasts", async () => {
  const lines = () => byId("stream").children.map((row) => row.querySelector(".gist")?.textContent ?? row.textContent);
  const [known, missed] = [posting("door", '{"known":1}'), posting("door", '{"missed":1}')];
  await feed(known);
  const pauses = [];
  const lose = async () => {
    const [count, lostAt] = [sockets.length, Date.now()];
    sockets.at(-1).close();
    while (sockets.length === count) await pass(50);
    pauses.push(Date.now() - lostAt);
  };
  await lose();
  server.history = `[${known},${missed},${missed}]`;
  await sockets.at(-1).open();
  await pass(1000);
  assert.deepEqual(lines().filter((text) => text.includes("missed")).map((text) => text.replace(/.*: /, "")),
    ["missed", "missed", "2 missed postings were filled in from the history."].map((text) => (text === "missed" ? '{"missed":1}' : text)));
  server.history = "[]";
  for (let i = 0; i < 6; i += 1) await lose(); // none of them opens
  for (const [i, pause] of [500, 1000, 2000, 4000, 8000, 10000, 10000].entries()) {
    assert.ok(pauses[i] >= pause * 0.8 && pauses[i] <= pause * 1.2 + 150, `${pauses}`);
  }
  await sockets.at(-1).open();
  await pass(6000);
  pauses.length = 0;
  await lose();
  assert.ok(pauses[0] <= 750, `${pauses}`);
  await sockets.at(-1).open();
  await pass(100);
  await lose();
  assert.ok(pauses[1] >= 800, `${pauses}`); // one that ends at once changes nothing
  server.up = false;
  sockets.at(-1).close();
  await pass(100);
  assert.match(byId("connection").textContent, /^Not connected, again in/);
  assert.match(document.title, /^\(offline\)/);
  server.up = true;
  const count = sockets.length;
  byId("reconnect").click();
  await settle();
  assert.equal(sockets.length, count + 1);
  await sockets.at(-1).open();
  await pass(6000);
});

it("creates events and listeners, and says which of them fails", async () => {
  turnTo("events");
  byId("event-name").fill("a/b");
  byId("event-data").querySelector("textarea").fill(NUMBERS);
  byId("event-form").submit();
  await settle();
  assert.equal(last().body, `{"event_name":"a/b","event_data":${NUMBERS}}`);
  state.event_list = [
    { event_name: "a/b", event_data: {}, listener_list: [{ id: "1", callback: "https://x/1", listener_data: { n: 1 } }, { id: "2", callback: "https://x/2", listener_data: {} }, { id: "3", callback: "python://m" }] },
    { event_name: "door", event_data: {}, listener_list: [] }];
  server.deliveries = [[2, 200], [1, 500]].map(([sequence, status]) => ({ sequence, time: stamp(), method: "POST", url: "https://x/1", status, outcome: "ok", duration_ms: 5, reason: "" }));
  await pass(5000);
  const card = byId("event-list").firstElementChild;
  assert.deepEqual([byId("failing").hidden, card.classList.contains("failing"), ...texts("#event-list .kind")], [true, false, "POST", "GET", "Python"]);
  server.deliveries = [{ ...server.deliveries[0], sequence: 3, status: 0, outcome: "failed", reason: "Timeout" }, ...server.deliveries];
  await pass(5000);
  assert.deepEqual([byId("failing").textContent, document.title, card.classList.contains("failing")], ["1 listener failing", "(1 failing) Velmora events", true]);
  assert.match(card.textContent, /Failed no answer5 ms.*Timeout/);
  server.deliveries = server.deliveries.slice(1);
  await pass(5000);
  assert.equal(byId("failing").hidden, true);

  button("Add listener to a/b").click();
  const form = card.querySelector("form");
  const [callback] = form.querySelectorAll("input");
  assert.match(form.textContent, /Without data it is called with GET/);
  callback.fill(" https://x/3 ");
  form.querySelector("textarea").fill(NUMBERS);
  assert.match(form.textContent, /Is called with POST/);
  form.submit();
  await settle();
  assert.deepEqual([last().url, last().body], ["/api/v1/events/a%2Fb/listeners", `{"callback":"https://x/3","listener_data":${NUMBERS}}`]);
  button("Delete listener https://x/2").click();
  await answer("Keep");
  assert.equal(last().method, "POST");
  button("Delete listener https://x/2").click();
  await answer("Delete");
  assert.deepEqual([last().method, last().url], ["DELETE", "/api/v1/events/a%2Fb/listeners/2"]);
  button("Delete a/b").click();
  assert.match(byId("confirm-text").textContent, /^Its 3 listeners go with it/);
  await answer("Delete");
  assert.deepEqual([last().method, last().url], ["DELETE", "/api/v1/events/a%2Fb"]);
  byId("events-find").fill("X/2");
  assert.deepEqual(texts("#event-list h3"), ["a/b"]);
  byId("events-find").fill("");
});
