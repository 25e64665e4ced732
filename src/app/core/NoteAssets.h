#pragma once

#include <QByteArray>
#include <QString>

#include "Error.h"

// The files a note shows (its images) live beside it in "<note name>.assets/",
// referenced from the note by relative, percent-encoded paths, so the note and
// its folder can move together and any Markdown tool finds them.
namespace mossly::NoteAssets {

QString folderFor(const QString& noteFile);

// Adds `bytes` to the note's assets as a new file, never over an existing one:
// "name.png", else "name 2.png", "name 3.png"… The bytes are written whole and
// synced before the name appears (a crash leaves no half image). Returns the
// Markdown destination of the new file, relative to the note.
Result<QString> add(const QString& noteFile, const QString& fileName, const QByteArray& bytes);

// How `noteFile` links to `target` (another note, an asset): relative to the
// note's folder, each name percent-encoded, "/" between them.
QString markdownDestination(const QString& noteFile, const QString& target);

}  // namespace mossly::NoteAssets
