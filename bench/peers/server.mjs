// The same service in Node.js with the package "ws": registers one event, records postings, broadcasts them.
import http from 'node:http';
import { WebSocketServer } from 'ws';

const events = new Map([['bench.event', { event_data: {} }]]);
const history = [];
const retention = 30_000;

function post(name, data) {
    const timestamp = new Date().toISOString();
    const posting = { event_name: name, timestamp, post_data: data, event_data: events.get(name).event_data };
    const text = JSON.stringify(posting);
    history.push({ at: Date.now(), text });
    for (const client of feed.clients) client.send(text);
}

function answer(response, status, body) {
    const text = JSON.stringify(body);
    response.writeHead(status, { 'Content-Type': 'application/json', 'Content-Length': Buffer.byteLength(text) });
    response.end(text);
}

const server = http.createServer((request, response) => {
    const name = decodeURIComponent(request.url.slice('/api/v1/events/'.length));
    if (request.method !== 'POST' || !events.has(name)) return answer(response, 404, {});
    let text = '';
    request.setEncoding('utf8');
    request.on('data', (chunk) => (text += chunk));
    request.on('end', () => {
        post(name, text === '' ? undefined : JSON.parse(text));
        answer(response, 202, { event_name: name, posted: true });
    });
});
const feed = new WebSocketServer({ server, path: '/api/v1/feed', perMessageDeflate: false });

setInterval(() => {
    const horizon = Date.now() - retention;
    let expired = 0;
    while (expired < history.length && history[expired].at <= horizon) ++expired;
    history.splice(0, expired);
}, 500);

server.listen(0, '127.0.0.1', () => console.log(`port ${server.address().port}`));
process.stdin.on('end', () => process.exit(0)).resume();
