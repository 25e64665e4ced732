#pragma once

#include <QByteArray>
#include <QString>

// Small pictures of sketches for the note list, drawn by the sketch canvas and
// kept in the caches folder by note and revision: a sketch changed elsewhere
// shows no picture until it has been drawn again, never a wrong one.
namespace mossly::SketchThumbnails {

// Where the picture of this revision of the note lives (it may not exist).
QString pathFor(const QString& noteUrl, const QString& revision);
// Writes the picture (PNG bytes); false when the caches folder cannot take it.
bool store(const QString& noteUrl, const QString& revision, const QByteArray& png);

}  // namespace mossly::SketchThumbnails
