#pragma once

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QTimer>

namespace mossly {

class NoteStore;
class SketchNoteView;

// Draws the list's pictures of sketches nobody has opened yet. A canvas of its
// own, never on screen and never edited, shows one sketch after another and
// files each picture as the open canvas does; only sketches the list asks for
// (those it is showing) are drawn. The canvas goes away when the queue has been
// empty for a while, so a library of text notes pays nothing.
class SketchThumbnailRenderer : public QObject {
    Q_OBJECT
public:
    static constexpr int perSketchTimeoutMs = 10000;  // an empty or unreadable sketch draws nothing
    static constexpr int idleReleaseMs = 30000;

    explicit SketchThumbnailRenderer(NoteStore& store, QObject* parent = nullptr);
    ~SketchThumbnailRenderer() override;

    void request(const QString& url);

signals:
    void thumbnailFiled(const QString& url);

private:
    void next();
    void finishCurrent();

    NoteStore& store_;
    QPointer<SketchNoteView> canvas_;
    QStringList queue_;
    QString current_;
    QTimer timeout_;
    QTimer release_;
};

}  // namespace mossly
