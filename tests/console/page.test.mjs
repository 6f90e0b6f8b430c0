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
let posted = 0;
const feed = async (...postings) => {
  for (const text of postings) sockets.at(-1).onmessage({ data: `{"id":"e-${(posted += 1)}","posting":${text}}` });
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
  assert.equal(sockets[0].url, "ws://127.0.0.1:8080/api/v1/feed?after=e-0");
  assert.deepEqual(sockets[0].protocols, ["velmora.feed.v2"]);
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
  assert.match(sockets.at(-1).url, new RegExp(`after=e-${posted}$`));
  await sockets.at(-1).open(`e-${posted + 2}`);
  await feed(missed, missed);
  assert.deepEqual(lines().filter((text) => text.includes("missed")).map((text) => text.replace(/.*: /, "")),
    ["missed", "missed", "2 missed postings were filled in from the history."].map((text) => (text === "missed" ? '{"missed":1}' : text)));
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

it("shows the calls that one asks for, also when the server counts anew", async () => {
  turnTo("deliveries");
  const call = (sequence, path, status, duration_ms) => ({ sequence, time: stamp(), method: "POST", url: `https://x/${path}`, status, outcome: status === 200 ? "ok" : "failed", duration_ms, reason: "" });
  server.deliveries = [call(3, "slow", 200, 250), call(2, "bad", 500, 249), call(1, "Good", 200, 1)];
  await pass(5000);
  const shown = () => texts("#delivery-rows code").map((text) => text.slice(10));
  assert.deepEqual([shown(), byId("delivery-slow").textContent, byId("nav-deliveries").textContent], [["slow", "bad", "Good"], "1", "1"]);
  const choose = (value) => byId("delivery-filters").querySelector(`input[value="${value}"]`).check();
  choose("failed");
  assert.deepEqual(shown(), ["bad"]);
  choose("slow");
  assert.deepEqual(shown(), ["slow"]);
  byId("delivery-threshold").fill("100");
  assert.deepEqual(shown(), ["slow", "bad"]);
  choose("all");
  byId("delivery-text").fill("gOOD");
  assert.deepEqual(shown(), ["Good"]);
  byId("delivery-text").fill("");
  await pass(5 * 60 * 1000);
  server.deliveries = [call(3, "three", 200, 1), call(2, "two", 200, 1), call(1, "one", 200, 1)];
  await pass(5000);
  assert.deepEqual([shown(), byId("nav-deliveries").textContent], [["three", "two", "one"], ""]);
  server.deliveries = [];
  await pass(5000);
});

it("shows a token that is for some events what belongs to those, and says so", async () => {
  const narrow = 'The token "a" is for the events order.* only, and this is about all that the server has.';
  const before = state.event_list;
  server.status = { queue: 403, config: 403, deliveries: 403 };
  server.one = { events: { event_list: [{ event_name: "order.new", event_data: {}, listener_list: [] }] }, timers: { timer_list: [] }, watches: { watch_list: [] } };
  server.refusal = narrow;
  const offered = () => document.querySelectorAll(".rail a").filter((link) => !link.hidden).length;
  await pass(5000);
  assert.equal(byId("narrowed").textContent, `${narrow} Shown is what belongs to those events.`);
  turnTo("events");
  assert.match(byId("event-list").textContent, /order\.new/);
  assert.deepEqual([offered(), byId("limits-open").hidden, byId("watch-use").textContent], [4, true, "0 / –"]);
  sockets.at(-1).close(); // comes back all the same
  const connections = sockets.length;
  await pass(10000);
  assert.equal(sockets.length, connections + 1);
  await sockets.at(-1).open(`e-${posted}`);
  await pass(100);
  assert.equal(byId("connection").textContent, "Live");
  Object.assign(server, { status: {}, one: {}, refusal: undefined });
  state.event_list = before;
  await pass(5000);
  assert.deepEqual([byId("narrowed").textContent, offered(), byId("limits-open").hidden], ["", 6, false]);
});

it("judges listeners by their status where the server keeps deliveries, and lets one send again, dismiss and test", async () => {
  const before = state.event_list;
  const status = { outcome: "failed", time: stamp(), reason: "Answered with Bad Gateway.", failures_in_a_row: 3, retries_waiting: 1, calls: 9, failures: 4, duration_mean_ms: 7, duration_worst_ms: 12 };
  const call = (id, outcome, more) => ({ sequence: id, id: String(id), time: stamp(), method: "POST", url: "https://x/same", status: 502, outcome, duration_ms: 5, reason: "", attempt: 2, attempts: 5, ...more });
  state.event_list = [{ event_name: "e", event_data: {}, listener_list: [{ id: "a", callback: "https://x/same" }, { id: "p", callback: "python://m" }] },
    { event_name: "f", event_data: {}, listener_list: [{ id: "b", callback: "https://x/same" }] }];
  server.deliveries = [call(4, "ok", { status: 0, method: "CALL", url: "python://m", listener_id: "p" }), call(3, "ok", { status: 200, listener_id: "b" }), call(2, "dead", { listener_id: "a" }), call(1, "waiting", { listener_id: "a" })];
  server.failing = [{ event_name: "e", listener_id: "a", callback: "https://x/same", status }];
  server.one = { "deliveries/2": { ...server.deliveries[2], body: "{}", answer: "<b>no</b>", traceback: "" }, "events/e/listeners/a": { id: "a", callback: "https://x/same", status } };
  turnTo("events");
  await pass(5000);
  assert.deepEqual([byId("failing").textContent, ...texts("#event-list .badge")], ["1 listener failing", "Failed", "OK", "OK 200"]);
  assert.match(byId("event-list").textContent, /3 in a row1 retry waiting.*Answered with Bad Gateway/);
  button("Test listener python://m").click();
  await settle();
  assert.deepEqual([last().method, last().url], ["POST", "/api/v1/events/e/listeners/p/test"]);

  turnTo("deliveries");
  assert.deepEqual(texts("#delivery-rows .badge"), ["OK", "OK 200", "Dead 502", "Waiting 502"]);
  const radio = (value) => byId("delivery-filters").querySelector(`input[value="${value}"]`);
  assert.equal(byId("delivery-only-dead").hidden, false);
  radio("dead").check();
  assert.deepEqual(texts("#delivery-rows .badge"), ["Dead 502"]);
  button("Send again: https://x/same").click();
  await settle();
  assert.deepEqual([last().method, last().url], ["POST", "/api/v1/deliveries/2/resend"]);
  button("Dismiss: https://x/same").click();
  await settle();
  assert.deepEqual([last().method, last().url], ["DELETE", "/api/v1/deliveries/2"]);
  radio("all").check();
  [server.failing, server.deliveries, state.event_list] = [undefined, [], before];
  await pass(5000);
  assert.deepEqual([byId("failing").hidden, byId("delivery-only-dead").hidden], [true, true]);
});

it("sets timers at the time one means", async () => {
  turnTo("timers");
  const mode = (value) => byId("timer-form").querySelector(`input[value="${value}"]`).check();
  const create = async () => {
    byId("timer-form").submit();
    await settle();
    return last() && JSON.parse(last().body);
  };
  byId("timer-event").fill("door");
  byId("timer-seconds").fill("90");
  assert.match(byId("timer-explains").textContent, /^First fires 1 min 30 s after it is created, then every 1 min 30 s\.$/);
  assert.deepEqual(await create(), { event_name: "door", interval_sec: 90 });
  mode("in");
  const due = new Date(Date.now() + 90000).toISOString().slice(0, 19);
  assert.equal(byId("timer-explains").textContent, `Fires at ${due.replace("T", " ")} UTC.`);
  byId("timer-data").querySelector("textarea").fill(NUMBERS);
  assert.equal((await create()).start_time, `${due}+00:00`);
  assert.ok(last().body.endsWith(`"timer_data":${NUMBERS}}`));
  mode("at");
  byId("timer-at").fill("2001-01-01T00:00");
  assert.match(byId("timer-explains").textContent, /is past: the timer would be dropped/);
  byId("timer-at").fill("2199-07-01T12:00");
  assert.equal((await create()).start_time, `${new Date("2199-07-01T12:00").toISOString().slice(0, 19)}+00:00`);
  const before = asked.length;
  for (const [kind, value] of [["every", "0"], ["every", "1.5"], ["in", ""]]) {
    mode(kind);
    byId("timer-seconds").fill(value);
    await create();
  }
  assert.equal(asked.length, before);
  byId("timer-event").fill("nobody");
  assert.match(byId("timer-explains").textContent, /There is no event “nobody” now/);
});

it("counts down to the next firing, and names timers that came too late", async () => {
  const cells = () => document.querySelectorAll("#timer-rows tr").map((row) => row.children[1].textContent);
  server.queue = `{"event_list":[],"watch_list":[],"max_listeners":1,"max_watches":-1,"timer_list":[
    {"id":"1","event_name":"door","interval_sec":"60","timer_data":${NUMBERS}},{"id":"2","event_name":"door","interval_sec":"60"},
    {"id":"3","event_name":"door","start_time":"${new Date(Date.now() + 95000).toISOString().slice(0, 19)}+00:00"}]}`;
  await pass(5000);
  assert.equal(byId("watch-use").textContent, "0 / no limit");
  assert.deepEqual(cells().slice(0, 2), ["within 1 min", "within 1 min"]);
  assert.match(cells()[2], /^in 1 min (29|30|31) s$/);
  await feed(posting("door", NUMBERS));
  await pass(10000);
  assert.match(cells()[0], /^in (4[6789]|50) s$/);
  assert.equal(cells()[1], "within 1 min");
  await pass(100000);
  assert.equal(cells()[2], "fired or dropped");
  assert.equal(byId("timers-late").hidden, true);
  server.expired = 2;
  await pass(5100);
  assert.deepEqual([byId("expired").textContent, byId("timers-late").hidden, document.title], ["2 timers too late", false, "(2 too late) Velmora events"]);
  byId("timers-late-seen").click();
  assert.deepEqual([byId("expired").hidden, byId("timers-late").hidden, document.title], [true, true, "Velmora events"]);
  button("Delete the timer of door").click();
  await answer("Delete");
  assert.equal(last().url, "/api/v1/timers/1");
  byId("timers-clear").click();
  await answer("Keep");
  assert.equal(last().url === "/api/v1/timers", false);
  byId("timers-clear").click();
  await answer("Delete all");
  assert.deepEqual([last().method, last().url], ["DELETE", "/api/v1/timers"]);
});

it("keeps watches by their very path", async () => {
  turnTo("watches");
  server.queue = '{"event_list":[],"timer_list":[],"max_listeners":1,"max_watches":1,"watch_list":[{"path":"/a#b&c \\udc80","event_name":"door","once":true},{"path":"/a","event_name":"door"}]}';
  await pass(5000);
  await feed(posting("door", '{"path":"/a"}'), posting("door", '{"path":3}'), posting("door", '{"x":{"path":"/a#b"}}'));
  assert.deepEqual(document.querySelectorAll("#watch-rows tr").map((row) => row.children[2].textContent !== "none yet"), [false, true]);
  byId("watch-path").fill("/x #1");
  byId("watch-event").fill("door");
  byId("watch-once").checked = false;
  byId("watch-form").submit();
  await settle();
  assert.deepEqual(JSON.parse(last().body), { path: "/x #1", event_name: "door", once: false });
  button("Delete the watch on /a#b&c \udc80").click();
  await answer("Delete");
  assert.deepEqual([last().method, last().url], ["DELETE", "/api/v1/watches?path=%2Fa%23b%26c%20%80"]);
  assert.equal(byId("watch-rows").firstElementChild.classList.contains("leaving"), true);
  await pass(4000);
  assert.equal(byId("watch-rows").firstElementChild.classList.contains("leaving"), false);
  byId("watches-clear").click();
  await answer("Keep");
  assert.equal(last().url.includes("?path="), true);
  byId("watches-clear").click();
  await answer("Delete all");
  assert.equal(last().url, "/api/v1/watches");
});

it("sends a state document as it stands in the file, once, and waits for it", async () => {
  turnTo("state");
  const open = async (content) => {
    byId("state-file").onchange({ target: { files: [new File([content], "new.json")] } });
    for (let i = 0; i < 20; i += 1) await settle();
  };
  await open(new Uint8Array([0x22, 0x80, 0x22]));
  assert.match(byId("state-preview").textContent, /cannot be applied.*no UTF-8/);
  await open('{"event_list": [}');
  assert.match(byId("state-preview").textContent, /Line 1, column 17: A value was expected/);
  const text = `{ "event_list": [{"event_name": "n", "event_data": ${NUMBERS}}], "timer_list": [], "watch_list": [] }\n`;
  await open(`\ufeff${text}`);
  assert.match(byId("state-preview").textContent, /new\.json would add1 eventn with \{"10":9007199254740993/);
  const { fetch } = globalThis;
  let release;
  globalThis.fetch = (url, options) => (options.method === "POST" ? new Promise((resolve) => (release = () => resolve(fetch(url, options)))) : fetch(url, options));
  const add = button("Add these");
  for (let i = 0; i < 3; i += 1) add.click();
  await pass(120000);
  assert.equal(add.textContent, "Adding…");
  assert.equal(texts("#toasts p").length, 0);
  release();
  globalThis.fetch = fetch;
  for (let i = 0; i < 5; i += 1) await settle();
  assert.deepEqual(asked.map(({ url, body, signal }) => [url, body, signal]), [["/api/v1/queue", text, undefined]]);
  assert.match(texts("#toasts p")[0], /^new\.json is applied/);
  await open(text);
  server.up = false;
  button("Add these").click();
  await settle();
  assert.match(byId("state-preview").textContent, /^Whether new\.json was applied is not known/);
  server.up = true;
});

it("downloads the server's numbers", async () => {
  let blob;
  URL.createObjectURL = (given) => ((blob = given), "blob:x");
  server.queue = `{"max_listeners":1,"event_list":[{"event_name":"n","event_data":${NUMBERS}}],"timer_list":[],"watch_list":[]}`;
  byId("state-download").click();
  await settle();
  assert.equal((await blob.text()).replaceAll(/\s/g, ""), server.queue);
  server.queue = null;
});

it("sets limits, whole ones only", async () => {
  byId("limits-open").click();
  byId("max-listeners").fill("7.5");
  byId("max-watches").fill("-1");
  byId("limits-form").submit();
  await settle();
  assert.equal(asked.length, 0);
  byId("max-listeners").fill("7");
  byId("limits-form").submit();
  await settle();
  assert.deepEqual([last().method, last().url, last().body], ["PATCH", "/api/v1/config", '{"max_listeners":7,"max_watches":-1}']);
  assert.match(texts("#toasts p")[0], /until the server ends/);
});

it("keeps the current area on a narrow screen in sight", () => {
  const rail = document.querySelector(".rail");
  rail.box = { left: 0, right: 390 };
  turnTo("state");
  const tab = rail.querySelector("[aria-current]");
  assert.equal(tab.getAttribute("href"), "#/state");
  tab.box = { left: 480, right: 540 };
  globalThis.resized();
  assert.ok(rail.scrollLeft >= 150);
  tab.box = { left: -30, right: 30 };
  globalThis.resized();
  assert.ok(rail.scrollLeft <= 150);
});

it("asks for a token, refuses what cannot be one, and signs out", async () => {
  assert.equal(byId("sign-out").hidden, true);
  server.token = "abc>>>???~";
  await pass(10000);
  const give = async (token) => {
    byId("token").value = token;
    byId("token-form").submit();
    await pass(100);
    return byId("token-error").textContent;
  };
  assert.equal(byId("token-dialog").open, true);
  assert.match(await give("geheim漢"), /No token holds “漢”/);
  assert.equal(byId("token-dialog").open, true);
  assert.equal(await give("wrong"), "The server did not take this token.");
  await give(` ${server.token} `);
  assert.deepEqual([byId("token-dialog").open, byId("sign-out").hidden, byId("token").value], [false, false, ""]);
  byId("post-name").fill("door");
  byId("post-form").submit();
  await settle();
  assert.equal(last().headers.Authorization, `Bearer ${server.token}`);
  byId("sign-out").click();
  assert.deepEqual([location.reloaded, sessionStorage.getItem("velmora.token")], [true, null]);
});
