// Writes the word list that generated English libraries draw from: common
// lower-case words of the word-vector package, so that meaning search has
// something to find. Usage: node english-words.mjs VECTORS_JSON OUTPUT
import { readFileSync, writeFileSync } from "node:fs";

const table = JSON.parse(readFileSync(process.argv[2], "utf8"));
const words = table.words.filter((w) => /^[a-z]{3,}$/.test(w)).slice(100, 30100);
writeFileSync(process.argv[3], words.join("\n"));
