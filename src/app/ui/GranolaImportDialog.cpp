#include "GranolaImportDialog.h"

#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

#include "BackgroundTask.h"
#include "Diagnostics.h"
#include "NoteStore.h"

namespace mossly {

std::shared_ptr<GranolaKeyStore> granolaKeyStore() {
    static std::shared_ptr<GranolaKeyStore> store = SecretServiceKeyStore::isAvailable()
                                                        ? std::shared_ptr<GranolaKeyStore>(std::make_shared<SecretServiceKeyStore>())
                                                        : std::make_shared<SessionKeyStore>();
    return store;
}

GranolaImportDialog::GranolaImportDialog(NoteStore& store, std::shared_ptr<GranolaKeyStore> keys, QString baseUrl,
                                         QWidget* parent)
    : QDialog(parent), store_(store), keys_(std::move(keys)), baseUrl_(std::move(baseUrl)) {
    setObjectName(QStringLiteral("granolaImport"));
    setWindowTitle(tr("Import from Granola"));
    key_ = new QLineEdit(this);
    key_->setEchoMode(QLineEdit::Password);
    key_->setPlaceholderText(tr("grn_…"));
    if (const auto saved = keys_->key()) key_->setText(*saved);
    keyNote_ = new QLabel(keys_->isPersistent()
                              ? tr("The key is kept in your keyring.")
                              : tr("No keyring (Secret Service) is running: the key is kept for this session only."),
                          this);
    keyNote_->setWordWrap(true);
    progress_ = new QProgressBar(this);
    progress_->setVisible(false);
    report_ = new QPlainTextEdit(this);
    report_->setReadOnly(true);
    report_->setVisible(false);
    import_ = new QPushButton(tr("Import"), this);
    import_->setDefault(true);

    auto* form = new QFormLayout;
    form->addRow(tr("Granola API key:"), key_);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(tr("Your Granola meeting notes become Mossly notes, and running the import again "
                                    "brings in what changed. Notes you edited in Mossly are never overwritten."),
                                 this));
    layout->addLayout(form);
    layout->addWidget(keyNote_);
    layout->addWidget(progress_);
    layout->addWidget(report_, 1);
    layout->addWidget(import_, 0, Qt::AlignRight);
    connect(import_, &QPushButton::clicked, this, &GranolaImportDialog::startImport);
    resize(520, 360);
}

void GranolaImportDialog::startImport() {
    const QString key = key_->text().trimmed();
    if (key.isEmpty()) return;
    if (auto stored = keys_->store(key); !stored) keyNote_->setText(stored.error().description());
    import_->setEnabled(false);
    progress_->setVisible(true);
    progress_->setRange(0, 0);  // busy until the list is in
    (void)store_.flushPendingSaves();

    QPointer<GranolaImportDialog> self(this);
    const auto onProgress = [self](int done, int total) {
        QMetaObject::invokeMethod(
            qApp,
            [self, done, total] {
                if (!self) return;
                self->progress_->setRange(0, std::max(total, 1));
                self->progress_->setValue(done);
            },
            Qt::QueuedConnection);
    };
    GranolaClient::Options options;
    options.baseUrl = baseUrl_;
    options.apiKey = key;
    const NoteRepository repository(store_.directory());
    const QString directory = store_.directory();
    auto span = std::make_shared<DiagnosticsCenter::Span>(DiagnosticsCenter::shared(), QStringLiteral("Import from Granola"));
    runInBackground(
        this,
        [options, repository, directory, onProgress] {
            GranolaClient client(options, GranolaClient::realTimeLimiter());
            return GranolaSync(client, repository, directory).run(onProgress);
        },
        [this, span](GranolaImportReport report) {
            span->add(QStringLiteral("imported"), static_cast<qint64>(report.imported.size()));
            if (report.stoppedBecause) span->fail(*report.stoppedBecause);
            (void)store_.reloadFromDiskPreservingSelection();
            store_.applyGranolaFolders(report.folders);
            showReport(report);
            emit finished(report);
        });
}

void GranolaImportDialog::showReport(const GranolaImportReport& report) {
    QStringList lines;
    lines.append(tr("%n note(s) imported, ", nullptr, static_cast<int>(report.imported.size())) +
                 tr("%n updated.", nullptr, static_cast<int>(report.updated.size())));
    for (const QString& copy : report.conflictCopies) {
        lines.append(tr("You had edited a note that changed in Granola; the new version is kept as \u201C%1\u201D.").arg(copy));
    }
    for (const QString& skipped : report.skipped) lines.append(tr("Not brought back (you deleted it): %1").arg(skipped));
    for (const auto& [title, reason] : report.failed) lines.append(tr("Not imported: %1 (%2)").arg(title, reason));
    if (report.stoppedBecause) {
        lines.append(*report.stoppedBecause);
        lines.append(tr("The next import continues where this one stopped."));
    }
    reportText_ = lines.join(u'\n');
    progress_->setVisible(false);
    report_->setPlainText(reportText_);
    report_->setVisible(true);
    import_->setEnabled(true);
}

}  // namespace mossly
