#pragma once

#include <QDialog>
#include <optional>
#include <vector>

#include "NoteHistoryStore.h"

class QLabel;
class QListWidget;
class QPushButton;
class QTextBrowser;

namespace mossly {

class NoteStore;

// Show History: a note's versions (who saved each, and when), the words a
// chosen version differs by from the current text, and Restore, which writes
// that version back as a revision-checked save of its own. Versions and
// comparisons are read in the background.
class NoteHistoryWindow : public QDialog {
    Q_OBJECT
public:
    // `preselect`: the revision to show first (the version before an agent's edit, say).
    NoteHistoryWindow(NoteStore& store, QString url, std::optional<QString> preselect = std::nullopt,
                      QWidget* parent = nullptr);

    QListWidget* versionList() const { return list_; }
    QTextBrowser* comparison() const { return diff_; }
    QPushButton* restoreButton() const { return restore_; }
    QLabel* status() const { return status_; }
    // Whether the versions have been read.
    bool isLoaded() const { return loaded_; }

signals:
    void loadedChanged();

private:
    void reload();
    void showVersions(Result<std::vector<NoteVersionInfo>> versions);
    void compareSelected();
    void restoreSelected();

    NoteStore& store_;
    QString url_;
    QString identifier_;
    std::optional<QString> preselect_;
    std::vector<NoteVersionInfo> versions_;
    quint64 comparison_ = 0;  // the comparison whose result is wanted; older ones are dropped
    bool loaded_ = false;
    QListWidget* list_;
    QTextBrowser* diff_;
    QPushButton* restore_;
    QLabel* status_;
};

}  // namespace mossly
