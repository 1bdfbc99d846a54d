// Reads the bags our writer produced with @mcap/core, indexed and streaming, with CRC
// validation on, and compares everything with what the writer says it wrote
// (<bag>.expected.json). Usage: node check_bags.mjs <dir>
import { McapIndexedReader, McapStreamReader } from "@mcap/core";
import { FileHandleReadable } from "@mcap/nodejs";
import { loadDecompressHandlers } from "@mcap/support";
import { open, readFile, readdir } from "node:fs/promises";

const dir = process.argv[2];
const handlers = await loadDecompressHandlers();
let failures = 0;
const fail = (what) => {
  console.error(`FAIL ${what}`);
  failures++;
};
const check = (condition, what) => condition || fail(what);
const hex = (bytes) => Buffer.from(bytes).toString("hex");
// Log times are compared to the millisecond: within one, our writer spaces messages a
// nanosecond apart in the order they came, which the streamed read checks.
const key = (m) => `${BigInt(m.log_time) / 1000000n}|${m.publish_time}|${m.topic}|${m.type}|${m.data}`;

const sameList = (a, b, what) =>
  check(a.length === b.length && a.every((x, i) => x === b[i]), `${what}: ${a.length} items of ${b.length}, or one differs`);

const names = (await readdir(dir)).filter((n) => n.endsWith(".kelobag")).sort();
check(names.length >= 3, `expected bags in ${dir}, found ${names.length}`);
for (const name of names) {
  const path = `${dir}/${name}`;
  const expected = JSON.parse(await readFile(`${path}.expected.json`, "utf8"));
  const wantKeys = expected.messages.map(key);

  // Indexed: summary, statistics, chunk indexes, message indexes.
  const handle = await open(path, "r");
  try {
    const reader = await McapIndexedReader.Initialize({
      readable: new FileHandleReadable(handle),
      decompressHandlers: handlers,
    });
    check(reader.header.profile === "", `${name}: profile`);
    check(reader.header.library.startsWith("libkelo_bag_aa "), `${name}: library`);
    const typeOf = (channel) => reader.schemasById.get(channel.schemaId)?.name ?? "";
    const pairs = new Set();
    for (const channel of reader.channelsById.values()) {
      const schema = reader.schemasById.get(channel.schemaId);
      check(schema !== undefined, `${name}: channel ${channel.id} has its schema in the summary`);
      check(channel.messageEncoding === "kelo", `${name}: message encoding`);
      check(schema.encoding === "" && schema.data.length === 0, `${name}: schema is a bare name`);
      pairs.add(`${channel.topic} ${typeOf(channel)}`);
    }
    const wantPairs = new Set(expected.messages.map((m) => `${m.topic} ${m.type}`));
    wantPairs.add("/declared kelo.Declared");
    sameList([...pairs].sort(), [...wantPairs].sort(), `${name}: channels`);

    const got = [];
    const perChannel = new Map();
    let last = -1n;
    for await (const m of reader.readMessages({ validateCrcs: true })) {
      const channel = reader.channelsById.get(m.channelId);
      check(m.logTime >= last, `${name}: indexed read in log time order`);
      last = m.logTime;
      perChannel.set(m.channelId, (perChannel.get(m.channelId) ?? 0n) + 1n);
      got.push(key({ log_time: m.logTime, publish_time: m.publishTime, topic: channel.topic,
                     type: typeOf(channel), data: hex(m.data) }));
    }
    sameList([...got].sort(), [...wantKeys].sort(), `${name}: indexed messages`);

    const stats = reader.statistics;
    const times = expected.messages.map((m) => BigInt(m.log_time));
    check(stats !== undefined, `${name}: statistics present`);
    check(stats.messageCount === BigInt(expected.messages.length), `${name}: message count`);
    const ms = (t) => t / 1000000n;
    check(ms(stats.messageStartTime) === ms(times.reduce((a, b) => (b < a ? b : a))), `${name}: start time`);
    check(ms(stats.messageEndTime) === ms(times.reduce((a, b) => (b > a ? b : a))), `${name}: end time`);
    check(stats.channelCount === reader.channelsById.size, `${name}: channel count`);
    check(stats.schemaCount === reader.schemasById.size, `${name}: schema count`);
    check(stats.chunkCount === reader.chunkIndexes.length, `${name}: chunk count`);
    for (const [id, count] of stats.channelMessageCounts) {
      check((perChannel.get(id) ?? 0n) === count, `${name}: messages of channel ${id}`);
    }
    // Readers choose chunks for a time range by their index's times.
    for (const c of reader.chunkIndexes) {
      check(c.messageStartTime >= stats.messageStartTime && c.messageStartTime <= c.messageEndTime &&
            c.messageEndTime <= stats.messageEndTime, `${name}: chunk at ${c.chunkStartOffset}: its times`);
    }
    const compressions = new Set(reader.chunkIndexes.map((c) => c.compression));
    const wantCompression = { zstd: "zstd", lz4: "lz4", none: "" }[expected.compression];
    check(compressions.has(wantCompression), `${name}: chunks use ${wantCompression}`);
  } catch (error) {
    fail(`${name}: indexed read: ${error.message}`);
  } finally {
    await handle.close();
  }

  // Streaming: every record in file order, CRCs checked, file complete.
  try {
    const stream = new McapStreamReader({ decompressHandlers: handlers, validateCrcs: true });
    stream.append(await readFile(path));
    const channels = new Map();
    const schemas = new Map();
    const got = [];
    let previous = -1n;
    for (let record; (record = stream.nextRecord()); ) {
      if (record.type === "Schema") schemas.set(record.id, record);
      if (record.type === "Channel") channels.set(record.id, record);
      if (record.type === "Message") {
        const channel = channels.get(record.channelId);
        if (record.logTime / 1000000n === previous / 1000000n) {
          check(record.logTime > previous, `${name}: a message of the same millisecond logged after the one before`);
        }
        previous = record.logTime;
        got.push(key({ log_time: record.logTime, publish_time: record.publishTime,
                       topic: channel.topic, type: schemas.get(channel.schemaId)?.name ?? "",
                       data: hex(record.data) }));
      }
    }
    check(stream.done(), `${name}: stream reader reached the end magic`);
    sameList(got, wantKeys, `${name}: streamed messages in write order`);
  } catch (error) {
    fail(`${name}: streaming read: ${error.message}`);
  }
  console.log(`checked ${name}: ${expected.messages.length} messages`);
}
if (failures > 0) console.error(`${failures} check(s) failed`);
process.exit(failures > 0 ? 1 : 0);
