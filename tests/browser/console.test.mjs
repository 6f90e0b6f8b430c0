import assert from "node:assert/strict";
import { readFileSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import { after, afterEach, before, beforeEach, describe, it } from "node:test";
import { Server, cuttable, isLive, listen, openBrowser, openConsole, postMany, realFaults } from "./support.mjs";

const MARKUP = '<img src=x onerror="window.broken=1"><b>&amp;';

let browser, server, page;

before(async () => {
  browser = await openBrowser();
});
after(() => browser.close());

beforeEach(async () => {
  server = await new Server().start();
});
afterEach(async () => {
  const faults = page ? realFaults(page) : [];
  await page?.context().close();
  page = null;
  await server.close();
  assert.deepEqual(faults, []);
});

const open = async (options) => (page = await openConsole(browser, server, options));
const restart = async (config) => {
  await server.close();
  server = await new Server(config).start();
};
const rows = () => page.locator("#stream > li[data-number]");
const toast = (text) => page.locator(".toast", { hasText: text }).waitFor();
const answer = (name) => page.locator("dialog[open]").getByRole("button", { name, exact: true }).click();

describe("Live", () => {
  it("fills from the history, then shows what is posted, and markup as text", async () => {
    await server.event("door");
    await server.event(MARKUP);
    await server.post("door", { number: 1 });
    await open();
    await rows().filter({ hasText: '{"number":1}' }).waitFor();
    await server.post(MARKUP, { [MARKUP]: MARKUP });
    await rows().first().getByText(MARKUP, { exact: true }).waitFor();
    await rows().first().locator("summary").click();
    await page.locator("#stream pre", { hasText: JSON.stringify(MARKUP).slice(1, -1) }).waitFor();
    assert.equal(await page.locator("#stream img, #stream b, #rates img").count(), 0);
    assert.equal(await page.evaluate(() => window.broken), undefined);
    assert.match(await rows().first().locator("time").getAttribute("title"), / UTC\n.*Europe\/Berlin$/);
  });

  it("pauses, holds still while one reads, and filters", async () => {
    for (const name of ["door", "window"]) await server.event(name);
    await open();
    await server.post("door", { by: "anna" });
    await rows().first().locator("summary").click();
    await server.post("window", { by: "berta" });
    await page.getByText("Held while you read. 1 new posting since.").waitFor();
    assert.equal(await rows().count(), 1);
    await rows().first().locator("summary").click();
    await rows().filter({ hasText: "berta" }).waitFor();

    await page.getByRole("searchbox", { name: "Text" }).fill("ANNA");
    await rows().filter({ hasText: "berta" }).waitFor({ state: "detached" });
    await server.post("window", { by: "carla" });
    await server.post("door", { by: "anna", again: true });
    await rows().nth(1).waitFor();
    await page.locator("#stream-pause").click();
    await page.getByRole("searchbox", { name: "Text" }).fill("");
    await page.getByText("Paused.").waitFor();
    assert.equal(await rows().count(), 4);
  });

  it("draws the rate of each event and filters by a click on it", async () => {
    for (const name of ["door", "window"]) await server.event(name);
    await open();
    for (const name of ["door", "door", "window"]) await server.post(name);
    await page.locator("#rates button", { hasText: "door" }).click();
    await rows().filter({ hasText: "window" }).waitFor({ state: "detached" });
    await page.locator('#rates svg[role="img"][aria-label*="at most"]').waitFor();
    assert.equal(await rows().count(), 2);
  });

  it("stays usable while 2,000 postings a second come in for ten seconds, and counts every one", async () => {
    await server.event("flood");
    await open();
    const posting = postMany(server, "flood", 2000, 10);
    let over = false;
    posting.finally(() => (over = true)).catch(() => {});
    let answered = 0;
    for (const click of ['.rail a[href="#/events"]', '.rail a[href="#/live"]', '#stream-pause[aria-pressed="false"]', '#stream-pause[aria-pressed="true"]']) {
      await page.locator(click).click(); // the last two wait for each other's effect
      if (!over) answered += 1;
    }
    assert.equal(answered, 4, "clicks that were answered before the postings ended");
    assert.equal(await posting, 20000);
    await page.locator('#rates button[aria-description^="20000 postings"]').waitFor();
    await page.getByText(/left out so far/).waitFor();
    assert.ok((await page.locator("#stream > li").count()) <= 150);
  });
});

describe("Posting", () => {
  it("points at a fault in the data, offers to create what is missing, and gives the curl command", async () => {
    await open();
    const name = page.locator("#post-form").getByLabel("Event");
    await name.fill("it's/new");
    await page.getByLabel("Data", { exact: true }).fill('{\n  "a": 1,\n  "b": tru\n}');
    await page.getByRole("button", { name: "Post", exact: true }).click();
    await page.getByText("Line 3, column 8: A value was expected.").waitFor();
    await page.getByLabel("Data", { exact: true }).fill('{"a": "it\'s"}');
    await page.getByRole("button", { name: "Copy as curl" }).first().click();
    await toast("The curl command is in the clipboard.");
    assert.equal(await page.evaluate(() => navigator.clipboard.readText()),
      `curl --fail-with-body -X POST '${server.url}/api/v1/events/it'\\''s%2Fnew' -H 'Content-Type: application/json' --data-binary '{"a":"it'\\''s"}'`);
    await page.getByRole("button", { name: "Post", exact: true }).click();
    await page.getByRole("button", { name: "Create it and post" }).click();
    await rows().filter({ hasText: "it's/new" }).waitFor();
    assert.deepEqual((await server.request("GET", "/history")).history.map((record) => record.post_data), [{ a: "it's" }]);
  });
});

describe("Events and listeners", () => {
  it("creates, shows a failing listener from afar, and deletes after asking once", async () => {
    const target = await listen((_, response) => response.writeHead(503).end());
    try {
      await open({ area: "events" });
      await page.getByText("New event").click();
      await page.getByLabel("Name").fill("door");
      await page.locator("#event-form").getByLabel("Event data").fill('{"site": "north"}');
      await page.getByRole("button", { name: "Create event" }).click();
      const card = page.getByRole("article", { name: "Event door" });
      await card.getByRole("button", { name: /^Add listener to/ }).click();
      await card.getByLabel("Callback").fill(`${target.url}/hook`);
      await card.getByLabel("Listener data").fill('{"to": "hook"}');
      await card.getByRole("button", { name: "Add listener", exact: true }).last().click();
      await card.getByText("not called lately").waitFor();
      await server.post("door");
      await card.getByText("Failed 503").waitFor();
      await page.getByRole("link", { name: "1 listener failing" }).waitFor();
      await page.waitForFunction(() => document.title.startsWith("(1 failing)"));
      assert.deepEqual((await server.request("GET", "/events/door")).event_data, { site: "north" });

      await card.getByRole("button", { name: "Delete door" }).click();
      await answer("Keep");
      await card.getByRole("button", { name: /^Delete listener/ }).click();
      await answer("Delete");
      await toast("The listener is deleted.");
      assert.deepEqual((await server.request("GET", "/events/door")).listener_list, []);
      await card.getByRole("button", { name: "Delete door" }).click();
      await answer("Delete");
      await page.getByText("No events.").waitFor();
    } finally {
      target.close();
    }
  });
});

describe("Timers", () => {
  it("creates repeating, delayed and dated ones, counts down and deletes", async () => {
    await server.event("tick");
    await open({ area: "timers" });
    const row = (text) => page.locator("#timer-rows tr", { hasText: text });
    await page.getByText("New timer").click();
    await page.getByLabel("Posts event").first().fill("tick");
    await page.getByLabel("Seconds").fill("3600");
    await page.getByRole("button", { name: "Create timer" }).click();
    await row("every 1 h").getByText(/^in (59 min|1 h)/).waitFor();

    await page.getByLabel("once, at").check();
    await page.locator("#timer-at").fill("2001-01-01T00:00");
    await page.getByText("2000-12-31 23:00:00 UTC is past: the timer would be dropped without firing.").waitFor();
    await page.locator("#timer-at").fill("2199-07-01T12:00");
    await page.getByRole("button", { name: "Create timer" }).click();
    await row("once").waitFor();
    const dated = (await server.request("GET", "/timers")).timer_list.find((timer) => timer.start_time);
    assert.equal(dated.start_time, "2199-07-01T10:00:00+00:00");

    await page.getByLabel("once, in").check();
    await page.getByLabel("Seconds").fill("1");
    await page.getByRole("button", { name: "Create timer" }).click();
    await page.waitForFunction(() => /^[1-9]/.test(document.getElementById("nav-live").textContent)); // it fired

    await row("every 1 h").getByRole("button", { name: /^Delete/ }).click();
    await answer("Delete");
    await row("every 1 h").waitFor({ state: "detached" });
    await page.locator("#timers-clear").click();
    await answer("Delete all");
    await page.getByText("No timers.").waitFor();
  });
});

describe("Watches", () => {
  it("creates with warnings, shows the last change and deletes", async () => {
    await server.event("changed");
    await open({ area: "watches" });
    await page.getByText("New watch").click();
    const create = async (path, event) => {
      await page.getByLabel("Path on the server").fill(path);
      await page.locator("#watch-event").fill(event);
      await page.getByRole("button", { name: "Create watch" }).click();
    };
    await create("/nowhere/at/all", "unknown");
    await page.getByText("The path cannot be watched now").waitFor();
    await page.getByText("There is no event “unknown” now").waitFor();
    await create(server.directory, "changed");
    const row = page.locator("#watch-rows tr", { hasText: server.directory });
    await row.waitFor();
    for (let i = 0; (await row.locator("time").count()) === 0; i += 1) {
      writeFileSync(join(server.directory, `file ${i}`), ""); // until the worker has registered the watch
      await page.waitForTimeout(100);
      assert.ok(i < 200, "no change was shown");
    }
    await row.getByRole("button", { name: /^Delete/ }).click();
    await answer("Delete");
    await row.waitFor({ state: "detached" });
  });
});

describe("Deliveries", () => {
  it("lists outcomes and narrows them to failed and slow ones", async () => {
    await restart({ Timeout_ms: 10000 });
    const target = await listen((request, response) => {
      if (request.url === "/slow") setTimeout(() => response.end(), 1500);
      else response.writeHead(request.url === "/bad" ? 500 : 200).end();
    });
    try {
      await server.event("call", ["good", "bad", "slow"].map((path) => ({ callback: `${target.url}/${path}` })));
      await open({ area: "deliveries" });
      const row = (text) => page.locator("#delivery-rows tr", { hasText: text });
      await server.post("call");
      for (const path of ["/good", "/bad", "/slow"]) await row(path).waitFor();
      await page.getByLabel(/^Failed/).check();
      await row("/good").waitFor({ state: "detached" });
      assert.match(await row("/bad").innerText(), /Failed 500/);
      await page.getByLabel("Slow from").fill("1500");
      await page.getByLabel(/^Slow \d/).check();
      await row("/bad").waitFor({ state: "detached" });
      assert.equal(await row("/slow").count(), 1);
    } finally {
      target.close();
    }
  });

  it("shows which are dead and why, and sends them again", async () => {
    let status = 500;
    const target = await listen((request, response) => response.writeHead(status).end("no, <b>never</b>"));
    await restart({ Destinations: [{ Match: target.url, Attempts: 2, Backoff_ms: 1 }] });
    try {
      await server.event("call", [{ callback: `${target.url}/hook`, listener_data: { l: 1 } }]);
      await server.post("call");
      await open({ area: "deliveries" });
      const row = page.locator("#delivery-rows tr");
      await row.getByText("Dead 500").waitFor();
      await row.getByText("Body and answer").click();
      await row.getByText("no, <b>never</b>").waitFor();
      assert.match(await page.locator("#failing").innerText(), /1 listener failing/);
      status = 200;
      await row.getByRole("button", { name: "Send again" }).click();
      await row.getByText("OK 200").waitFor();
      await page.locator("#failing").waitFor({ state: "hidden" });
    } finally {
      target.close();
      await restart({});
    }
  });
});

describe("Status", () => {
  it("says what the server is and sets its limits", async () => {
    await open();
    await page.locator("#ready", { hasText: "Ready" }).waitFor();
    assert.match(await page.locator("#version").innerText(), /^\d+\.\d+\.\d+$/);
    await page.locator("#clients", { hasText: "1" }).waitFor();
    await page.getByRole("button", { name: "Limits…" }).click();
    await page.getByRole("spinbutton", { name: "Watches" }).fill("7.5");
    await page.getByRole("button", { name: "Set limits" }).click();
    await page.getByText("Both limits have to be whole numbers.").waitFor();
    await page.getByRole("spinbutton", { name: "Watches" }).fill("7");
    await page.getByRole("button", { name: "Set limits" }).click();
    await page.locator("#watch-use", { hasText: "0 / 7" }).waitFor();
    assert.deepEqual(await server.request("GET", "/config"), { max_listeners: 1024, max_watches: 7 });
  });

  it("survives a restart of the server, and fills in what was posted without it", async () => {
    await server.event("door");
    await open();
    await server.post("door", { number: 1 });
    await rows().filter({ hasText: '"number":1' }).waitFor();
    await page.route("**/api/v1/config", (route) => route.abort()); // it comes back only after the postings
    await server.stop("SIGKILL");
    await page.getByText(/^Not connected, again in/).waitFor();
    await server.start();
    for (const number of [2, 3, 3]) await server.post("door", { number });
    await page.unroute("**/api/v1/config");
    await isLive(page);
    await page.locator(".marker.gap", { hasText: "3 missed postings were filled in" }).waitFor();
    await server.post("door", { number: 4 });
    await rows().filter({ hasText: '"number":4' }).waitFor();
    assert.deepEqual(await rows().locator(".gist").allInnerTexts(), [4, 3, 3, 2, 1].map((number) => `{"number":${number}}`));
  });

  it("asks for the token once, says when it is wrong, and keeps it for the tab", async () => {
    await restart({ AccessToken: "abc>>>???~" });
    await server.event("door");
    await open({ ready: false });
    const dialog = page.getByRole("dialog", { name: "Access token" });
    await dialog.getByLabel("Token").fill("wrong");
    await dialog.getByRole("button", { name: "Continue" }).click();
    await dialog.getByText("The server did not take this token.").waitFor();
    await dialog.getByLabel("Token").fill(server.token);
    await dialog.getByRole("button", { name: "Continue" }).click();
    await isLive(page);
    await server.post("door", { seen: true });
    await rows().filter({ hasText: '{"seen":true}' }).waitFor();
    await page.reload();
    await isLive(page);
    assert.equal(await page.evaluate(() => localStorage.length + document.cookie.length), 0);
  });
});

describe("State document", () => {
  it("downloads, shows what a document would add, and adds it", async () => {
    await server.event("door", [{ callback: "python://one" }]);
    await open({ area: "state" });
    const [download] = await Promise.all([page.waitForEvent("download"), page.getByRole("button", { name: "Download state document" }).click()]);
    const document = JSON.parse(readFileSync(await download.path(), "utf8"));
    assert.deepEqual(document, await server.request("GET", "/queue"));

    const upload = (value) => page.getByLabel("Choose a file, or drop it here")
      .setInputFiles({ name: "new.json", mimeType: "application/json", buffer: Buffer.from(typeof value === "string" ? value : JSON.stringify(value)) });
    await upload('{"event_list": [}');
    await page.getByText("Line 1, column 17: A value was expected.").waitFor();
    document.event_list[0].listener_list.push({ callback: "/api/v1/events/other" });
    document.event_list.push({ event_name: MARKUP });
    document.timer_list.push({ event_name: "door", interval_sec: 3600 });
    await upload(document);
    for (const text of ["new.json would add", "1 event", "1 listener", "1 timer", "2 already there"]) await page.locator("#state-preview").getByText(text).first().waitFor();
    assert.equal((await server.request("GET", "/events")).event_list.length, 1);
    await page.getByRole("button", { name: "Add these" }).click();
    await toast("new.json is applied: 1 event, 1 timer and 0 watches more than before.");
    const queue = await server.request("GET", "/queue");
    assert.deepEqual(queue.event_list.map((event) => event.listener_list.length).sort(), [0, 2]);
  });
});

describe("Everyone", () => {
  it("finds every area by keyboard alone", async () => {
    await open();
    const press = async (...keys) => {
      for (const key of keys) await page.keyboard.press(key);
    };
    const reach = async (name) => {
      for (let i = 0; i < 80; i += 1) {
        await press("Tab");
        const focused = await page.evaluate(() => document.activeElement.getAttribute("aria-label") || document.activeElement.labels?.[0]?.innerText || document.activeElement.innerText || "");
        if (focused.trim().startsWith(name)) return;
      }
      assert.fail(`${name} cannot be reached with the Tab key`);
    };
    await reach("Events");
    await press("Enter");
    await reach("New event");
    await press("Enter");
    await reach("Name");
    await page.keyboard.type("keyed");
    await press("Enter");
    await toast("Event “keyed” is there.");
    await reach("Delete keyed");
    await press("Enter", "Escape"); // asked, and thought better of
    await page.locator("dialog[open]").waitFor({ state: "detached" });
    await reach("Post keyed");
    await press("Enter");
    await press("Control+Enter");
    await page.getByText(/^Posted “keyed”/).waitFor();
    await press("Shift+Tab");
    await page.locator("#stream summary").first().focus();
    await press("Enter");
    await page.getByText("Held while you read.").waitFor();
  });

  it("has no serious accessibility fault in any area, light, dark and narrow", async () => {
    await server.event("door", [{ callback: "http://127.0.0.1:9/closed", listener_data: { a: 1 } }], { site: 1 });
    await server.request("POST", "/timers", { event_name: "door", interval_sec: 3600, timer_data: { a: 1 } });
    await server.request("POST", "/watches", { path: server.directory, event_name: "door" });
    const axe = readFileSync(new URL("./node_modules/axe-core/axe.min.js", import.meta.url), "utf8");
    for (const look of [{ colorScheme: "light" }, { colorScheme: "dark" }, { colorScheme: "light", viewport: { width: 390, height: 800 } }]) {
      await page?.context().close();
      await open(look);
      await server.post("door", { a: 1 });
      await page.getByRole("link", { name: "1 listener failing" }).waitFor();
      await page.evaluate(axe);
      for (const area of ["live", "events", "timers", "watches", "deliveries", "state"]) {
        await page.evaluate((name) => (location.hash = `#/${name}`), area);
        await page.locator(`section[data-view="${area}"]:not([hidden])`).waitFor();
        await page.evaluate(() => document.querySelectorAll("section.view:not([hidden]) details").forEach((details) => (details.open = true)));
        const { violations } = await page.evaluate(() => window.axe.run(document));
        const serious = violations.filter(({ impact }) => ["serious", "critical"].includes(impact));
        assert.deepEqual(serious.map(({ id, nodes }) => `${id}: ${nodes[0].html} ${nodes[0].failureSummary}`), [], `${area} ${JSON.stringify(look)}`);
      }
    }
  });

  it("loads nothing but its own files, from memory where they are unchanged", async () => {
    const first = await fetch(`${server.url}/`);
    assert.match(first.headers.get("content-security-policy"), /^default-src 'none'; script-src 'self'; style-src 'self';/);
    const again = await fetch(`${server.url}/console/app.js`, { headers: { "If-None-Match": (await fetch(`${server.url}/console/app.js`)).headers.get("etag") } });
    assert.equal(again.status, 304);
    assert.equal((await fetch(`${server.url}/console/none.js`)).status, 404);
    await open();
    const hosts = await page.evaluate(() => performance.getEntriesByType("resource").map((entry) => new URL(entry.name).host));
    assert.deepEqual([...new Set(hosts)], [new URL(server.url).host]);
  });
});

describe("Feed", () => {
  it("is followed by an EventSource, which comes back by itself for what it has missed", async () => {
    const proxy = await cuttable(server.url);
    try {
      for (const name of ["door", "window"]) await server.event(name);
      await open({ url: proxy.url });
      await page.evaluate(() => {
        window.seen = [];
        window.gaps = [];
        const source = new EventSource("/api/v1/feed/sse?event_name=door");
        source.addEventListener("door", ({ data }) => window.seen.push(JSON.parse(data).post_data.number));
        source.addEventListener("velmora.hello", ({ data }) => window.gaps.push(JSON.parse(data).gap));
      });
      const sees = async (seen, gaps) => {
        await page.waitForFunction((wanted) => JSON.stringify([window.seen, window.gaps]) === wanted, JSON.stringify([seen, gaps]));
      };
      await sees([], [false]);
      await server.post("door", { number: 1 });
      await sees([1], [false]);
      proxy.cut();
      for (const [name, number] of [["door", 2], ["window", 3], ["door", 4]]) await server.post(name, { number });
      await sees([1, 2, 4], [false, false]);
      await server.stop("SIGKILL");
      await server.start();
      await server.post("door", { number: 5 });
      await sees([1, 2, 4, 5], [false, false, true]);
    } finally {
      proxy.close();
    }
  });
});

describe("Parts", () => {
  it("finds the place of every kind of fault in JSON", async () => {
    await open();
    const places = await page.evaluate(async () => {
      const { readJSON } = await import("/console/json.js");
      return ["", "[1,]", '{"a" 1}', "{'a':1}", '"a\nb"', '"\\x"', "01", "[1 2]", "{} x", "nul", '{"a":1,}', '["'].map((text) => {
        const { fault } = readJSON(text);
        return `${fault.line}:${fault.column}`;
      });
    });
    assert.deepEqual(places, ["1:1", "1:3", "1:6", "1:2", "1:3", "1:2", "1:1", "1:4", "1:4", "1:1", "1:7", "1:3"]);
  });
});
