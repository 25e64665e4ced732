#include "SketchThumbnailRenderer.h"

#include <QFileInfo>

#include "NoteStore.h"
#include "SketchNoteView.h"
#include "SketchThumbnails.h"

namespace mossly {

SketchThumbnailRenderer::SketchThumbnailRenderer(NoteStore& store, QObject* parent) : QObject(parent), store_(store) {
    timeout_.setSingleShot(true);
    timeout_.setInterval(perSketchTimeoutMs);
    connect(&timeout_, &QTimer::timeout, this, &SketchThumbnailRenderer::finishCurrent);
    release_.setSingleShot(true);
    release_.setInterval(idleReleaseMs);
    connect(&release_, &QTimer::timeout, this, [this] {
        if (current_.isEmpty() && queue_.isEmpty()) delete canvas_;
    });
}

SketchThumbnailRenderer::~SketchThumbnailRenderer() { delete canvas_; }

void SketchThumbnailRenderer::request(const QString& url) {
    if (url == current_ || queue_.contains(url)) return;
    queue_.append(url);
    if (current_.isEmpty()) next();
}

void SketchThumbnailRenderer::next() {
    while (!queue_.isEmpty()) {
        const QString url = queue_.takeFirst();
        const Note* note = store_.note(url);
        if (!note || note->contentType != NoteContentType::sketch) continue;
        if (QFileInfo::exists(SketchThumbnails::pathFor(url, note->revision))) continue;
        if (!canvas_) {
            canvas_ = new SketchNoteView(store_);
            // Laid out and painted like a visible canvas (a hidden page would not draw), never on screen.
            canvas_->setAttribute(Qt::WA_DontShowOnScreen);
            canvas_->resize(800, 600);
            canvas_->show();
            connect(canvas_, &SketchNoteView::thumbnailFiled, this, [this](const QString& filed) {
                emit thumbnailFiled(filed);
                if (filed == current_) finishCurrent();
            });
        }
        current_ = url;
        release_.stop();
        timeout_.start();
        canvas_->showNote(url);
        return;
    }
    release_.start();
}

void SketchThumbnailRenderer::finishCurrent() {
    timeout_.stop();
    current_.clear();
    QTimer::singleShot(0, this, &SketchThumbnailRenderer::next);
}

}  // namespace mossly
