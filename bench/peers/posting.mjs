// What a posting costs Node.js: found, stamped and recorded as a reference, a structured clone, or text; and what a
// record takes. posting.mjs time | posting.mjs memory
const event = { event_data: {} };
const events = new Map([['bench.event', event]]);
const data = { text: 'x'.repeat(101) };
const typical =
    '{"sensor":"door-17","state":"open","reading":21.5,"battery_percent":87,' +
    '"note":"opened from outside by badge","badge":4711}';

let second = 0;
let secondText = '';
function timestamp() {
    const now = Math.floor(Date.now() / 1000);
    if (now !== second) {
        second = now;
        secondText = new Date(now * 1000).toISOString().slice(0, 19) + '+00:00';
    }
    return secondText;
}

function record(name, posted) {
    return { event_name: name, timestamp: timestamp(), post_data: posted, event_data: events.get(name).event_data };
}

const stores = {
    references: (posting) => posting,
    clone: (posting) => structuredClone(posting),
    text: (posting) => JSON.stringify(posting),
};

function time(store, count) {
    const history = [];
    const start = process.hrtime.bigint();
    for (let i = 0; i < count; ++i) history.push(store(record('bench.event', data)));
    return Number(process.hrtime.bigint() - start) / count;
}

function memory(store, count) {
    const history = [];
    globalThis.gc();
    const before = process.memoryUsage().heapUsed;
    for (let i = 0; i < count; ++i) history.push(store(record('bench.event', JSON.parse(typical))));
    globalThis.gc();
    return (process.memoryUsage().heapUsed - before) / history.length;
}

for (const [name, store] of Object.entries(stores)) {
    if (process.argv[2] === 'memory') {
        console.log(`${name}_bytes ${memory(store, 100_000)}`);
    } else {
        time(store, 20_000);
        console.log(`${name}_ns ${time(store, name === 'references' ? 300_000 : 60_000)}`);
    }
}
