// HTTP calls from Node.js, a new connection each: callers.mjs URL CALLS IN_FLIGHT
import http from 'node:http';

const [url, calls, inFlight] = [process.argv[2], Number(process.argv[3]), Number(process.argv[4])];
const body = JSON.stringify({
    event_name: 'bench.event',
    timestamp: '2026-03-01T12:00:00+00:00',
    post_data: { sensor: 'door-17', state: 'open', reading: 21.5, note: 'opened from outside by badge' },
    event_data: {},
    listener_data: { priority: 1 },
});
const headers = { 'Content-Type': 'application/json', 'Content-Length': Buffer.byteLength(body) };
let started = 0;
let ended = 0;
const start = process.hrtime.bigint();

function call() {
    if (started === calls) return;
    ++started;
    const request = http.request(url, { method: 'POST', agent: false, headers }, (response) => {
        if (response.statusCode !== 200) throw new Error(`status ${response.statusCode}`);
        response.resume().on('end', () => {
            if (++ended === calls) {
                console.log(`calls_per_s ${calls / (Number(process.hrtime.bigint() - start) / 1e9)}`);
                process.exit(0);
            }
            call();
        });
    });
    request.end(body);
}
for (let i = 0; i < inFlight; ++i) call();
