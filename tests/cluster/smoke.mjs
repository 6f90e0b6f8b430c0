// Two nodes over one nats-server, seen through their REST interfaces and feeds, with nothing but Node.js. Prints what it has
// seen and ends with 1 where a promise did not hold. Usage: smoke.mjs VELMORA_SERVER [NATS_SERVER]
import {spawn} from 'node:child_process';
import {mkdtempSync, writeFileSync, rmSync} from 'node:fs';
import {createServer} from 'node:net';
import http from 'node:http';
import {tmpdir} from 'node:os';
import {join} from 'node:path';

const [server, nats = 'nats-server'] = process.argv.slice(2);
const folder = mkdtempSync(join(tmpdir(), 'velmora-cluster-'));
const started = [];
let failures = 0;

const freePort = () => new Promise((resolve) => {
    const probe = createServer().listen(0, '127.0.0.1', () => {
        const {port} = probe.address();
        probe.close(() => resolve(port));
    });
});

function run(program, args, log) {
    const child = spawn(program, args, {stdio: ['ignore', 'pipe', 'pipe']});
    child.text = '';
    for (const stream of [child.stdout, child.stderr]) stream.on('data', (bytes) => { child.text += bytes; });
    child.on('error', (error) => { child.text += error; child.failed = true; });
    started.push(child);
    child.log = log;
    return child;
}

async function until(what, condition, limit_ms = 60000) {
    const end = Date.now() + limit_ms;
    for (;;) {
        const value = await condition();
        if (value) return value;
        if (Date.now() > end) throw new Error(`did not happen: ${what}`);
        await new Promise((resolve) => setTimeout(resolve, 50));
    }
}

function check(what, holds, detail = '') {
    console.log(`${holds ? 'ok  ' : 'FAIL'} ${what}${holds ? '' : ` ${detail}`}`);
    if (!holds) ++failures;
}

const config = (port, node) => ({Log: {Level: 'notice'}, Cluster: {Name: 'smoke', Node: node, Servers: [`nats://127.0.0.1:${port}`]}});

async function startNode(port, node) {
    const file = join(folder, `${node}.json`);
    writeFileSync(file, JSON.stringify(config(port, node)));
    const child = run(server, ['--config', file], node);
    const url = await until(`node ${node} listens`, () => /Listening on (\S+)/.exec(child.text)?.[1]);
    const call = async (method, path, body, headers = {}) => {
        const answer = await fetch(url + path, {
            method, headers: {...headers, ...(body === undefined ? {} : {'Content-Type': 'application/json'})},
            body: body === undefined ? undefined : JSON.stringify(body)});
        const text = await answer.text();
        let json;
        try { json = JSON.parse(text); } catch { json = text; }
        return {status: answer.status, json, headers: answer.headers};
    };
    return {child, url, call, node};
}

async function history(node, name) {
    return (await node.call('GET', `/api/v1/history?event_name=${name}`)).json.history;
}

async function main() {
    const port = await freePort();
    run(nats, ['-a', '127.0.0.1', '-p', String(port), '-js', '-sd', join(folder, 'store')], 'nats');
    const a = await startNode(port, 'a'), b = await startNode(port, 'b');
    for (const node of [a, b]) await until('ready', async () => (await node.call('GET', '/readyz')).status === 200);

    // The registry.
    check('an event is created', (await a.call('POST', '/api/v1/events', {event_name: 'e.1 ä', event_data: {k: 1}})).status === 201);
    const path = `/api/v1/events/${encodeURIComponent('e.1 ä')}`;
    await until('the other node shows it', async () => (await b.call('GET', path)).status === 200);
    check('it is there once', (await b.call('POST', '/api/v1/events', {event_name: 'e.1 ä'})).status === 412);
    const writers = await Promise.all(Array.from({length: 40}, (_, i) =>
        (i % 2 ? a : b).call('POST', '/api/v1/events', {event_name: `race${i >> 2}`})));
    check('of four writers one wins', writers.filter((w) => w.status === 201).length === 10 &&
        writers.filter((w) => w.status === 412).length === 30, JSON.stringify(writers.map((w) => w.status)));

    // Calls.
    const calls = new Map();
    const listener = http.createServer((request, answer) => {
        let text = '';
        request.on('data', (bytes) => { text += bytes; });
        request.on('end', () => {
            const n = text ? JSON.parse(text).post_data?.n : request.url;
            calls.set(n, (calls.get(n) ?? 0) + 1);
            answer.end();
        });
    }).listen(0, '127.0.0.1');
    await until('the listener', () => listener.listening);
    const callback = `http://127.0.0.1:${listener.address().port}/called`;
    const made = await b.call('POST', `${path}/listeners`, {callback, listener_data: {x: 1}});
    check('a listener is created at the other node', made.status === 201, JSON.stringify(made));
    check('the same callback is refused', (await b.call('POST', `${path}/listeners`, {callback})).status === 412);

    // Postings: one order, one id, the same bytes.
    const answers = await Promise.all(Array.from({length: 200}, (_, n) => (n % 2 ? a : b).call('POST', path, {n})));
    check('every posting is accepted', answers.every((answer) => answer.status === 202), JSON.stringify(answers[0]));
    check('every posting has an id of its own', new Set(answers.map((answer) => answer.json.id)).size === 200);
    const name = encodeURIComponent('e.1 ä');
    await until('both histories', async () => (await history(a, name)).length >= 200 && (await history(b, name)).length >= 200);
    const [one, other] = [await history(a, name), await history(b, name)];
    check('both histories are the same', JSON.stringify(one) === JSON.stringify(other) && one.length === 200);
    check('the event\'s data goes with them', one[0].event_data.k === 1, JSON.stringify(one[0]));
    await until('every call', () => calls.size >= 200);
    check('each listener is called once', calls.size === 200 && [...calls.values()].every((count) => count === 1));

    // A posting with a key posts once.
    const keyed = [];
    for (const node of [a, b, a]) keyed.push(await node.call('POST', path, {n: 'keyed'}, {'Idempotency-Key': 'k1'}));
    check('the same key posts once', new Set(keyed.map((answer) => answer.json.id)).size === 1, JSON.stringify(keyed));
    check('no such event is 404', (await a.call('POST', '/api/v1/events/none', {})).status === 404);
    const large = await a.call('POST', '/api/v1/events', {event_name: 'large', event_data: {text: 'x'.repeat(1048500)}});
    check('what the engine cannot hold is 413', large.status === 413, JSON.stringify(large.json));

    // Timers.
    const start = new Date(Date.now() + 2000).toISOString();
    const timer = await a.call('POST', '/api/v1/timers', {event_name: 'race1', start_time: start});
    check('a timer is created', timer.status === 201, JSON.stringify(timer));
    const repeating = await b.call('POST', '/api/v1/timers', {event_name: 'race2', interval_sec: 1});
    check('a repeating timer is created', repeating.status === 201, JSON.stringify(repeating));
    await until('the timer fires', async () => (await history(b, 'race1')).length > 0);
    await until('the repeating one fires', async () => (await history(a, 'race2')).length >= 3);
    check('the timer fired once', (await history(a, 'race1')).length === 1);
    const times = (await history(a, 'race2')).map((record) => record.timestamp);
    check('each second has one firing at most', new Set(times).size >= times.length - 1, JSON.stringify(times));
    await until('the timer is gone everywhere', async () =>
        (await b.call('GET', '/api/v1/timers')).json.timer_list.length === 1);

    // A node dies: what it held goes on elsewhere.
    const cluster = (await a.call('GET', '/api/v1/cluster')).json;
    check('the cluster is described', cluster.nodes.length === 2 && cluster.timers_holder !== '', JSON.stringify(cluster));
    const [victim, survivor] = cluster.timers_holder === 'a' ? [a, b] : [b, a];
    const before = (await history(survivor, 'race2')).length;
    const killed = Date.now();
    victim.child.kill('SIGKILL');
    await until('another node fires the timers', async () =>
        (await survivor.call('GET', '/api/v1/cluster')).json.timers_holder === survivor.node);
    console.log(`     the timers were taken over after ${Date.now() - killed} ms`);
    await until('firings go on', async () => (await history(survivor, 'race2')).length > before + 2);

    // It comes back with the same registry.
    const again = await startNode(port, victim.node);
    await until('ready', async () => (await again.call('GET', '/readyz')).status === 200);
    const strip = (state) => JSON.stringify({...state, event_list: state.event_list});
    check('the registry is the same', strip((await again.call('GET', '/api/v1/queue')).json) ===
        strip((await survivor.call('GET', '/api/v1/queue')).json));

    // The engine goes away and comes back.
    const engine = started[0];
    engine.kill('SIGKILL');
    await until('the node says so', async () => (await survivor.call('GET', '/readyz')).status === 503);
    check('reading goes on', (await survivor.call('GET', '/api/v1/events')).status === 200);
    const refused = await survivor.call('POST', path, {n: 'away'});
    check('posting is refused', refused.status === 503 && refused.json.code === 'cluster-unavailable' &&
        refused.json.detail.includes('nothing was stored') && refused.headers.get('retry-after') !== null, JSON.stringify(refused.json));
    run(nats, ['-a', '127.0.0.1', '-p', String(port), '-js', '-sd', join(folder, 'store')], 'nats');
    await until('ready again', async () => (await survivor.call('GET', '/readyz')).status === 200);
    const accepted = await until('posting goes on', async () => {
        const answer = await survivor.call('POST', path, {n: 'back'});
        return answer.status === 202 && answer;
    });
    await until('the other node shows it', async () => {
        const records = await history(again, name);
        return records.some((record) => record.post_data?.n === 'back');
    });
    check('the epoch goes on', accepted.json.id.split('-')[0] === answers[0].json.id.split('-')[0]);
    check('what was refused is not posted', !(await history(again, name)).some((record) => record.post_data?.n === 'away'));
    listener.close();
    listener.closeAllConnections();
}

try {
    await main();
} catch (error) {
    console.log(`FAIL ${error.message}`);
    ++failures;
    for (const child of started) console.log(`---- ${child.log}\n${child.text.slice(-3000)}`);
}
for (const child of started) child.kill('SIGKILL');
rmSync(folder, {recursive: true, force: true});
console.log(failures ? `${failures} promises did not hold` : 'every promise held');
process.exit(failures ? 1 : 0);
