// The independent reader of the reliability runs: reads each bag with @mcap/core's stream
// reader, CRCs checked, as far as it goes (an unfinished part ends early), and checks the
// numbers that lcm_publish put at the start of each payload on the given channel.
// Usage: node read_bags.mjs CHANNEL FILE...
// Prints one line per file ("<path> <messages> complete|unfinished|error: ...") and then
// "messages=N first=F last=L gaps=G duplicates=D disorder=O newest_ms=T".
import { createRequire } from "node:module";
import { readFile } from "node:fs/promises";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";

const interop = join(dirname(fileURLToPath(import.meta.url)), "..", "interop");
const require = createRequire(join(interop, "package.json"));
const { McapStreamReader } = require("@mcap/core");
const { loadDecompressHandlers } = require("@mcap/support");

const [channel, ...files] = process.argv.slice(2);
files.sort((a, b) => a.localeCompare(b, "en", { numeric: true }));
const handlers = await loadDecompressHandlers();
const seen = new Set();
let count = 0, first = null, last = null, duplicates = 0, disorder = 0, newest = 0n;
for (const file of files) {
  const reader = new McapStreamReader({ decompressHandlers: handlers, validateCrcs: true });
  const topics = new Map();
  let messages = 0, state = "unfinished";
  try {
    reader.append(await readFile(file));
    for (let record; (record = reader.nextRecord()) !== undefined;) {
      if (record.type === "Channel") topics.set(record.id, record.topic);
      if (record.type !== "Message") continue;
      messages++;
      if (record.logTime > newest) newest = record.logTime;
      if (topics.get(record.channelId) !== channel || record.data.length < 8) continue;
      const n = Number(Buffer.from(record.data.buffer, record.data.byteOffset, 8).readBigUInt64BE());
      if (seen.has(n)) duplicates++;
      else if (last !== null && n < last) disorder++;
      seen.add(n);
      first = first === null ? n : Math.min(first, n);
      last = last === null ? n : Math.max(last, n);
      count++;
    }
    if (reader.done()) state = "complete";
  } catch (error) {
    state = `error: ${error.message}`;
  }
  console.log(`${file} ${messages} ${state}`);
}
const gaps = first === null ? 0 : last - first + 1 - seen.size;
console.log(`messages=${count} first=${first ?? -1} last=${last ?? -1} gaps=${gaps} ` +
            `duplicates=${duplicates} disorder=${disorder} newest_ms=${newest / 1000000n}`);
