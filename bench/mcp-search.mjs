// Times search_notes through `mossly-agent mcp` as an agent sees it: round
// trips over stdio with the official client, on a generated library, and how
// soon a note written by another process is found.
// Usage: node mcp-search.mjs /path/to/mossly-agent NOTES_DIR
import { Client } from "@modelcontextprotocol/sdk/client/index.js";
import { StdioClientTransport } from "@modelcontextprotocol/sdk/client/stdio.js";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readdirSync, readFileSync, writeFileSync, unlinkSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

const [agent, notes, modesFlag] = process.argv.slice(2);
const withModes = modesFlag === "--modes";
const home = mkdtempSync(join(tmpdir(), "mossly-bench-mcp-"));
const env = { PATH: process.env.PATH, HOME: home, XDG_DATA_HOME: join(home, "data"), XDG_CACHE_HOME: join(home, "cache") };
execFileSync(agent, ["access", "on"], { env });

// Queries as in the search benchmark: 1-3 words drawn uniformly from the
// library's vocabulary, and the most common words on their own (seeded).
let seed = 11;
const random = () => ((seed = (seed * 1103515245 + 12345) % 2147483648) / 2147483648);
const counts = new Map();
for (const name of readdirSync(notes).filter((n) => n.endsWith(".md")).slice(0, 400)) {
  for (const word of readFileSync(join(notes, name), "utf8").toLowerCase().match(/\p{L}{4,}/gu) ?? []) {
    counts.set(word, (counts.get(word) ?? 0) + 1);
  }
}
const vocabulary = [...counts.keys()].sort();
const queries = Array.from({ length: 300 }, () =>
  Array.from({ length: 1 + Math.floor(random() * 3) }, () => vocabulary[Math.floor(random() * vocabulary.length)]).join(" "));
const common = [...counts.entries()].sort((a, b) => b[1] - a[1]).slice(0, 50).map(([word]) => word);

const client = new Client({ name: "bench", version: "1" });
await client.connect(new StdioClientTransport({ command: agent, args: ["mcp", "--notes-dir", notes], env }));
const search = async (query, mode = "hybrid") => {
  const started = performance.now();
  // A first search of a large library indexes it: more than the client's usual minute.
  const result = await client.callTool({ name: "search_notes", arguments: { query, limit: 20, mode } }, undefined,
                                       { timeout: 600000 });
  return { ms: performance.now() - started, result };
};
const percentile = (values, p) => values.slice().sort((a, b) => a - b)[Math.min(values.length - 1, Math.floor(values.length * p))];

const first = await search("initial");
// Meaning search indexes on the server's own thread after the keyword index;
// until it is done, searches say so. Wait for it, and time it.
const meaningStarted = performance.now();
if (withModes) {
  while ((await search("initial", "meaning")).result.structuredContent.warning) await new Promise((r) => setTimeout(r, 200));
}
const meaningIndexMs = performance.now() - meaningStarted;
const modes = withModes ? ["keyword", "meaning", "hybrid"] : ["keyword"];
const timesByMode = {};
for (const mode of modes) {
  timesByMode[mode] = [];
  for (const query of queries) timesByMode[mode].push((await search(query, mode)).ms);
}
const times = timesByMode.keyword;
const commonTimes = [];
for (const query of common) commonTimes.push((await search(query, "keyword")).ms);

const freshness = [];
for (let i = 0; i < 5; i++) {
  const token = `zqxfresh${i}marker`;
  const file = join(notes, `Fresh ${i}.md`);
  writeFileSync(file, `# Fresh ${i}\n${token}\n`);
  const written = performance.now();
  while (!(await search(token, "keyword")).result.structuredContent.results.length) await new Promise((r) => setTimeout(r, 20));
  freshness.push(performance.now() - written);
  unlinkSync(file);
}
await client.close();
const f = (ms) => ms.toFixed(1);
console.log(`| first search (opens and syncs the catalog) | ${f(first.ms)} ms |`);
if (withModes) console.log(`| then meaning search ready after (indexing on the server's thread) | ${f(meaningIndexMs)} ms |`);
console.log(`| search_notes round trip, ${queries.length} uniform 1-3 word queries | p50 ${f(percentile(times, 0.5))} ms, p95 ${f(percentile(times, 0.95))} ms |`);
for (const mode of modes.slice(1)) {
  const t = timesByMode[mode];
  console.log(`| search_notes round trip, ${mode}, ${queries.length} uniform 1-3 word queries | p50 ${f(percentile(t, 0.5))} ms, p95 ${f(percentile(t, 0.95))} ms |`);
}
console.log(`| search_notes round trip, ${common.length} common single words | p50 ${f(percentile(commonTimes, 0.5))} ms, p95 ${f(percentile(commonTimes, 0.95))} ms |`);
console.log(`| a note written by another process is found after | median ${f(percentile(freshness, 0.5))} ms, max ${f(Math.max(...freshness))} ms |`);
