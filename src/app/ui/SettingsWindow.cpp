#include "SettingsWindow.h"

#include <QCheckBox>
#include <QComboBox>
#include <QHBoxLayout>
#include <QFileInfo>
#include <QFormLayout>
#include <QGridLayout>
#include <QLabel>
#include <QMessageBox>
#include <QDialogButtonBox>
#include <QPushButton>
#include <QSettings>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>

#include "AgentAccess.h"
#include "AgentCommandInstall.h"
#include "LinkPreviews.h"
#include "MeetingRecorder.h"
#include "MeetingRecorderWindow.h"

namespace mossly {

SettingsWindow::SettingsWindow(LinkPreviews& previews, std::function<void(qreal)> applyFontSize, Agents agents,
                               QWidget* parent)
    : QDialog(parent), previews_(previews), applyFontSize_(std::move(applyFontSize)), agents_(std::move(agents)) {
    setObjectName(QStringLiteral("settingsWindow"));
    setWindowTitle(tr("Settings"));
    auto* tabs = new QTabWidget(this);
    tabs->setObjectName(QStringLiteral("settingsTabs"));
    tabs->addTab(editorPage(), tr("Editor"));
    tabs->addTab(agentsPage(), tr("Agents"));
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::close);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(tabs);
    layout->addWidget(buttons);
    resize(560, 400);
}

QWidget* SettingsWindow::editorPage() {
    auto* page = new QWidget(this);
    auto* form = new QFormLayout(page);
    auto* size = new QSpinBox(page);
    size->setRange(8, 48);
    size->setSuffix(tr(" pt"));
    size->setValue(QSettings().value(QStringLiteral("editor.fontSize"), 12).toInt());
    connect(size, &QSpinBox::valueChanged, this, [this](int points) {
        QSettings().setValue(QStringLiteral("editor.fontSize"), points);
        applyFontSize_(points);
    });
    form->addRow(tr("Text size:"), size);
    auto* linkPreviews = new QCheckBox(tr("Show previews of web links (fetches the page's title and image)"), page);
    linkPreviews->setChecked(previews_.isEnabled());
    connect(linkPreviews, &QCheckBox::toggled, &previews_, &LinkPreviews::setEnabled);
    connect(&previews_, &LinkPreviews::enabledChanged, linkPreviews, &QCheckBox::setChecked);
    form->addRow(linkPreviews);
    return page;
}

QWidget* SettingsWindow::agentsPage() {
    auto* page = new QWidget(this);
    auto* layout = new QVBoxLayout(page);
    access_ = new QCheckBox(tr("Let AI agents read and edit my notes"), page);
    access_->setObjectName(QStringLiteral("agentAccess"));
    auto* explanation = new QLabel(tr("Agents use the same safe saving as Mossly: they can never write over your "
                                      "words, and every note records who last edited it."),
                                   page);
    explanation->setWordWrap(true);
    layout->addWidget(access_);
    layout->addWidget(explanation);

    auto* install = new QPushButton(tr("Install Command"), page);
    installStatus_ = new QLabel(page);
    installStatus_->setWordWrap(true);
    auto* installRow = new QHBoxLayout;
    installRow->addWidget(install);
    installRow->addWidget(installStatus_, 1);
    layout->addLayout(installRow);
    connect(install, &QPushButton::clicked, this, [this] {
        auto installed = installAgentCommand(agents_.agentProgram, agents_.home, qEnvironmentVariable("PATH"));
        if (!installed) {
            QMessageBox::warning(this, tr("The command could not be installed"), installed.error().description());
            return;
        }
        refreshAgents();
        if (!installed->folderOnPath) {
            installStatus_->setText(tr("Installed as %1, but %2 is not on your PATH.")
                                        .arg(installed->linkPath, QFileInfo(installed->linkPath).path()));
        }
    });

    auto* grid = new QGridLayout;
    int row = 0;
    for (const AgentClient client : allAgentClients) {
        auto* status = new QLabel(page);
        status->setObjectName(QStringLiteral("status-") + agentClientName(client));
        auto* add = new QPushButton(tr("Register"), page);
        add->setObjectName(QStringLiteral("register-") + agentClientName(client));
        auto* remove = new QPushButton(tr("Unregister"), page);
        grid->addWidget(new QLabel(agentClientTitle(client), page), row, 0);
        grid->addWidget(status, row, 1);
        grid->addWidget(add, row, 2);
        grid->addWidget(remove, row, 3);
        remove->setObjectName(QStringLiteral("unregister-") + agentClientName(client));
        clientRows_.push_back({client, status, add, remove});
        const auto act = [this, client](bool registering) {
            auto done = registering ? agents_.registration.registerClient(client)
                                    : agents_.registration.unregisterClient(client);
            if (!done) QMessageBox::warning(this, agentClientTitle(client), done.error().description());
            refreshAgents();
        };
        connect(add, &QPushButton::clicked, this, [act] { act(true); });
        connect(remove, &QPushButton::clicked, this, [act] { act(false); });
        ++row;
    }
    grid->setColumnStretch(1, 1);
    layout->addLayout(grid);
    layout->addStretch(1);

    connect(access_, &QCheckBox::toggled, this, [this](bool enabled) {
        if (auto saved = AgentAccess::setEnabled(enabled); !saved) {
            QMessageBox::warning(this, tr("Agent access"), saved.error().description());
        }
        refreshAgents();
    });
    refreshAgents();
    return page;
}

void SettingsWindow::refreshAgents() {
    const QSignalBlocker quiet(access_);
    access_->setChecked(AgentAccess::isEnabled());
    const QString command = preferredAgentCommand(agents_.agentProgram, agents_.home);
    installStatus_->setText(command == agents_.agentProgram ? tr("Not installed in ~/.local/bin")
                                                            : tr("Installed as %1").arg(command));
    for (const ClientRow& row : clientRows_) {
        const auto registered = agents_.registration.isRegistered(row.client);
        row.status->setText(!registered ? registered.error().description()
                            : *registered ? tr("Registered")
                                          : tr("Not registered"));
        row.status->setToolTip(agents_.registration.location(row.client));
        // A button is offered only where it changes something (both when the state cannot be read).
        row.add->setEnabled(!registered || !*registered);
        row.remove->setEnabled(!registered || *registered);
    }
}

void SettingsWindow::addMeetingsPage(MeetingRecorder& recorder) {
    using namespace meeting;
    auto* page = new QWidget(this);
    auto* form = new QFormLayout(page);
    MeetingSettings& settings = recorder.settings();
    WhisperModelManager& models = recorder.models();

    auto* status = new QLabel(page);
    auto* about = new QLabel(QStringLiteral("About 142 MB. Downloaded from the official whisper.cpp model repository "
                                            "and checksum verified."),
                             page);
    about->setWordWrap(true);
    auto* download = new QPushButton(tr("Download"), page);
    auto* remove = new QPushButton(tr("Remove"), page);
    auto* modelButtons = new QHBoxLayout;
    modelButtons->addWidget(download);
    modelButtons->addWidget(remove);
    modelButtons->addStretch(1);
    const auto showModel = [status, download, remove, &models] {
        const WhisperModelState state = models.state();
        status->setText(whisper_model_texts::settingsStatus(state, models.downloadProgress()));
        download->setEnabled(state.kind == WhisperModelState::Kind::notInstalled ||
                             state.kind == WhisperModelState::Kind::failed);
        remove->setEnabled(state.kind == WhisperModelState::Kind::installed);
    };
    connect(&models, &WhisperModelManager::stateChanged, page, showModel);
    connect(&models, &WhisperModelManager::downloadProgressChanged, page, showModel);
    connect(download, &QPushButton::clicked, page, [&models] { models.download(); });
    connect(remove, &QPushButton::clicked, page, [&models, status] {
        if (auto removed = models.removeModel(); !removed) status->setText(removed.error().description());
    });
    showModel();

    auto* provider = new QComboBox(page);
    provider->setObjectName(QStringLiteral("meetingSummaryProvider"));
    provider->addItem(tr("None"), QStringLiteral("none"));
    provider->addItem(tr("Claude Code"), QStringLiteral("claudeCode"));
    provider->addItem(QStringLiteral("Codex CLI \u2014 unavailable"), QStringLiteral("codexCLI"));
    provider->setCurrentIndex(provider->findData(rawValue(settings.defaultProvider())));
    // Each provider's connection, asked of its program whenever the page is shown and on Test.
    MeetingProviderStatus& providers = recorder.providers();
    auto* connection = new QLabel(page);
    connection->setObjectName(QStringLiteral("meetingProviderConnection"));
    connection->setWordWrap(true);
    auto* test = new QPushButton(tr("Test"), page);
    test->setObjectName(QStringLiteral("meetingProviderTest"));
    const auto chosenKind = [provider] {
        return providerKindFromRaw(provider->currentData().toString()).value_or(MeetingSummaryProviderKind::none);
    };
    const auto showConnection = [provider, connection, test, chosenKind, &providers] {
        showProviderStates(*provider, providers);
        const auto kind = chosenKind();
        const auto state = providers.state(kind);
        connection->setText(kind == MeetingSummaryProviderKind::none ? tr("Meetings are not summarized.")
                            : state                                  ? MeetingProviderStatus::describe(*state)
                                                                     : QString());
        test->setEnabled(kind != MeetingSummaryProviderKind::none &&
                         state != ProviderConnectionState::running());
    };
    connect(&providers, &MeetingProviderStatus::stateChanged, page, showConnection);
    connect(test, &QPushButton::clicked, page, [chosenKind, &providers] { providers.probe(chosenKind()); });
    connect(provider, &QComboBox::currentIndexChanged, page, [provider, &settings, showConnection] {
        settings.setDefaultProvider(providerKindFromRaw(provider->currentData().toString())
                                        .value_or(MeetingSummaryProviderKind::none));
        showConnection();
    });
    auto* providerRow = new QHBoxLayout;
    providerRow->addWidget(provider, 1);
    providerRow->addWidget(test);
    auto* keep = new QCheckBox(QStringLiteral("Keep separate microphone and system recordings"), page);
    keep->setChecked(settings.retainAudio());
    connect(keep, &QCheckBox::toggled, page, [&settings](bool on) { settings.setRetainAudio(on); });
    auto* consent =
        new QCheckBox(QStringLiteral("I\u2019m responsible for obtaining participant consent before recording."), page);
    consent->setChecked(settings.hasAcknowledgedConsent());
    connect(consent, &QCheckBox::toggled, page, [&settings](bool on) { settings.setHasAcknowledgedConsent(on); });

    form->addRow(tr("Speech model"), status);
    form->addRow(QString(), about);
    form->addRow(QString(), modelButtons);
    form->addRow(tr("Summary"), providerRow);
    form->addRow(QString(), connection);
    form->addRow(QString(), keep);
    form->addRow(QString(), consent);
    // The recorder edits the same settings (its consent check box): the page follows.
    connect(&settings, &MeetingSettings::changed, page, [provider, keep, consent, showConnection, &settings] {
        const QSignalBlocker quietProvider(provider), quietKeep(keep), quietConsent(consent);
        provider->setCurrentIndex(provider->findData(rawValue(settings.defaultProvider())));
        keep->setChecked(settings.retainAudio());
        consent->setChecked(settings.hasAcknowledgedConsent());
        showConnection();
    });
    auto* tabs = findChild<QTabWidget*>(QStringLiteral("settingsTabs"));
    tabs->addTab(page, tr("Meetings"));
    connect(tabs, &QTabWidget::currentChanged, page, [tabs, page, &providers] {
        if (tabs->currentWidget() == page) providers.probeAll();
    });
    showConnection();
    providers.probeAll();
}

}  // namespace mossly
