#pragma once

#include <QFrame>

class QLabel;
class QPushButton;

namespace mossly {

class NoteStore;

// A quiet strip above the editor when an agent (or the meeting recorder, or
// an importer) changed the note being shown while the user had nothing
// unsaved: who changed it, Show Changes, and Undo, which restores the version
// before that edit if nobody changed the note since.
class AgentChangeBanner : public QFrame {
    Q_OBJECT
public:
    // `shownNote` tells which note the editor shows now.
    AgentChangeBanner(NoteStore& store, std::function<QString()> shownNote, QWidget* parent = nullptr);

    QLabel* message() const { return text_; }
    QPushButton* showChangesButton() const { return showChanges_; }
    QPushButton* undoButton() const { return undo_; }

signals:
    // Show the note's history with this version chosen.
    void showChangesRequested(const QString& url, const QString& revision);

private:
    void noteChanged(const QString& url, const QString& previousRevision, const QString& editedBy);
    void undoChange();

    NoteStore& store_;
    std::function<QString()> shownNote_;
    QString url_;
    QString before_;  // the revision before the change
    QString after_;   // the revision the change wrote
    QLabel* text_;
    QPushButton* showChanges_;
    QPushButton* undo_;
    QPushButton* dismiss_;
};

}  // namespace mossly
