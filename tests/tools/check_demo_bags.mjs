// Reads the bags `kelo_bag demo` left with @mcap/core, indexed, CRCs checked, and compares
// what it finds with what `kelo_bag info --json` said about them. (The interop tests read
// our writer's files streaming too.)
// Usage: node check_demo_bags.mjs <dir> <info.json> <expected message count>
import { createRequire } from "node:module";
import { open, readFile, readdir } from "node:fs/promises";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";

// The MCAP packages are installed once, for the interop tests beside this folder.
const interop = join(dirname(fileURLToPath(import.meta.url)), "..", "interop");
const require = createRequire(join(interop, "package.json"));
const { McapIndexedReader } = require("@mcap/core");
const { FileHandleReadable } = require("@mcap/nodejs");
const { loadDecompressHandlers } = require("@mcap/support");

const [dir, infoPath, expectedText] = process.argv.slice(2);
const info = JSON.parse(await readFile(infoPath, "utf8"));
const handlers = await loadDecompressHandlers();
let failures = 0;
const check = (condition, what) => {
  if (!condition) {
    console.error(`FAIL ${what}`);
    failures++;
  }
};

const names = (await readdir(dir)).filter((n) => n.endsWith(".kelobag"));
check(names.length >= 3, `several parts in ${dir}, found ${names.length}`);
check(info.files.length === names.length, `info describes every part`);
let total = 0;
for (const described of info.files) {
  const name = described.path;
  const handle = await open(name, "r");
  try {
    const reader = await McapIndexedReader.Initialize({
      readable: new FileHandleReadable(handle),
      decompressHandlers: handlers,
    });
    const counts = new Map();
    let first = null;
    let last = null;
    let messages = 0;
    for await (const m of reader.readMessages({ validateCrcs: true })) {
      const channel = reader.channelsById.get(m.channelId);
      const type = reader.schemasById.get(channel.schemaId)?.name ?? "";
      const key = `${channel.topic} ${type}`;
      counts.set(key, (counts.get(key) ?? 0) + 1);
      first = first === null || m.logTime < first ? m.logTime : first;
      last = last === null || m.logTime > last ? m.logTime : last;
      messages++;
    }
    total += messages;
    check(messages === described.messages, `${name}: ${messages} messages, info says ${described.messages}`);
    check(Number(first / 1000000n) === described.start_ms, `${name}: start`);
    check(Number(last / 1000000n) === described.end_ms, `${name}: end`);
    check(reader.chunkIndexes.length === described.chunks, `${name}: chunks`);
    const kinds = new Set(reader.chunkIndexes.map((c) => c.compression || "none"));
    check([...kinds].sort().join("+") === described.compression.split("+").sort().join("+"),
          `${name}: compression ${[...kinds]} vs ${described.compression}`);
    // A part declares every topic recorded so far, also one with no message in this part.
    check(counts.size === described.topics.filter((t) => t.messages > 0).length, `${name}: topics`);
    for (const topic of described.topics) {
      check((counts.get(`${topic.topic} ${topic.type}`) ?? 0) === topic.messages, `${name}: ${topic.topic} count`);
      check(/^lcm:0x[0-9a-f]{16}$/.test(topic.type), `${name}: ${topic.topic} type ${topic.type}`);
    }
  } catch (error) {
    check(false, `${name}: indexed read: ${error.message}`);
  } finally {
    await handle.close();
  }
}
check(total === info.merged.messages, `merged count ${info.merged.messages} vs ${total}`);
check(total === Number(expectedText), `${total} messages in the bags, the demo recorded ${expectedText}`);
console.log(`demo bags: ${names.length} parts, ${total} messages, read by @mcap/core`);
process.exit(failures > 0 ? 1 : 0);
