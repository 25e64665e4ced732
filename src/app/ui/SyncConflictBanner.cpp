#include "SyncConflictBanner.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QTextBrowser>
#include <QTextDocument>
#include <QTimer>
#include <QVBoxLayout>
#include <algorithm>

#include "NoteHistoryDiff.h"
#include "NoteStore.h"
#include "WordDiffHtml.h"

namespace mossly {

SyncConflictBanner::SyncConflictBanner(NoteStore& store, QWidget* parent) : QFrame(parent), store_(store) {
    setObjectName(QStringLiteral("syncConflictBanner"));
    setStyleSheet(QStringLiteral("#syncConflictBanner { background: #fff4d6; border-bottom: 1px solid #e8c868; }"
                                 "#syncConflictBanner QLabel { color: #5a4300; }"));
    text_ = new QLabel(this);
    text_->setObjectName(QStringLiteral("syncConflictText"));
    text_->setWordWrap(true);
    diff_ = new QTextBrowser(this);
    diff_->setObjectName(QStringLiteral("syncConflictDiff"));
    diff_->setOpenLinks(false);
    keepThis_ = new QPushButton(tr("Keep This"), this);
    keepThis_->setToolTip(tr("Keep this note's text; the other version goes to the Trash"));
    keepOther_ = new QPushButton(tr("Keep Other"), this);
    keepOther_->setToolTip(tr("Replace this note's text with the other version, which then goes to the Trash"));
    keepBoth_ = new QPushButton(tr("Keep Both"), this);
    keepBoth_->setToolTip(tr("Keep this note as it is and the other version as a conflict copy beside it"));

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(text_, 1);
    buttons->addWidget(keepThis_);
    buttons->addWidget(keepOther_);
    buttons->addWidget(keepBoth_);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(buttons);
    layout->addWidget(diff_);

    connect(keepThis_, &QPushButton::clicked, this, [this] { resolve(SyncConflictChoice::keepThis); });
    connect(keepOther_, &QPushButton::clicked, this, [this] { resolve(SyncConflictChoice::keepOther); });
    connect(keepBoth_, &QPushButton::clicked, this, [this] { resolve(SyncConflictChoice::keepBoth); });
    connect(&store_, &NoteStore::notesChanged, this, &SyncConflictBanner::refresh);
    rediff_ = new QTimer(this);
    rediff_->setSingleShot(true);
    rediff_->setInterval(150);
    connect(rediff_, &QTimer::timeout, this, &SyncConflictBanner::refresh);
    // Copies come and go with the list (notesChanged); a text change matters only while one is shown.
    connect(&store_, &NoteStore::noteContentChanged, this, [this](const QString& url) {
        if (!copyUrl_.isEmpty() && (url == url_ || url == copyUrl_)) rediff_->start();
    });
    setVisible(false);
}

void SyncConflictBanner::setNote(const QString& url) {
    if (url == url_) return;
    url_ = url;
    refresh();
}

void SyncConflictBanner::refresh() {
    const auto copies = url_.isEmpty() ? std::vector<const Note*>{} : store_.syncConflictCopies(url_);
    if (copies.empty() || !store_.isBodyAvailable(url_) || !store_.isBodyAvailable(copies.front()->url)) {
        copyUrl_.clear();
        setVisible(false);
        return;
    }
    const QString copy = copies.front()->url;
    const QString mine = store_.body(url_);
    const QString other = store_.body(copy);
    const QString more = copies.size() > 1 ? tr(" (1 of %1)").arg(copies.size()) : QString();
    text_->setText(tr("This note was also changed on another machine (%1)%2. Struck-through words are only in this "
                      "version, highlighted words only in the other.")
                       .arg(store_.syncConflictDescription(copy), more));
    if (copy != copyUrl_ || diff_->property("mine") != mine || diff_->property("other") != other) {
        diff_->setHtml(wordDiffHtml(wordDiff(mine, other)));
        // As tall as the differences need, up to a few lines: the note stays in view below.
        const int available = parentWidget() ? parentWidget()->width() - 40 : diff_->viewport()->width();
        diff_->document()->setTextWidth(std::max(diff_->viewport()->width(), available));
        diff_->setFixedHeight(std::min(140, static_cast<int>(diff_->document()->size().height()) + 2 * diff_->frameWidth() + 4));
        diff_->setProperty("mine", mine);
        diff_->setProperty("other", other);
    }
    copyUrl_ = copy;
    setVisible(true);
}

void SyncConflictBanner::resolve(SyncConflictChoice choice) {
    if (url_.isEmpty() || copyUrl_.isEmpty()) return;
    (void)store_.resolveSyncConflict(url_, copyUrl_, choice);  // a refusal is told through problemOccurred
    refresh();
}

}  // namespace mossly
