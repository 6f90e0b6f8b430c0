// What people's data goes through on its way: numbers, names and depth have to survive it.
import assert from "node:assert/strict";
import { it } from "node:test";
import { JsonText, compact, dataText, holdsData, parse, pretty, preview, readDictionary, readJSON, write } from "../../console/json.js";
import { compareState } from "../../console/statediff.js";

const ODD = '{"10":9007199254740993,"2":12345678901234567890,"a":1.0,"b":1e400,"c":-0,"d":[1E5,0.10],"__proto__":{"":null},"e":"\\udc80\\u00e4 ä"}';
const DEEP = 100000;

it("leaves numbers, names and their order as they are, everywhere", () => {
  for (const loose of [ODD, ODD.replaceAll(/([,:{}[\]])/g, " $1\n\t"), pretty(ODD)]) {
    assert.equal(compact(loose), ODD);
    assert.equal(readDictionary(loose).value.text, ODD);
    const queue = `{"event_list":[{"event_name":"a","event_data":${loose},"listener_list":[{"id":"1","listener_data":${loose}}]}]}`;
    assert.equal(write(parse(queue)), compact(queue));
    assert.equal(parse(queue).event_list[0].event_data.text, ODD);
  }
  const limits = '{"max_listeners":1024,"max_watches":1e400,"a":-5,"b":0.5,"c":12345678901234567890,"d":true,"e":null}';
  const { max_listeners: plain, max_watches: kept, ...rest } = parse(limits);
  assert.deepEqual([plain, String(kept), kept instanceof JsonText, rest.a, rest.b, rest.d, rest.e], [1024, "1e400", true, -5, 0.5, true, null]);
  assert.equal(write(parse(limits)), limits);
  assert.equal(write({ event_name: "a\udc80\"", event_data: undefined, timer_data: new JsonText(ODD), list: [1, "x"] }),
    `{"event_name":"a\\udc80\\"","timer_data":${ODD},"list":[1,"x"]}`);
});

it("reads the escapes of names and texts", () => {
  const { name, list } = parse('{"n\\u0061me":"\\"\\\\\\ud83d\\ude00","list":["\\u0000"]}');
  assert.deepEqual([name, list], ['"\\😀', ["\0"]]);
});

it("lays out like a person would, and in linear size however deep", () => {
  for (const value of [{ a: [1, { b: [] }, {}], c: { d: "[,{:" } }, [], {}, [[1, 2], [3]], "x", 1, null]) {
    assert.equal(pretty(JSON.stringify(value)), JSON.stringify(value, null, 2));
  }
  const deep = `${'{"a":['.repeat(DEEP)}1,2${"]}".repeat(DEEP)}`;
  assert.equal(compact(deep), deep);
  const laidOut = pretty(deep);
  assert.ok(laidOut.length < 2 * deep.length);
  assert.equal(compact(laidOut), deep);
  assert.equal(readDictionary(deep).value.text, deep);
  assert.equal(write(parse(`{"list":[${deep},{"x":${deep}}],"event_data":${deep}}`)), `{"list":[${deep},{"x":${deep}}],"event_data":${deep}}`);
  assert.equal(readJSON("[".repeat(DEEP)).fault.column, DEEP + 1);
  assert.equal(parse(`["${"x".repeat(4e6)}\\n"]`)[0].length, 4e6 + 1); // a long text is no depth either
});

it("shows one line of a value, never half a character", () => {
  assert.equal(preview(new JsonText("{}")), "");
  assert.equal(preview(undefined), "");
  assert.equal(preview(new JsonText('{"a":1.0}'), 9), '{"a":1.0}');
  assert.equal(preview(new JsonText('{"a":1.0}'), 8), '{"a":1.0…');
  assert.equal(preview("x😀", 3), '"x…');
  assert.equal(preview(1024), "1024");
  assert.deepEqual([holdsData(new JsonText("{}")), holdsData(new JsonText('{"a":1}')), holdsData(undefined), holdsData("{1}")], [false, true, false, false]);
  assert.equal(dataText(undefined), "{}");
});

it("finds the place of every kind of fault", () => {
  const places = ["", "[1,]", '{"a" 1}', "{'a':1}", '"a\nb"', '"\\x"', "01", "[1 2]", "{} x", "nul", '{"a":1,}', '["', "-", "1.", ".5", "+1", "1e",
    '{"a":1,"b":{"a":2},\n "\\u0061":3}', "{1:2}", "[}", '"\\u12g4"', "\ufeff{}", "tru", "[1}"].map((text) => {
    const { fault } = readJSON(text);
    return `${fault.line}:${fault.column}`;
  });
  assert.deepEqual(places, ["1:1", "1:3", "1:6", "1:2", "1:3", "1:2", "1:1", "1:4", "1:4", "1:1", "1:7", "1:3", "1:1", "1:1", "1:1", "1:1", "1:1",
    "2:2", "1:2", "1:2", "1:2", "1:1", "1:1", "1:3"]);
  const { fault } = readJSON(`{\n\t"a": ${"9".repeat(80)}, tru}`);
  assert.equal(fault.message, "A name in double quotes was expected");
  const [line, mark] = fault.excerpt.split("\n");
  assert.equal(line[mark.length - 1], "t");
  assert.match(readJSON('["').fault.message, /^The closing double quote is missing, but the text ends here$/);
});

it("takes a dictionary or nothing where data is wanted", () => {
  assert.deepEqual(readDictionary(" \n"), { value: undefined });
  for (const text of [" [1]", " 1", ' "a"', " null"]) assert.equal(readDictionary(text).fault.column, 2, text);
  for (const text of ['{"a":1,"a":2}', "{", "{} {}"]) assert.ok(readDictionary(text).fault, text);
  assert.equal(readDictionary(' {"a": [ ]} ').value.text, '{"a":[]}');
});

// What a state document would add

const CURRENT = parse(`{"max_listeners": 1024, "max_watches": 1024, "event_list": [{"event_name": "door", "listener_list": [{"callback": "python://one"}]}],
  "timer_list": [{"id": "1", "event_name": "door", "interval_sec": "60", "timer_data": {"n": 1.0}}, {"id": "2", "event_name": "door", "start_time": "2199-01-01T00:00:00+00:00"}],
  "watch_list": [{"path": "/Spool/Ä", "event_name": "door"}]}`);
const compare = (document) => compareState(parse(JSON.stringify(document)), CURRENT);

it("compares a document with what is there", () => {
  const result = compareState(parse(`{"max_listeners": 1024, "max_watches": 1e400, "event_list": [
      {"event_name": "door", "listener_list": [{"callback": "python://one"}, {"callback": "/x", "listener_data": {"10": 1.0, "1": 2}}, {"callback": "/x"}]},
      {"event_name": "new", "event_data": {"n": 9007199254740993}, "listener_list": [{"callback": "python://one"}]}, {"event_name": "new"}],
    "timer_list": [{"event_name": "door", "interval_sec": 60, "timer_data": {"n": 1.0}}, {"event_name": "door", "interval_sec": 60, "timer_data": {"n": 1}},
      {"event_name": "x", "interval_sec": 9007199254740993, "timer_data": {}}, {"event_name": "door", "start_time": "2199-01-01T00:00:00+00:00"}],
    "watch_list": [{"path": "/sPOOL/Ä", "event_name": "x"}, {"path": "/spool/ä", "event_name": "x"}, {"path": "/SPOOL/ä", "event_name": "x"}]}`), CURRENT);
  assert.deepEqual(result.faults, []);
  assert.deepEqual(result.added, {
    events: ['new with {"n":9007199254740993}'],
    listeners: ['door → /x with {"10":1.0,"1":2}', "new → python://one"],
    timers: ['door every 60 s with {"n":1.0} (beside an equal one that is there)', 'door every 60 s with {"n":1}',
      "x every 9007199254740993 s", "door at 2199-01-01T00:00:00+00:00 (beside an equal one that is there)"],
    watches: ["/spool/ä → x"],
  });
  assert.deepEqual(result.present, ["event door", "listener python://one of door", "listener /x of door", "event new", "watch on /sPOOL/Ä", "watch on /SPOOL/ä"]);
  assert.deepEqual(result.ignored, ["max_watches 1e400: limits are not taken from a document"]);
});

it("names what cannot be in a document, however odd", () => {
  for (const document of [1, [], "x", {}, { max_watches: 1 }]) assert.equal(compare(document).faults.length, 1, JSON.stringify(document));
  const { faults } = compare({ event_list: 1, timer_list: [{ event_name: "a" }, null, { event_name: "a", interval_sec: "x" }, { event_name: {}, start_time: {} },
    { event_name: "a", interval_sec: 0 }, { event_name: "a", interval_sec: {}, start_time: [] }, { interval_sec: 1 }], watch_list: [{ path: "/a" }, { event_name: "a" }, null, 1] });
  assert.deepEqual(faults.map((fault) => fault.split(" ")[0]), ["/event_list", ...[0, 1, 2, 3, 4, 5, 6].map((i) => `/timer_list/${i}`), ...[0, 1, 2, 3].map((i) => `/watch_list/${i}`)]);
  assert.deepEqual(compare({ event_list: [{ event_name: "" }, { event_name: "a", listener_list: [{}] }] }).faults, ["/event_list/0 has no name.", "/event_list/1/listener_list/0 has no callback."]);
  assert.deepEqual(compare({ event_list: [] }).faults, []);
});
