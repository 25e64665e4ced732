#include "ProcessTestSupport.h"

#include <QFile>
#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <csignal>
#include <thread>
#include <unistd.h>

namespace mossly::meeting::test {

void FakeExecutables::add(const QString& name, const QByteArray& script) const {
    QFile file(dir_.filePath(name));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) qFatal("cannot write a fake executable");
    file.write("#!/bin/sh\n" + script);
    file.close();
    file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

void adoptOrphans() { ::prctl(PR_SET_CHILD_SUBREAPER, 1); }

int reapWithin(pid_t pid, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid) return status;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
}

bool holdLibraryLock(const QString& notesFolder) {
    const QByteArray path = QFile::encodeName(notesFolder + QStringLiteral("/.notes-agent.lock"));
    const int fd = ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    return fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0;
}

ForkedChild::ForkedChild(const std::function<bool()>& setup) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
        ::close(fds[0]);
        const char result = setup() ? 'y' : 'n';
        (void)::write(fds[1], &result, 1);
        for (;;) ::pause();  // never returns into the test runner
    }
    ::close(fds[1]);
    char result = 0;
    ready_ = pid_ > 0 && ::read(fds[0], &result, 1) == 1 && result == 'y';
    ::close(fds[0]);
}

void ForkedChild::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
}

}  // namespace mossly::meeting::test
