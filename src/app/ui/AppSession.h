#pragma once

#include <QString>
#include <QStringList>
#include <memory>

namespace mossly {

class AppLifecycle;
class MainWindow;
class MeetingRecorder;
class NoteStore;

// The whole app on one notes folder: the store, the library window, the
// meeting recorder and the way it quits. `main` runs one; the journey tests
// run the very same, driven by key presses and mouse clicks.
class AppSession {
public:
    explicit AppSession(const QString& notesDirectory);
    ~AppSession();
    AppSession(const AppSession&) = delete;
    AppSession& operator=(const AppSession&) = delete;

    NoteStore& store() const;
    MainWindow& window() const;
    MeetingRecorder& recorder() const;
    AppLifecycle& lifecycle() const;

    // Files given on the command line, by the file manager or by a second
    // launch: a note of this library opens; a note file from elsewhere is
    // offered for import (copied: the file itself is never moved or changed);
    // anything else is refused with a message. A mossly://note/… link (a
    // search result's openURL) opens its note when it names one in this library.
    void openFiles(const QStringList& paths);

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace mossly
