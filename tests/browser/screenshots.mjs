// Makes the pictures of the console for the documentation: node screenshots.mjs DIRECTORY

import { mkdirSync } from "node:fs";
import { join } from "node:path";
import { Server, listen, openBrowser, openConsole } from "./support.mjs";

const directory = process.argv[2];
mkdirSync(directory, { recursive: true });

const hooks = await listen((request, response) => setTimeout(() => response.writeHead(request.url === "/alerts" ? 503 : 200).end(), 12));
const server = await new Server().start();

async function fillServer() {
  await server.request("POST", "/queue", {
    event_list: [
      { event_name: "audit.written", listener_list: [{ callback: `${hooks.url}/archive` }] },
      { event_name: "door.opened", event_data: { building: "north" }, listener_list: [
        { callback: "/api/v1/events/audit.written", listener_data: { from: "door" } },
        { callback: `${hooks.url}/alerts`, listener_data: { channel: "security" } }] },
      { event_name: "heartbeat", listener_list: [{ callback: `${hooks.url}/monitor`, listener_data: { host: "gate-1" } }] },
      { event_name: "spool.changed" },
    ],
    timer_list: [{ event_name: "heartbeat", interval_sec: 1 }, { event_name: "spool.changed", interval_sec: 86400, timer_data: { reason: "nightly sweep" } }],
    watch_list: [{ path: server.directory, event_name: "spool.changed" }],
  });
}

/// A little life, so that the rates have a shape.
async function live(seconds) {
  for (let i = 0; i < seconds * 4; i += 1) {
    const swell = Math.round(3 + 3 * Math.sin(i / 5));
    for (let n = 0; n < swell; n += 1) await server.post("door.opened", { door: `B${1 + ((i + n) % 6)}`, card: 4711 + n });
    if (i % 6 === 0) await server.post("spool.changed", { path: "/var/spool/incoming", files: 1 + (i % 5) });
    await new Promise((resolve) => setTimeout(resolve, 250));
  }
}

async function picture(page, area, name) {
  await page.locator(`.rail a[href="#/${area}"]`).click();
  await page.waitForFunction(() => document.querySelector("#failing:not([hidden])"));
  await page.screenshot({ path: join(directory, `${name}.png`) });
}

const browser = await openBrowser();
await fillServer();
const wide = { viewport: { width: 1280, height: 720 } };
const light = await openConsole(browser, server, wide);
const dark = await openConsole(browser, server, { ...wide, colorScheme: "dark" });
const narrow = await openConsole(browser, server, { viewport: { width: 390, height: 720 } });
await live(30);
const more = live(20);
await new Promise((resolve) => setTimeout(resolve, 4000));
await light.locator("#post-name").fill("door.opened");
await light.locator("#post-form textarea").fill('{\n  "door": "B3",\n  "card": 4711\n}');
await picture(light, "live", "live-light");
await picture(dark, "events", "events-dark");
await picture(narrow, "live", "live-narrow");
await more;
await browser.close();
await server.close();
hooks.close();
