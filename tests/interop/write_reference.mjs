// Writes MCAP files with @mcap/core's writer for our reader to read, each with
// <file>.expected.json listing its messages and topics. Usage: node write_reference.mjs <dir>
import { McapWriter } from "@mcap/core";
import { FileHandleWritable } from "@mcap/nodejs";
import * as zstd from "@foxglove/wasm-zstd";
import { open, writeFile } from "node:fs/promises";

const dir = process.argv[2];
await zstd.isLoaded;

function payload(size, seed) {
  const out = new Uint8Array(size);
  let x = seed >>> 0;
  for (let i = 0; i < size; i++) {
    x = (Math.imul(x, 1103515245) + 12345) >>> 0;
    out[i] = i % 3 === 0 ? (x >>> 16) & 0xff : i % 11;
  }
  return out;
}

const variants = [
  { file: "ref-zstd.mcap", options: { chunkSize: 64 * 1024,
      compressChunk: (data) => ({ compression: "zstd", compressedData: zstd.compress(data, 3) }) } },
  { file: "ref-plain.mcap", options: { chunkSize: 16 * 1024 } },
  { file: "ref-unchunked.mcap", options: { useChunks: false } },
];

for (const variant of variants) {
  const path = `${dir}/${variant.file}`;
  const handle = await open(path, "w");
  const writer = new McapWriter({ writable: new FileHandleWritable(handle), ...variant.options });
  await writer.start({ profile: "x-test", library: "@mcap/core reference" });
  const points = await writer.registerSchema({ name: "kelo.Points", encoding: "jsonschema",
    data: new TextEncoder().encode('{"type":"object"}') });
  const pose = await writer.registerSchema({ name: "kelo.Pose", encoding: "protobuf",
    data: payload(40, 1) });
  const channels = [
    { id: await writer.registerChannel({ topic: "/points", schemaId: points, messageEncoding: "json", metadata: new Map() }),
      topic: "/points", type: "kelo.Points" },
    { id: await writer.registerChannel({ topic: "/pose", schemaId: pose, messageEncoding: "protobuf",
        metadata: new Map([["origin", "test"]]) }), topic: "/pose", type: "kelo.Pose" },
    { id: await writer.registerChannel({ topic: "/log", schemaId: 0, messageEncoding: "json", metadata: new Map() }),
      topic: "/log", type: "" },
  ];
  const messages = [];
  let t = 1700000000000000000n;
  for (let i = 0; i < 600; i++) {
    const channel = channels[i % channels.length];
    const size = i % 97 === 0 ? 70000 : i % 5 === 0 ? 0 : (i * 37) % 900;
    // Sub-millisecond parts and an occasional step back in time.
    const logTime = t + BigInt((i % 7) * 123457) - (i % 50 === 0 ? 40000000n : 0n);
    const publishTime = logTime + 999999n;
    const data = payload(size, i + 11);
    await writer.addMessage({ channelId: channel.id, sequence: i, logTime, publishTime, data });
    messages.push({ topic: channel.topic, type: channel.type, log_time: logTime.toString(),
                    publish_time: publishTime.toString(), data: Buffer.from(data).toString("hex") });
    t += 1000000n * BigInt(i % 3);
  }
  await writer.end();
  await handle.close();
  const topics = channels.map((c) => `${c.topic} ${c.type}`);
  await writeFile(`${path}.expected.json`, JSON.stringify({ file: path, messages, topics }));
  console.log(`wrote ${variant.file}: ${messages.length} messages`);
}
