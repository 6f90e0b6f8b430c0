// How long a posting at one node takes to the feed at another, beside a plain publish to JetStream that an ordered consumer hears,
// on three nats-servers and three nodes: latency.mjs ENGINE-URL NODE-A-PORT NODE-B-PORT EVENT [COUNT]. Prints one line of JSON.
import http from 'node:http';
import {connect, StringCodec} from 'nats';

const [engine, portA, portB, event, count = '2000'] = process.argv.slice(2);
const wanted = Number(count);
const agent = new http.Agent({keepAlive: true, maxSockets: 1});

function post(n) {
    return new Promise((resolve, reject) => {
        const request = http.request({port: portA, agent, method: 'POST', path: `/api/v1/events/${event}`,
            headers: {'Content-Type': 'application/json'}}, (answer) => { answer.resume(); answer.on('end', resolve); });
        request.on('error', reject);
        request.end(`{"n":${n}}`);
    });
}

async function measure(send, waiting) {
    const times = [];
    for (let n = 0; n < wanted; ++n) {
        const came = new Promise((resolve) => { waiting.resolve = resolve; });
        const began = process.hrtime.bigint();
        await Promise.all([send(n), came.then(() => times.push(Number(process.hrtime.bigint() - began) / 1e6))]);
    }
    times.sort((a, b) => a - b);
    const at = (share) => Number(times[Math.floor((times.length - 1) * share)].toFixed(3));
    return {p50_ms: at(0.5), p99_ms: at(0.99)};
}

const waiting = {resolve: () => {}};
await new Promise((resolve) => http.get({port: portB, path: '/api/v1/feed/sse'}, (answer) => {
    answer.on('data', (bytes) => { if (bytes.includes('"n":')) waiting.resolve(); });
    resolve();
}));
const cluster = await measure(post, waiting);

const connection = await connect({servers: engine});
const manager = await connection.jetstreamManager();
await manager.streams.add({name: 'beside', subjects: ['beside.>'], num_replicas: 3});
const stream = connection.jetstream();
const other = {resolve: () => {}};
const listening = await connect({servers: engine});
const consumer = await (await listening.jetstream().consumers.get('beside')).consume({callback: () => other.resolve()});
const text = StringCodec();
const plain = await measure((n) => stream.publish('beside.e', text.encode(`{"n":${n}}`)), other);
consumer.stop();
await manager.streams.delete('beside');
console.log(JSON.stringify({cluster, plain, ratio_p50: Number((cluster.p50_ms / plain.p50_ms).toFixed(2))}));
process.exit(0);
