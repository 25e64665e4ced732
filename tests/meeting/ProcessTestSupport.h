#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>
#include <functional>
#include <sys/types.h>

namespace mossly::meeting::test {

// A folder of stand-in programs: shell scripts the test writes and marks executable.
class FakeExecutables {
public:
    // Writes `<folder>/<name>` as "#!/bin/sh\n" followed by `script`.
    void add(const QString& name, const QByteArray& script) const;
    QString path() const { return dir_.path(); }
    QString filePath(const QString& name) const { return dir_.filePath(name); }

private:
    QTemporaryDir dir_;
};

// Makes this process adopt orphaned descendants, so a test can reap (and so
// observe the death of) a grandchild whose parent was killed.
void adoptOrphans();
// Waits up to `seconds` for an adopted process to end; the wait status, or -1 when it is still running.
int reapWithin(pid_t pid, double seconds);

// Takes the notes library's lock the way every writer does (for a ForkedChild to hold).
bool holdLibraryLock(const QString& notesFolder);

// A forked copy of this process that runs `setup`, reports whether it succeeded
// and then waits to be killed: another process holding a lock, or a recorder
// that dies between checkpoints. Killed with SIGKILL when destroyed.
class ForkedChild {
public:
    explicit ForkedChild(const std::function<bool()>& setup);
    ForkedChild(const ForkedChild&) = delete;
    ForkedChild& operator=(const ForkedChild&) = delete;
    ~ForkedChild() { kill(); }

    // Whether `setup` returned true in the child.
    bool ready() const { return ready_; }
    // SIGKILL, then reaps the child.
    void kill();

private:
    pid_t pid_ = -1;
    bool ready_ = false;
};

}  // namespace mossly::meeting::test
