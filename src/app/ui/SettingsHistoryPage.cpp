#include <QFormLayout>
#include <QLabel>
#include <QLocale>
#include <QPointer>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>

#include "BackgroundTask.h"
#include "NoteHistory.h"
#include "SettingsWindow.h"

namespace mossly {

namespace {

struct HistoryState {
    Result<NoteHistoryRetention> retention = NoteHistoryRetention{};
    Result<qint64> used = qint64{0};
};

HistoryState readState(NoteHistory& history) { return {history.retention(), history.storedBytes()}; }

}  // namespace

void SettingsWindow::addHistoryPage(std::shared_ptr<NoteHistory> history) {
    auto* page = new QWidget(this);
    page->setObjectName(QStringLiteral("historyPage"));
    auto* days = new QSpinBox(page);
    days->setObjectName(QStringLiteral("historyDays"));
    days->setRange(1, 3650);
    days->setSuffix(tr(" days"));
    auto* megabytes = new QSpinBox(page);
    megabytes->setObjectName(QStringLiteral("historyMegabytes"));
    megabytes->setRange(1, 100'000);
    megabytes->setSuffix(tr(" MB"));
    auto* usage = new QLabel(page);
    usage->setObjectName(QStringLiteral("historyUsage"));
    usage->setWordWrap(true);
    auto* explanation = new QLabel(
        tr("Mossly keeps earlier versions of your notes, with who saved them (you, an agent, the meeting recorder, "
           "an import), so that File \u25B8 Show History can bring any of them back. While you type, one version "
           "every few minutes is kept; the version before anyone else's change always is. A note in the Trash keeps "
           "its versions until these limits drop them, oldest first. Defaults: %1 days, %2 MB.")
            .arg(NoteHistoryRetention::defaultMaximumAgeDays)
            .arg(NoteHistoryRetention::defaultMaximumBytes / (1024 * 1024)),
        page);
    explanation->setWordWrap(true);
    auto* form = new QFormLayout;
    form->addRow(tr("Keep versions for"), days);
    form->addRow(tr("Keep at most"), megabytes);
    auto* layout = new QVBoxLayout(page);
    layout->addWidget(explanation);
    layout->addLayout(form);
    layout->addWidget(usage);
    layout->addStretch(1);
    days->setEnabled(false);
    megabytes->setEnabled(false);

    const auto show = [days, megabytes, usage](const HistoryState& state) {
        if (!state.retention) {
            usage->setText(state.retention.error().description());
            return;
        }
        const QSignalBlocker quietDays(days), quietMegabytes(megabytes);
        days->setValue(state.retention->maximumAgeDays);
        megabytes->setValue(static_cast<int>(state.retention->maximumBytes / (1024 * 1024)));
        days->setEnabled(true);
        megabytes->setEnabled(true);
        if (state.used) usage->setText(tr("The history now takes %1.").arg(QLocale().formattedDataSize(*state.used)));
    };
    runInBackground(page, [history] { return readState(*history); }, show);
    // The store applies new limits at once (dropping what no longer fits), off the GUI thread.
    const auto apply = [page, history, days, megabytes, usage, show] {
        const NoteHistoryRetention wanted{days->value(), qint64(megabytes->value()) * 1024 * 1024};
        runInBackground(
            page,
            [history, wanted] {
                auto set = history->setRetention(wanted);
                return std::pair{set, readState(*history)};
            },
            [usage, show](const std::pair<Result<void>, HistoryState>& outcome) {
                show(outcome.second);
                if (!outcome.first) usage->setText(outcome.first.error().description());
            });
    };
    connect(days, &QSpinBox::editingFinished, page, apply);
    connect(megabytes, &QSpinBox::editingFinished, page, apply);
    findChild<QTabWidget*>(QStringLiteral("settingsTabs"))->addTab(page, tr("History"));
}

}  // namespace mossly
