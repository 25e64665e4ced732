#pragma once

#include <QDialog>
#include <functional>
#include <memory>

#include "AgentClientRegistration.h"

class QCheckBox;
class QLabel;
class QPushButton;
class QSpinBox;

namespace mossly {

class LinkPreviews;
class MeetingRecorder;
class NoteHistory;

// Settings (Ctrl+,): the Editor page (text size, link previews), the Agents
// page (whether AI agents may use the notes, the command on the PATH, and
// registration with each agent client) and, in the app, the Meetings page.
class SettingsWindow : public QDialog {
    Q_OBJECT
public:
    struct Agents {
        AgentClientRegistration registration;
        QString agentProgram;  // the mossly-agent to install and register
        QString home;
    };

    SettingsWindow(LinkPreviews& previews, std::function<void(qreal)> applyFontSize, Agents agents,
                   QWidget* parent = nullptr);

    QCheckBox* accessSwitch() const { return access_; }
    // The Meetings page: the speech model, the default summary provider, recordings and consent.
    void addMeetingsPage(MeetingRecorder& recorder);
    // The History page: how long versions of notes are kept, and how much room they may take.
    void addHistoryPage(std::shared_ptr<NoteHistory> history);

private:
    QWidget* editorPage();
    QWidget* agentsPage();
    void refreshAgents();

    LinkPreviews& previews_;
    std::function<void(qreal)> applyFontSize_;
    Agents agents_;
    QCheckBox* access_ = nullptr;
    QLabel* installStatus_ = nullptr;
    // One row per agent client: its state, and the buttons that can change it.
    struct ClientRow {
        AgentClient client;
        QLabel* status;
        QPushButton* add;
        QPushButton* remove;
    };
    std::vector<ClientRow> clientRows_;
};

}  // namespace mossly
