// The parts of the console that know nothing of a page.
import { pass } from "./support/clock.mjs";
import "./support/page.mjs";
import { asked, server } from "./support/server.mjs";
import assert from "node:assert/strict";
import { it } from "node:test";

const { encodeName, path, post, get, request } = await import("../../console/api.js");
const { curlLine } = await import("../../console/curl.js");
const { unseenExpired, markExpiredSeen } = await import("../../console/expired.js");
const { JsonText } = await import("../../console/json.js");
const { addressKey, deliveryKey, failed, failingListeners, newestByAddress } = await import("../../console/outcome.js");
const { gist, passes, readPosting } = await import("../../console/posting.js");
const { Rates, SPAN_S, rateText } = await import("../../console/rates.js");
const { Ring } = await import("../../console/ring.js");
const { tokenFault, tokenProtocol } = await import("../../console/session.js");
const { duration, exactUTC, learnServerTime, relative, serverNow, timestampText } = await import("../../console/time.js");

it("addresses any name, byte for byte", () => {
  assert.equal(path("events", "a/b #?%", "listeners"), "/api/v1/events/a%2Fb%20%23%3F%25/listeners");
  assert.equal(encodeName("ä😀\udc80\udcff\u{1f480}"), "%C3%A4%F0%9F%98%80%80%FF%F0%9F%92%80");
  for (const name of ["", ".", ".."]) assert.throws(() => path("events", name), /cannot address/);
});

it("sends data as it is, and tells failures apart", async () => {
  const data = new JsonText('{"10":1e400,"2":"\\udc80"}');
  await post("/api/v1/events/a", data);
  await post("/api/v1/events", { event_name: "a", event_data: data }, { patience: 0 });
  assert.deepEqual(asked.map(({ body }) => body), [data.text, `{"event_name":"a","event_data":${data.text}}`]);
  assert.deepEqual(asked.map(({ signal }) => Boolean(signal)), [true, false]);
  assert.equal(asked[0].headers["Content-Type"], "application/json");
  assert.equal((await request("DELETE", "/api/v1/events/a")).status, 204);
  assert.equal(asked[2].headers["Content-Type"], undefined);
  server.status["events/a"] = 422;
  await assert.rejects(post("/api/v1/events/a"), { status: 422, message: "no events/a\n/a: wrong" });
  server.up = false;
  await assert.rejects(get("/api/v1/queue"), { status: 0, message: "The server cannot be reached." });
  server.up = true;
  const { fetch } = globalThis;
  globalThis.fetch = () => Promise.reject(new DOMException("", "TimeoutError"));
  await assert.rejects(get("/api/v1/queue"), { message: "The server did not answer in time." });
  await assert.rejects(post("/api/v1/queue"), { message: "The server did not answer in time; it may still do what was asked." });
  globalThis.fetch = fetch;
  assert.equal(curlLine("POST", "/api/v1/events/a", new JsonText('{"10":1.0,"it\'s":1e400}')),
    `curl --fail-with-body -X POST 'http://127.0.0.1:8080/api/v1/events/a' -H 'Content-Type: application/json' --data-binary '{"10":1.0,"it'\\''s":1e400}'`);
  assert.equal(curlLine("GET", "/api/v1/queue"), "curl --fail-with-body 'http://127.0.0.1:8080/api/v1/queue'");
});

it("takes only what can be a token", () => {
  for (const text of ["abc>>>???~", "!"]) assert.equal(tokenFault(text), "");
  for (const [text, said] of [["", "Give"], ["a b", "a blank"], ["aü", "“ü”"], ["😀", "“😀”"], ["a\u0001", "No token"]]) assert.match(tokenFault(text), new RegExp(said));
  sessionStorage.setItem("velmora.token", "abc>>>???~");
  assert.equal(tokenProtocol(), "bearer.YWJjPj4-Pz8_fg");
  assert.match(curlLine("GET", "/x"), /-H "Authorization: Bearer \$VELMORA_TOKEN"$/);
  sessionStorage.setItem("velmora.token", "漢");
  assert.equal(tokenProtocol(), "bearer.");
  sessionStorage.removeItem("velmora.token");
});

it("counts timers that came too late until they were seen, for each run of the server", () => {
  const unseen = (expired, startedAt) => unseenExpired({ expired, startedAt });
  assert.deepEqual([unseen(undefined, undefined), unseen(0, 1000), unseen(3, 1000)], [0, 0, 3]);
  markExpiredSeen({ expired: 3, startedAt: 1000 });
  assert.deepEqual([unseen(3, 2500), unseen(5, 1000), unseen(2, 1000), unseen(3, 60000), unseen(7, 60000)], [0, 2, 2, 3, 7]);
});

it("judges a listener by its newest delivery", () => {
  const delivery = (sequence, url, status, outcome = "ok") => ({ sequence, url, status, outcome, time: "t" });
  const deliveries = [delivery(3, "http://localhost:8080/a?b#c", 200), delivery(2, "http://user:pw@127.0.0.1:8080/a?b", 500), delivery(1, "https://x/y", 503)];
  assert.deepEqual([...newestByAddress(deliveries)].map(([key, { sequence }]) => [key, sequence]), [["/a?b", 3], ["https://x/y", 1]]);
  const queue = { event_list: [{ event_name: "e", listener_list: ["/a?b", "https://x/y", "https://x/never", "python://x/y"].map((callback) => ({ callback })) }] };
  assert.deepEqual(failingListeners(queue, { deliveries, failing: null }).map(({ listener }) => listener.callback), ["https://x/y"]);
  assert.deepEqual([199, 200, 299, 300].map((status) => failed(delivery(1, "", status))), [true, false, false, true]);
  assert.equal(failed(delivery(1, "", 200, "failed")), true);
  assert.equal(addressKey("http://127.0.0.1:9090/a"), "http://127.0.0.1:9090/a");
  assert.equal(addressKey("http://"), "http://");
  assert.notEqual(deliveryKey({ sequence: 1, time: "a" }), deliveryKey({ sequence: 1, time: "b" }));
});

it("reads postings and filters them", () => {
  const posting = readPosting('{"event_name":"Door","timestamp":"2026-01-31T12:00:01+01:00","post_data":{"10":1.0,"By":"ANNA"},"event_data":{}}');
  assert.deepEqual([posting.name, posting.second, posting.ms % 1000], ["Door", Date.UTC(2026, 0, 31, 11, 0, 1) / 1000, 0]);
  assert.equal(gist(posting).text, '{"10":1.0,"By":"ANNA"}');
  assert.equal(gist(readPosting('{"event_name":"a","event_data":{"x":1e400}}')).text, '{"x":1e400}');
  assert.equal(readPosting('{"event_name":"a","event_data":{}}').ms, serverNow());
  for (const text of ["", "[]", "{}", '{"event_name":1}', "1"]) assert.equal(readPosting(text), null);
  const filter = (name, text) => passes(posting, { name, text });
  assert.deepEqual([filter("", ""), filter("oor", ""), filter("x", ""), filter("", "anna"), filter("", '"10":1.0'), filter("door", "berta")],
    [true, true, false, true, true, false]);
});

it("counts postings by the second over five minutes and no longer", () => {
  const rates = new Rates();
  const at = 1000000;
  for (const [name, second] of [["a", at], ["a", at], ["b", at + 1], ["b", at - SPAN_S], ["c", at - SPAN_S + 2]]) rates.add({ name, second, ms: second * 1000 });
  const counts = rates.all.until(at + 1);
  assert.deepEqual([counts.length, counts.at(-1), counts.at(-2), counts[0], counts.reduce((a, b) => a + b)], [SPAN_S, 1, 2, 1, 4]);
  assert.deepEqual(rates.busiest(at + 1, 1).rows.map(({ name, total }) => [name, total]), [["a", 2]]);
  assert.equal(rates.busiest(at + 1, 1).more, 2);
  const sum = (second) => rates.all.until(second).reduce((a, b) => a + b);
  assert.deepEqual([sum(at + 2), sum(at + SPAN_S - 1), sum(at + SPAN_S), sum(at + SPAN_S + 1)], [3, 3, 1, 0]);
  rates.add({ name: "a", second: at + 3 * SPAN_S + 5, ms: 1 });
  assert.equal(sum(at + 3 * SPAN_S + 5), 1);
  assert.deepEqual(rates.busiest(at + 3 * SPAN_S + 5, 9).rows.map(({ name, total }) => [name, total]), [["a", 1]]);
  assert.equal(rates.last.get("a"), 1);
  const series = (...last) => [...Array(SPAN_S - last.length).fill(0), ...last];
  assert.deepEqual([series(6, 6, 6, 99), series(0, 0, 10, 99), series(2, 0, 0, 0, 0), series(5000, 5000, 5000, 0), series(...Array(61).fill(1)).fill(0, -4)].map(rateText),
    ["6.0/s", "3.3/s", "2/min", "5,000/s", "57/min"]);
});

it("keeps the last of a stream", () => {
  const ring = new Ring(3);
  for (let i = 1; i <= 2; i += 1) ring.push(i);
  assert.deepEqual([...ring.newestFirst()], [2, 1]);
  for (let i = 3; i <= 7; i += 1) ring.push(i);
  assert.deepEqual([...ring.newestFirst()], [7, 6, 5]);
  assert.equal(ring.length, 3);
});

it("says times as people read them, by the server's clock", async () => {
  assert.deepEqual([0, 4400, 60000, 725000, 3600000, 12000000, 86400000, 187200000].map(duration), ["0 s", "4 s", "1 min", "12 min 5 s", "1 h", "3 h 20 min", "1 d", "2 d 4 h"]);
  const now = Date.now();
  assert.deepEqual([relative(now + 500), relative(now + 2000), relative(now - 61000)], ["now", "in 2 s", "1 min 1 s ago"]);
  assert.equal(timestampText(Date.UTC(2026, 0, 2, 3, 4, 5, 999)), "2026-01-02T03:04:05+00:00");
  assert.equal(exactUTC(Date.UTC(2026, 0, 2, 3, 4, 5, 999)), "2026-01-02 03:04:05 UTC");
  learnServerTime(new Date(now + 60000).toUTCString());
  assert.ok(Math.abs(serverNow() - Date.now() - 60000) < 1000);
  learnServerTime("nonsense");
  assert.ok(serverNow() > Date.now() + 59000);
  learnServerTime(new Date(now).toUTCString());
  assert.equal(serverNow(), Date.now());
  await pass(0);
});
