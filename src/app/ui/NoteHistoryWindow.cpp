#include "NoteHistoryWindow.h"

#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QLocale>
#include <QPushButton>
#include <QSplitter>
#include <QTextBrowser>
#include <QVBoxLayout>

#include "BackgroundTask.h"
#include "NoteHistory.h"
#include "NoteHistoryDiff.h"
#include "NoteStore.h"
#include "NoteStoreHistory.h"
#include "WordDiffHtml.h"

namespace mossly {

namespace {

QString whenText(FileTime time) {
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count());
    return QLocale().toString(when.toLocalTime(), QLocale::ShortFormat);
}

QString sizeText(qint64 bytes) { return QLocale().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat); }

QString bodyOf(const QString& text, const QString& identifier) {
    const auto type = noteContentTypeForFileName(identifier);
    return type ? NoteDocument(text, *type).body : text;
}

}  // namespace

NoteHistoryWindow::NoteHistoryWindow(NoteStore& store, QString url, std::optional<QString> preselect, QWidget* parent)
    : QDialog(parent), store_(store), url_(std::move(url)), preselect_(std::move(preselect)) {
    setObjectName(QStringLiteral("noteHistoryWindow"));
    const Note* note = store_.note(url_);
    identifier_ = note ? note->identifier : QString();
    setWindowTitle(tr("History of \u201C%1\u201D").arg(note ? note->title : identifier_));
    resize(900, 600);

    list_ = new QListWidget(this);
    list_->setObjectName(QStringLiteral("historyVersions"));
    diff_ = new QTextBrowser(this);
    diff_->setObjectName(QStringLiteral("historyComparison"));
    status_ = new QLabel(this);
    status_->setObjectName(QStringLiteral("historyStatus"));
    status_->setWordWrap(true);
    restore_ = new QPushButton(tr("Restore This Version"), this);
    restore_->setObjectName(QStringLiteral("historyRestore"));
    restore_->setEnabled(false);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    buttons->addButton(restore_, QDialogButtonBox::ActionRole);

    auto* splitter = new QSplitter(this);
    splitter->addWidget(list_);
    splitter->addWidget(diff_);
    splitter->setStretchFactor(1, 1);
    splitter->setSizes({300, 600});
    auto* layout = new QVBoxLayout(this);
    auto* legend = new QLabel(tr("Compared with the current text: green words were added since that version, "
                                 "red struck-through words were taken out."),
                              this);
    legend->setWordWrap(true);
    layout->addWidget(legend);
    layout->addWidget(splitter, 1);
    layout->addWidget(status_);
    layout->addWidget(buttons);

    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(list_, &QListWidget::currentRowChanged, this, &NoteHistoryWindow::compareSelected);
    connect(restore_, &QPushButton::clicked, this, &NoteHistoryWindow::restoreSelected);
    reload();
}

void NoteHistoryWindow::reload() {
    loaded_ = false;
    const NoteRepository repository = store_.repository();
    runInBackground(
        this, [repository, identifier = identifier_] { return noteTimeline(repository, identifier); },
        [this](Result<std::vector<NoteVersionInfo>> versions) { showVersions(std::move(versions)); });
}

void NoteHistoryWindow::showVersions(Result<std::vector<NoteVersionInfo>> versions) {
    const QSignalBlocker blocker(list_);
    list_->clear();
    versions_.clear();
    if (!versions) {
        status_->setText(versions.error().description());
    } else {
        versions_ = std::move(*versions);
        for (const NoteVersionInfo& version : versions_) {
            const QString who = editorDisplayName(version.editedBy.storedValue());
            const QString label = version.replacedBy
                                      ? tr("%1 \u2014 %2\n%3").arg(who, whenText(version.savedAt), sizeText(version.size))
                                      : tr("Current text \u2014 %1\n%2").arg(who, whenText(version.savedAt));
            list_->addItem(label);
        }
        if (versions_.size() < 2) status_->setText(tr("No earlier versions of this note are kept yet."));
    }
    int row = versions_.size() > 1 ? 1 : 0;
    if (preselect_) {
        for (size_t i = 0; i < versions_.size(); ++i) {
            if (versions_[i].revision == *preselect_) row = static_cast<int>(i);
        }
        preselect_.reset();
    }
    if (!versions_.empty()) list_->setCurrentRow(row);
    compareSelected();
    loaded_ = true;
    emit loadedChanged();
}

void NoteHistoryWindow::compareSelected() {
    const int row = list_->currentRow();
    restore_->setEnabled(row > 0 && versions_.front().replacedBy == std::nullopt);
    if (row < 0 || static_cast<size_t>(row) >= versions_.size()) {
        diff_->clear();
        return;
    }
    const quint64 wanted = ++comparison_;
    const NoteRepository repository = store_.repository();
    runInBackground(
        this,
        [repository, identifier = identifier_, chosen = versions_[static_cast<size_t>(row)].revision,
         current = versions_.front().revision]() -> Result<QString> {
            auto before = noteVersionText(repository, identifier, chosen);
            if (!before) return fail(before.error());
            auto after = noteVersionText(repository, identifier, current);
            if (!after) return fail(after.error());
            return wordDiffHtml(wordDiff(bodyOf(*before, identifier), bodyOf(*after, identifier)));
        },
        [this, wanted](Result<QString> html) {
            if (wanted != comparison_) return;
            if (html) {
                diff_->setHtml(*html);
            } else {
                diff_->setPlainText(html.error().description());
            }
        });
}

void NoteHistoryWindow::restoreSelected() {
    const int row = list_->currentRow();
    if (row <= 0 || static_cast<size_t>(row) >= versions_.size()) return;
    const NoteVersionInfo chosen = versions_[static_cast<size_t>(row)];
    auto restored = restoreNoteVersionInApp(store_, url_, chosen.revision, versions_.front().revision);
    if (!restored) {
        status_->setText(restored.error().code() == Error::Code::stale
                             ? tr("The note changed since this list was shown, so nothing was restored. "
                                  "The list now shows its latest versions.")
                             : restored.error().description());
        reload();
        return;
    }
    status_->setText(tr("Restored the version of %1. The text it replaced is kept in this list.")
                         .arg(whenText(chosen.savedAt)));
    reload();
}

}  // namespace mossly
