// Drives `mossly-agent mcp` with the official MCP TypeScript client, the one
// agents themselves use: initialise, list the tools, then a whole editing
// session, checking every structured result against the tool's output schema.
// Usage: node mcp-client.mjs /path/to/mossly-agent
import { Client } from "@modelcontextprotocol/sdk/client/index.js";
import { StdioClientTransport } from "@modelcontextprotocol/sdk/client/stdio.js";
import Ajv from "ajv";
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, writeFileSync, existsSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

const agent = process.argv[2];
const home = mkdtempSync(join(tmpdir(), "mossly-mcp-"));
const notes = join(home, "notes");
const env = {
  PATH: process.env.PATH,
  HOME: home,
  XDG_DATA_HOME: join(home, "data"),
  XDG_CACHE_HOME: join(home, "cache"),
  XDG_CONFIG_HOME: join(home, "config"),
};
const run = (...args) => execFileSync(agent, args, { env, encoding: "utf8" });

// Access is off until the user turns it on: the server then refuses every tool.
const ajv = new Ajv({ strict: false });
const schemas = new Map();
let passed = 0;

async function connect() {
  const client = new Client({ name: "sdk-test", version: "1.0.0" });
  await client.connect(new StdioClientTransport({ command: agent, args: ["mcp", "--notes-dir", notes], env }));
  return client;
}

async function call(client, name, args) {
  const result = await client.callTool({ name, arguments: args });
  if (!result.isError && schemas.has(name)) {
    const validate = schemas.get(name);
    assert.ok(validate(result.structuredContent), `${name}: ${ajv.errorsText(validate.errors)}`);
    assert.deepEqual(JSON.parse(result.content[0].text), result.structuredContent);
  }
  return result;
}

async function step(name, body) {
  await body();
  passed += 1;
  console.log(`ok ${passed} - ${name}`);
}

let client;
await step("refused while agent access is off", async () => {
  client = await connect();
  const result = await call(client, "search_notes", { query: "x" });
  assert.equal(result.isError, true);
  assert.match(result.content[0].text, /Agent access to your notes is turned off/);
  await client.close();
  run("access", "on");
});

await step("initialise and list tools with schemas", async () => {
  client = await connect();
  assert.equal(client.getServerVersion().name, "mossly");
  const { tools } = await client.listTools();
  const names = tools.map((tool) => tool.name).sort();
  assert.deepEqual(names, ["create_note", "list_notes", "note_history", "read_note", "restore_note_version",
                           "search_notes", "trash_note", "update_note"]);
  for (const tool of tools) {
    assert.equal(tool.inputSchema.type, "object");
    assert.ok(tool.description.length > 40, `${tool.name} teaches nothing`);
    if (tool.outputSchema) schemas.set(tool.name, ajv.compile(tool.outputSchema));
  }
  assert.equal(schemas.size, 8);
  await client.ping();
});

let note;
await step("create, read", async () => {
  const created = await call(client, "create_note", {
    title: "Q3 budget",
    body: "# Q3 budget\nTravel is over plan.",
    fields: { "meeting-count": 3 },
  });
  assert.equal(created.isError, undefined);
  note = created.structuredContent;
  assert.equal(note.identifier, "Q3 budget.md");
  assert.equal(note.createdBy, "agent:sdk-test");
  const read = await call(client, "read_note", { identifier: note.identifier });
  assert.equal(read.structuredContent.revision, note.revision);
  assert.equal(read.structuredContent.frontMatter["meeting-count"], 3);
});

await step("a stale update is refused and writes nothing", async () => {
  // The user edits the note meanwhile (another writer, through the same lock).
  const path = join(notes, "Q3 budget.md");
  writeFileSync(path, readFileSync(path, "utf8").replace("Travel", "Hotels and travel"));
  const stale = await call(client, "update_note", {
    identifier: note.identifier,
    expectedRevision: note.revision,
    body: "# Q3 budget\nOverwritten!",
  });
  assert.equal(stale.isError, true);
  assert.equal(stale.content[0].text, "The note changed after it was read. Fetch it again before editing.");
  assert.match(readFileSync(path, "utf8"), /Hotels and travel/);
});

await step("re-read, update with the new revision", async () => {
  const fresh = (await call(client, "read_note", { identifier: note.identifier })).structuredContent;
  const updated = await call(client, "update_note", {
    identifier: note.identifier,
    expectedRevision: fresh.revision,
    body: fresh.body + "\nAgreed: cut conference trips.",
  });
  assert.equal(updated.isError, undefined);
  assert.equal(updated.structuredContent.lastEditedBy, "agent:sdk-test");
  assert.match(updated.structuredContent.body, /Hotels and travel is over plan\.\nAgreed/);
});

await step("history shows who changed the note; restore undoes the agent's edit", async () => {
  const { versions } = (await call(client, "note_history", { identifier: note.identifier })).structuredContent;
  // The current text, and the one the agent's update replaced (the user's edit, made outside the app).
  assert.deepEqual(versions.map((v) => v.editedBy), ["agent:sdk-test", "agent:sdk-test"]);
  assert.ok(versions.every((v) => v.size > 0 && !Number.isNaN(Date.parse(v.savedAt))));
  const current = versions[0].revision;
  const beforeAgent = versions[1].revision;
  // A revision that is no longer current: refused, nothing written.
  const stale = await call(client, "restore_note_version", {
    identifier: note.identifier, version: beforeAgent, expectedRevision: note.revision,
  });
  assert.equal(stale.isError, true);
  assert.equal(stale.content[0].text, "The note changed after it was read. Fetch it again before editing.");
  const restored = await call(client, "restore_note_version", {
    identifier: note.identifier, version: beforeAgent, expectedRevision: current,
  });
  assert.equal(restored.isError, undefined);
  assert.doesNotMatch(restored.structuredContent.body, /Agreed/);
  assert.match(readFileSync(join(notes, note.identifier), "utf8"), /Hotels and travel is over plan\.\n?/);
  const after = (await call(client, "note_history", { identifier: note.identifier })).structuredContent;
  assert.equal(after.versions.length, 3, "the restore kept the text it replaced");
  // The same rules as every other tool: no access, no history.
  run("access", "off");
  const refused = await call(client, "note_history", { identifier: note.identifier });
  assert.equal(refused.isError, true);
  run("access", "on");
  // Put the agent's words back so the steps below find them.
  const again = await call(client, "restore_note_version", {
    identifier: note.identifier, version: current, expectedRevision: restored.structuredContent.revision,
  });
  assert.match(again.structuredContent.body, /Agreed/);
});

await step("search finds it, including a note written by another process", async () => {
  const found = await call(client, "search_notes", { query: "conference" });
  assert.equal(found.structuredContent.results[0].identifier, "Q3 budget.md");
  writeFileSync(join(notes, "Offsite.md"), "# Offsite\nconference venue shortlist");
  const later = await call(client, "search_notes", { query: "venue" });
  assert.equal(later.structuredContent.results[0]?.identifier, "Offsite.md");
});

await step("search by meaning, and each mode says what it used", async () => {
  // The client checks every answer against the tool's output schema. The server
  // embeds notes on a thread of its own: until then keyword results say so.
  let meaning;
  for (let tries = 0; tries < 200; tries++) {
    meaning = await call(client, "search_notes", { query: "event location", mode: "meaning" });
    if (!meaning.structuredContent.warning) break;
    assert.equal(meaning.structuredContent.warning, "Meaning search is still indexing; keyword results were returned.");
    assert.equal(meaning.structuredContent.semanticAvailable, false);
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
  assert.equal(meaning.structuredContent.semanticAvailable, true);
  const offsite = meaning.structuredContent.results.find((r) => r.identifier === "Offsite.md");
  assert.ok(offsite && offsite.meaningScore > 0 && offsite.keywordScore === 0);
  const keyword = await call(client, "search_notes", { query: "event location", mode: "keyword" });
  assert.equal(keyword.structuredContent.results.length, 0);
  assert.equal(keyword.structuredContent.semanticAvailable, false);
  const hybrid = await call(client, "search_notes", { query: "venue" });
  assert.equal(hybrid.structuredContent.results[0].identifier, "Offsite.md");
  assert.equal(hybrid.structuredContent.semanticAvailable, true);
  const bad = await call(client, "search_notes", { query: "venue", mode: "fuzzy" });
  assert.equal(bad.isError, true);
});

await step("list pages through the notes", async () => {
  const first = await call(client, "list_notes", { limit: 1 });
  assert.equal(first.structuredContent.notes.length, 1);
  const second = await call(client, "list_notes", { limit: 1, cursor: first.structuredContent.nextCursor });
  assert.equal(second.structuredContent.notes.length, 1);
  assert.equal(second.structuredContent.nextCursor, undefined);
  assert.notEqual(first.structuredContent.notes[0].identifier, second.structuredContent.notes[0].identifier);
});

await step("trash, and errors are tool results", async () => {
  const trashed = await call(client, "trash_note", { identifier: "Offsite.md" });
  assert.deepEqual(trashed.structuredContent, { identifier: "Offsite.md", trashed: true });
  assert.equal(existsSync(join(notes, "Offsite.md")), false);
  const missing = await call(client, "read_note", { identifier: "Offsite.md" });
  assert.equal(missing.isError, true);
  const escaping = await call(client, "read_note", { identifier: "../outside.md" });
  assert.equal(escaping.isError, true);
  await assert.rejects(client.callTool({ name: "no_such_tool", arguments: {} }));
  await client.close();
});

console.log(`${passed} passed, 0 failed`);
