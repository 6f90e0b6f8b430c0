// A client of the engine as anybody would write it: nats-client.mjs URL SUBJECT posts {"n": "from nats"} and waits for
// JetStream's acknowledgement, and prints what it hears on the subject until "last" has come.
import {connect, JSONCodec} from 'nats';

const [servers, subject] = process.argv.slice(2);
const codec = JSONCodec();
const connection = await connect({servers});
const heard = connection.subscribe(subject);
await connection.flush();
console.log('listening');
const stored = await connection.jetstream().publish(subject, codec.encode({n: 'from nats'}));
console.log(`stored ${stored.stream} ${stored.seq}`);
for await (const message of heard) {
    const data = message.data.length ? codec.decode(message.data) : {};
    console.log(`heard ${JSON.stringify(data)}`);
    if (data.n === 'last') break;
}
await connection.close();
