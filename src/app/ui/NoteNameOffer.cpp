#include "NoteNameOffer.h"

#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QRegularExpression>

#include "NoteRepository.h"
#include "NoteStore.h"

namespace mossly {

namespace {

// The names new notes get before they have a title: "Untitled.md", "Untitled 2.md" …
bool isUntitledFileName(const QString& fileName) {
    static const QRegularExpression untitled(QStringLiteral("^Untitled( \\d+)?\\.[^.]+$"));
    return untitled.match(fileName).hasMatch();
}

}  // namespace

NoteNameOffer::NoteNameOffer(NoteStore& store, QWidget* parent) : QFrame(parent), store_(store) {
    setObjectName(QStringLiteral("noteNameOffer"));
    setFrameShape(QFrame::StyledPanel);
    text_ = new QLabel(this);
    text_->setObjectName(QStringLiteral("noteNameOfferText"));
    text_->setWordWrap(true);
    name_ = new QPushButton(this);
    name_->setObjectName(QStringLiteral("noteNameOfferButton"));
    notNow_ = new QPushButton(tr("Not Now"), this);
    notNow_->setFlat(true);
    // A click leaves the caret where the user was typing (F2 is there for the keyboard).
    name_->setFocusPolicy(Qt::NoFocus);
    notNow_->setFocusPolicy(Qt::NoFocus);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(8, 4, 8, 4);
    layout->addWidget(text_, 1);
    layout->addWidget(name_);
    layout->addWidget(notNow_);
    hide();

    pause_.setSingleShot(true);
    pause_.setInterval(pauseMilliseconds);
    connect(&pause_, &QTimer::timeout, this, [this] {
        if (!suggestedBaseName(url_).isEmpty()) offer(url_);
    });
    connect(&store_, &NoteStore::noteContentChanged, this, &NoteNameOffer::noteEdited);
    connect(&store_, &NoteStore::noteRenamed, this, [this](const QString& oldUrl, const QString& newUrl) {
        if (url_ == oldUrl) url_ = newUrl;
        if (offered_ == oldUrl) offer(newUrl);  // now named: the bar goes away
    });
    connect(notNow_, &QPushButton::clicked, this, [this] {
        declined_.insert(offered_);
        hide();
    });
    connect(name_, &QPushButton::clicked, this, [this] {
        const QString baseName = suggestedBaseName(offered_);
        if (baseName.isEmpty()) return;
        auto renamed = store_.renameNote(QString(offered_), baseName);
        if (!renamed) text_->setText(tr("The file could not be renamed: %1").arg(renamed.error().description()));
    });
}

void NoteNameOffer::setNote(const QString& url) {
    if (url == url_) return;
    const QString left = url_;
    url_ = url;
    pause_.stop();
    // The note opened comes first; else the one just left, if it still has its "Untitled" file.
    offer(suggestedBaseName(url_).isEmpty() ? left : url_);
}

void NoteNameOffer::noteEdited(const QString& url) {
    if (url != url_) return;
    if (offered_ == url_) hide();  // never in the way while the user types
    pause_.start();
}

QString NoteNameOffer::suggestedBaseName(const QString& url) const {
    const Note* note = url.isEmpty() || declined_.contains(url) ? nullptr : store_.note(url);
    if (!note || !isUntitledFileName(note->fileName())) return {};
    const QString baseName = NoteRepository::safeBaseName(note->title);
    return baseName.startsWith(QStringLiteral("Untitled")) ? QString() : baseName;
}

void NoteNameOffer::offer(const QString& url) {
    const QString baseName = suggestedBaseName(url);
    if (baseName.isEmpty()) {
        hide();
        return;
    }
    offered_ = url;
    const Note* note = store_.note(url);
    const QString fileName = baseName + u'.' + QFileInfo(note->fileName()).suffix();
    text_->setText(url == url_ ? tr("This note\u2019s file is still called \u201C%1\u201D.").arg(note->fileName())
                               : tr("\u201C%1\u201D is still saved as \u201C%2\u201D.").arg(note->title, note->fileName()));
    name_->setText(tr("Name the File \u201C%1\u201D").arg(fileName));
    show();
}

}  // namespace mossly
