// The sketch canvas inside Mossly: a tldraw editor that takes its drawing
// from the app and hands every change back. Nothing here touches the network
// or the disk: the app owns the file, its saves and its conflicts.
import React from 'react'
import { createRoot } from 'react-dom/client'
import { Tldraw, parseTldrawJsonFile } from 'tldraw'
import { getAssetUrlsByImport } from '@tldraw/assets/imports'
import 'tldraw/tldraw.css'

import icons from 'mossly:icons'

const assetUrls = { ...getAssetUrlsByImport(), icons }
const saveDelayMs = 250

let editor = null
let bridge = null
let applyingHostDocument = false
let readOnly = false
let pendingSave = null
let shownNote = ''  // the app's name for the note on the canvas
let noteFolderUrl = ''  // file: URL of the note's folder, where its images live

function readAsBase64(file) {
  return new Promise((resolve, reject) => {
    const reader = new FileReader()
    reader.onload = () => resolve(String(reader.result).replace(/^data:[^,]*,/, ''))
    reader.onerror = () => reject(reader.error)
    reader.readAsDataURL(file)
  })
}

// Images dropped or pasted onto the canvas are files beside the note (its
// assets folder), never kept inside the drawing. The drawing refers to them as
// "asset:" and the path relative to the note (tldraw takes only URLs there).
const relativeAsset = 'asset:'
const assetStore = {
  async upload(asset, file) {
    const data = await readAsBase64(file)
    const note = shownNote
    const src = await new Promise((resolve) => bridge.storeAsset(note, file.name || 'Image', data, resolve))
    if (!src) throw new Error('The image could not be saved beside the sketch.')
    return { src: relativeAsset + src }
  },
  resolve(asset) {
    const src = asset.props.src
    if (!src?.startsWith(relativeAsset) || !noteFolderUrl) return src
    return noteFolderUrl + '/' + src.slice(relativeAsset.length)
  },
}

function showNotice(text) {
  const notice = document.getElementById('notice')
  notice.textContent = text
  notice.style.display = text ? 'block' : 'none'
}

// Whether the file was written by a tldraw that knows more than this bundle:
// a record type it does not have, or a later version of one it has.
function isFromNewerTldraw(json) {
  try {
    const theirs = JSON.parse(json)?.schema?.sequences ?? {}
    const ours = editor.store.schema.serialize().sequences
    return Object.entries(theirs).some(([name, version]) => !(name in ours) || version > ours[name])
  } catch {
    return false
  }
}

function describe(error, json) {
  if (error?.type === 'v1') return 'This sketch was made with an old version of tldraw that Mossly cannot open.'
  if (isFromNewerTldraw(json)) {
    return 'This sketch was made with a newer version of tldraw. It is shown read-only and left exactly as it is.'
  }
  return 'This sketch could not be read. It is left exactly as it is.'
}

function setReadOnly(value) {
  readOnly = value
  editor.updateInstanceState({ isReadonly: value })
}

// The app's text of the note, as the canvas shows it. A file the bundle cannot
// read is never rewritten: the canvas goes read-only and says why.
function loadDocument(note, json, dark, folderUrl) {
  if (pendingSave) save()  // the drawing on the canvas is saved before another replaces it
  shownNote = note
  noteFolderUrl = folderUrl
  editor.user.updateUserPreferences({ colorScheme: dark ? 'dark' : 'light' })
  const parsed = parseTldrawJsonFile({ json, schema: editor.store.schema })
  if (!parsed.ok) {
    const message = describe(parsed.error, json)
    setReadOnly(true)
    showNotice(message)
    bridge.documentRefused(note, message)
    return
  }
  applyingHostDocument = true
  // A loaded snapshot brings its own instance state, unfocused: tldraw would then
  // ignore every key (its tools' letters, undo) until the page lost and regained focus.
  const wasFocused = editor.getInstanceState().isFocused || document.hasFocus()
  try {
    const snapshot = parsed.value.getStoreSnapshot()
    editor.store.mergeRemoteChanges(() => editor.store.loadStoreSnapshot(snapshot))
  } finally {
    applyingHostDocument = false
  }
  if (wasFocused) editor.updateInstanceState({ isFocused: true })
  setReadOnly(false)
  showNotice('')
  window.mosslyLoads = (window.mosslyLoads || 0) + 1
  renderThumbnail(note)
}

// A small picture of the drawing for the note list, after each load and save.
async function renderThumbnail(note) {
  try {
    const shapes = [...editor.getCurrentPageShapeIds()]
    if (!shapes.length || note !== shownNote) return
    // About 192 px on its longer side whatever the drawing's size: sharp in the list, never huge.
    const bounds = editor.getCurrentPageBounds()
    const longest = Math.max(bounds?.width ?? 0, bounds?.height ?? 0, 1)
    const scale = Math.min(1, 192 / longest)
    const { blob } = await editor.toImage(shapes, { format: 'png', scale, background: true, padding: 16 })
    if (note === shownNote) bridge.thumbnailRendered(note, await readAsBase64(blob))
  } catch (error) {
    console.warn('thumbnail', error)
  }
}

// The note's text: the drawing's document records in tldraw's file format,
// taken at once (never after another note has replaced them).
function save() {
  if (pendingSave) clearTimeout(pendingSave)
  pendingSave = null
  if (readOnly || !shownNote) return
  const json = JSON.stringify({
    tldrawFileFormatVersion: 1,
    schema: editor.store.schema.serialize(),
    records: Object.values(editor.store.serialize('document')),
  })
  bridge.documentEdited(shownNote, json)
  renderThumbnail(shownNote)
}

function connect() {
  // A click on the canvas is the user turning to it, whatever tldraw last heard of focus.
  document.addEventListener('pointerdown', () => {
    if (!editor.getInstanceState().isFocused) editor.updateInstanceState({ isFocused: true })
  }, true)
  new QWebChannel(qt.webChannelTransport, (channel) => {
    bridge = channel.objects.bridge
    bridge.documentLoaded.connect(loadDocument)
    bridge.themeChanged.connect((dark) => editor.user.updateUserPreferences({ colorScheme: dark ? 'dark' : 'light' }))
    bridge.flushRequested.connect(() => {
      if (pendingSave) save()
      bridge.pageFlushed()
    })
    editor.store.listen(() => {
      if (applyingHostDocument || readOnly) return
      if (pendingSave) clearTimeout(pendingSave)
      pendingSave = setTimeout(save, saveDelayMs)
    }, { source: 'user', scope: 'document' })
    bridge.pageReady()
  })
}

function App() {
  return <Tldraw assetUrls={assetUrls} assets={assetStore} onMount={(mounted) => {
    editor = mounted
    window.mosslyEditor = mounted  // for the app's tests
    connect()
  }} />
}

createRoot(document.getElementById('root')).render(<App />)
