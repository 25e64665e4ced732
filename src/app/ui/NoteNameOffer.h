#pragma once

#include <QFrame>
#include <QSet>
#include <QTimer>

class QLabel;
class QPushButton;

namespace mossly {

class NoteStore;

// A quiet bar above an editor, for a note whose file is still "Untitled….md"
// while the note has a title: it offers to name the file after the title. It
// waits for a pause in typing, or for the user to leave the note (the bar then
// names the note it is about), and never renames by itself; "Not Now" puts it
// away for that note.
class NoteNameOffer : public QFrame {
    Q_OBJECT
public:
    static constexpr int pauseMilliseconds = 1500;

    NoteNameOffer(NoteStore& store, QWidget* parent = nullptr);
    // The note the editor shows now (empty: none).
    void setNote(const QString& url);
    QPushButton* nameButton() const { return name_; }

private:
    void noteEdited(const QString& url);
    // Offers to name `url`'s file, or hides when there is nothing to offer.
    void offer(const QString& url);
    QString suggestedBaseName(const QString& url) const;

    NoteStore& store_;
    QString url_;      // the note the editor shows
    QString offered_;  // the note the bar is about
    QSet<QString> declined_;
    QTimer pause_;
    QLabel* text_;
    QPushButton* name_;
    QPushButton* notNow_;
};

}  // namespace mossly
