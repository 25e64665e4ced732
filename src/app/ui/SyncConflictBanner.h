#pragma once

#include <QFrame>
#include <QString>

class QLabel;
class QPushButton;
class QTextBrowser;
class QTimer;

namespace mossly {

class NoteStore;
enum class SyncConflictChoice;

// Above a note that a sync engine found changed on two machines: which
// machine's version it is, the two texts word by word (struck through: only
// in this version; highlighted: only in the other), and Keep This, Keep Other
// and Keep Both. Hidden when the note has no such copy.
class SyncConflictBanner : public QFrame {
    Q_OBJECT
public:
    SyncConflictBanner(NoteStore& store, QWidget* parent = nullptr);

    void setNote(const QString& url);
    const QString& copyUrl() const { return copyUrl_; }

private:
    void refresh();
    void resolve(SyncConflictChoice choice);

    NoteStore& store_;
    QString url_;
    QString copyUrl_;  // the engine's copy shown, the first of the note's
    QLabel* text_;
    QTextBrowser* diff_;
    QPushButton* keepThis_;
    QPushButton* keepOther_;
    QPushButton* keepBoth_;
    QTimer* rediff_;  // typing in a note with a copy shown re-diffs once the typing pauses
};

}  // namespace mossly
