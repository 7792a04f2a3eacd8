// Runs what comes on standard input by one of npm's clients: clients.js redis|ioredis PORT
"use strict";

const clients = {
    async redis(port) {
        const client = await require("redis").createClient({socket: {port}}).connect();
        return {client, send: words => client.sendCommand(words), mset: pairs => client.mSet(pairs),
            scan: () => client.scanIterator({MATCH: "n:*", COUNT: 500})};
    },
    async ioredis(port) {
        const client = new (require("ioredis"))({port});
        return {client, send: words => client.call(...words), mset: pairs => client.mset(pairs),
            scan: () => client.scanStream({match: "n:*", count: 500})};
    },
};

async function callsOfItsOwn({client, send, mset, scan}) {
    await client.set("big", "x".repeat(1 << 20));
    await mset(Object.fromEntries(Array.from({length: 5000}, (_, i) => [`n:${i}`, String(i)])));
    const keys = new Set();
    for await (const some of scan()) some.forEach(key => keys.add(key));
    const numbers = await Promise.all(Array.from({length: 1000}, () => client.incr("counter"))); // as one pipeline
    const hello = await send(["HELLO"]);
    return [(await client.get("big")).length, await client.del([...keys].slice(0, 2000)), numbers.pop(), keys.size,
        hello.proto ?? hello[hello.indexOf("proto") + 1]];
}

async function run() {
    const client = await clients[process.argv[2]](Number(process.argv[3]));
    for (const line of require("fs").readFileSync(0, "utf8").trim().split("\n"))
        console.log(JSON.stringify(await client.send(line.split(" ")).catch(error => "!" + error.message)));
    console.log(JSON.stringify(await callsOfItsOwn(client)));
    await client.client.quit();
}

run().catch(error => { console.error(error.message); process.exit(1); });
