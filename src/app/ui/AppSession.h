#pragma once

#include <QString>
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

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace mossly
