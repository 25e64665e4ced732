// Bundles the sketch page for Qt WebEngine 6.4 (Chromium 102) into one folder
// of static files, every asset inlined: the page never loads anything else.
//   node build.mjs <output folder>
import { build } from 'esbuild'
import { copyFile, mkdir } from 'node:fs/promises'
import path from 'node:path'
import { fileURLToPath } from 'node:url'

const here = path.dirname(fileURLToPath(import.meta.url))
const out = process.argv[2]
if (!out) {
  console.error('usage: node build.mjs <output folder>')
  process.exit(2)
}

// Chromium 102 knows only the prefixed form of CSS masks with images, and
// tldraw sets its icons' masks as inline styles, which no CSS tool prefixes.
const prefixedIconMasks = {
  name: 'prefixed-icon-masks',
  setup(build) {
    build.onLoad({ filter: /TldrawUiIcon\.mjs$/ }, async (args) => {
      const { readFile } = await import('node:fs/promises')
      const source = await readFile(args.path, 'utf8')
      return { contents: source.replace(/\bmask: `url\(/g, 'WebkitMask: `url('), loader: 'js' }
    })
  },
}

// Each icon as a file of its own: the merged sprite's "#name" fragments do not
// resolve in data: URLs, where Chromium 102 then masks nothing.
const separateIcons = {
  name: 'separate-icons',
  setup(build) {
    build.onResolve({ filter: /^mossly:icons$/ }, () => ({ path: 'icons', namespace: 'mossly' }))
    build.onLoad({ filter: /.*/, namespace: 'mossly' }, async () => {
      const { readdir } = await import('node:fs/promises')
      const { createRequire } = await import('node:module')
      const folder = path.join(path.dirname(createRequire(import.meta.url).resolve('@tldraw/assets/package.json')), 'icons', 'icon')
      const names = (await readdir(folder)).filter((name) => name.endsWith('.svg') && !name.startsWith('0_'))
      const lines = names.map((name, i) => `import i${i} from ${JSON.stringify(path.join(folder, name))}`)
      lines.push(`export default {${names.map((name, i) => `${JSON.stringify(name.slice(0, -4))}: i${i}`).join(',')}}`)
      return { contents: lines.join('\n'), loader: 'js', resolveDir: folder }
    })
  },
}

// SVGs as base64 data: URLs. tldraw writes icon URLs into CSS unquoted, where
// the plain-text form (quotes, spaces, parentheses) is not a valid url().
const base64Svgs = {
  name: 'base64-svgs',
  setup(build) {
    build.onLoad({ filter: /\.svg$/ }, async (args) => {
      const { readFile } = await import('node:fs/promises')
      const data = (await readFile(args.path)).toString('base64')
      return { contents: `export default "data:image/svg+xml;base64,${data}"`, loader: 'js' }
    })
  },
}

await mkdir(out, { recursive: true })
await build({
  entryPoints: { sketch: path.join(here, 'sketch.jsx') },
  bundle: true,
  minify: true,
  target: 'chrome102',
  outdir: out,
  define: { 'process.env.NODE_ENV': '"production"' },
  loader: { '.woff2': 'dataurl', '.woff': 'dataurl', '.png': 'dataurl', '.json': 'dataurl' },
  plugins: [prefixedIconMasks, separateIcons, base64Svgs],
  logLevel: 'warning',
  legalComments: 'external',
})
await copyFile(path.join(here, 'index.html'), path.join(out, 'index.html'))
