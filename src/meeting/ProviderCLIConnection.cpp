#include "ProviderCLIConnection.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUuid>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <cstring>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "AtomicFile.h"

namespace mossly::meeting {

namespace {

QString systemText(int errnoValue) { return QString::fromLocal8Bit(std::strerror(errnoValue)); }

// The run's private folder, removed whatever the outcome.
class WorkingDirectory {
public:
    static std::expected<WorkingDirectory, int> create() {
        const QString path = QDir::tempPath() + u'/' + ProviderCLIConnection::workingDirectoryPrefix +
                             QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
        if (::mkdir(QFile::encodeName(path).constData(), 0700) != 0) return std::unexpected(errno);
        return WorkingDirectory(path);
    }
    WorkingDirectory(WorkingDirectory&& other) noexcept : path_(std::exchange(other.path_, QString())) {}
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(WorkingDirectory&&) = delete;
    ~WorkingDirectory() {
        if (!path_.isEmpty()) QDir(path_).removeRecursively();
    }
    const QString& path() const { return path_; }
    QString file(const char* name) const { return path_ + u'/' + QLatin1String(name); }

private:
    explicit WorkingDirectory(QString path) : path_(std::move(path)) {}
    QString path_;
};

// Arguments and environment as the NUL-terminated arrays posix_spawn takes.
class CStringArray {
public:
    explicit CStringArray(const QStringList& strings) {
        for (const QString& string : strings) storage_.push_back(QFile::encodeName(string));
        for (QByteArray& bytes : storage_) pointers_.push_back(bytes.data());
        pointers_.push_back(nullptr);
    }
    char* const* data() { return pointers_.data(); }

private:
    std::vector<QByteArray> storage_;
    std::vector<char*> pointers_;
};

QStringList minimalEnvironment(const QString& executable, const QString& workingDirectory) {
    const QByteArray home = qgetenv("HOME");
    // The executable's own folder first: a program installed by a version manager finds its siblings.
    QStringList path{QFileInfo(executable).path()};
    for (const QString& directory : {QStringLiteral("/usr/bin"), QStringLiteral("/bin")}) {
        if (!path.contains(directory)) path.append(directory);
    }
    return {
        QStringLiteral("HOME=") + (home.isEmpty() ? QDir::homePath() : QFile::decodeName(home)),
        QStringLiteral("PATH=") + path.join(u':'),
        QStringLiteral("TMPDIR=") + workingDirectory,
        QStringLiteral("LANG=en_US.UTF-8"),
        QStringLiteral("TERM=dumb"),
        QStringLiteral("NO_COLOR=1"),
    };
}

std::expected<pid_t, int> spawnIsolated(const QString& executable, const QStringList& arguments,
                                        const WorkingDirectory& directory) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    const QByteArray folder = QFile::encodeName(directory.path());
    const QByteArray input = QFile::encodeName(directory.file("stdin"));
    const QByteArray output = QFile::encodeName(directory.file("stdout"));
    const QByteArray errors = QFile::encodeName(directory.file("stderr"));
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.constData(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    posix_spawn_file_actions_addchdir_np(&actions, folder.constData());
    // A session of its own makes the child a process-group leader: killing the group reaches every descendant.
    // Signal handling starts from the defaults, whatever this process ignores or blocks.
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    CStringArray argv(QStringList{executable} + arguments);
    CStringArray environment(minimalEnvironment(executable, directory.path()));
    pid_t pid = 0;
    const int status = posix_spawn(&pid, QFile::encodeName(executable).constData(), &actions, &attributes,
                                   argv.data(), environment.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (status != 0) return std::unexpected(status);
    return pid;
}

// Whether the child has ended, without reaping it: while it stays a zombie its
// pid, and so its process-group id, cannot be reused by an unrelated process.
bool hasExited(pid_t pid) {
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        if (errno != EINTR) return true;  // ECHILD: nothing left to wait for
    }
    return info.si_pid == pid;
}

// Kills the whole group (the child and every descendant that stayed in it) and reaps the child.
qint32 killGroupAndReap(pid_t pid) {
    ::killpg(pid, SIGKILL);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

qint64 fileSize(const QString& path) {
    struct stat info {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_size : 0;
}

}  // namespace

MeetingSummaryProviderError MeetingSummaryProviderError::unavailable(QString text) {
    return {Code::unavailable, std::move(text)};
}

MeetingSummaryProviderError MeetingSummaryProviderError::failed(ProviderCLIResult result) {
    return {Code::failed, QStringLiteral("The summary provider exited with status ") + QString::number(result.exitCode),
            std::move(result)};
}

MeetingSummaryProviderError MeetingSummaryProviderError::notInstalled() {
    return {Code::notInstalled, QStringLiteral("The provider CLI is not installed.")};
}

MeetingSummaryProviderError MeetingSummaryProviderError::needsLogin() {
    return {Code::needsLogin, QStringLiteral("Connect the provider in Settings before summarizing.")};
}

MeetingSummaryProviderError MeetingSummaryProviderError::stopped() {
    return {Code::stopped, QStringLiteral("The summary was stopped.")};
}

MeetingSummaryProviderError MeetingSummaryProviderError::timedOut() {
    return {Code::timedOut, QStringLiteral("The summary provider timed out.")};
}

MeetingSummaryProviderError MeetingSummaryProviderError::outputTooLarge() {
    return {Code::outputTooLarge, QStringLiteral("The summary provider returned too much data.")};
}

MeetingSummaryProviderError MeetingSummaryProviderError::invalidOutput() {
    return {Code::invalidOutput, QStringLiteral("The summary provider returned invalid structured output.")};
}

ProviderCLIConnection ProviderCLIConnection::claudeCode() {
    ProviderCLIConnection connection;
    connection.executableName = QStringLiteral("claude");
    connection.timeout = std::chrono::seconds(120);
    connection.maximumOutputBytes = 2'000'000;
    return connection;
}

std::optional<QString> ProviderCLIConnection::executableURL() const {
    if (executableName.isEmpty() || executableName.contains(u'/')) return std::nullopt;
    QString path = searchPath.value_or(QString());
    if (!searchPath) {
        const QByteArray inherited = qgetenv("PATH");
        path = qEnvironmentVariableIsSet("PATH") ? QFile::decodeName(inherited) : fallbackSearchPath;
    }
    for (const QString& directory : path.split(u':', Qt::SkipEmptyParts)) {
        const QString candidate = directory + u'/' + executableName;
        const QByteArray encoded = QFile::encodeName(candidate);
        struct stat info {};
        if (::stat(encoded.constData(), &info) == 0 && S_ISREG(info.st_mode) &&
            ::access(encoded.constData(), X_OK) == 0) {
            return candidate;
        }
    }
    return std::nullopt;
}

std::expected<ProviderCLIResult, MeetingSummaryProviderError> ProviderCLIConnection::run(
    const QStringList& arguments, const QByteArray& input, std::stop_token stop) const {
    const auto executable = executableURL();
    if (!executable) return std::unexpected(MeetingSummaryProviderError::notInstalled());
    auto directory = WorkingDirectory::create();
    if (!directory) return std::unexpected(MeetingSummaryProviderError::unavailable(systemText(directory.error())));
    if (auto written = AtomicFile::replaceContents(directory->file("stdin"), input); !written) {
        return std::unexpected(MeetingSummaryProviderError::unavailable(written.error().description()));
    }

    const auto deadline = clock() + timeout;
    auto pid = spawnIsolated(*executable, arguments, *directory);
    if (!pid) {
        if (pid.error() == ENOENT) return std::unexpected(MeetingSummaryProviderError::notInstalled());
        return std::unexpected(MeetingSummaryProviderError::unavailable(systemText(pid.error())));
    }
    const QString outputPath = directory->file("stdout");
    const QString errorPath = directory->file("stderr");
    for (;;) {
        const bool exited = hasExited(*pid);
        if (fileSize(outputPath) + fileSize(errorPath) > maximumOutputBytes) {
            killGroupAndReap(*pid);
            return std::unexpected(MeetingSummaryProviderError::outputTooLarge());
        }
        if (exited) break;
        if (stop.stop_requested()) {
            killGroupAndReap(*pid);
            return std::unexpected(MeetingSummaryProviderError::stopped());
        }
        if (clock() >= deadline) {
            killGroupAndReap(*pid);
            return std::unexpected(MeetingSummaryProviderError::timedOut());
        }
        std::this_thread::sleep_for(pollInterval);
    }

    ProviderCLIResult result;
    result.exitCode = killGroupAndReap(*pid);
    auto output = AtomicFile::readAll(outputPath);
    auto errors = AtomicFile::readAll(errorPath);
    if (!output || !errors) {
        return std::unexpected(
            MeetingSummaryProviderError::unavailable((output ? errors : output).error().description()));
    }
    result.stdout = std::move(*output);
    result.stderr = std::move(*errors);
    return result;
}

}  // namespace mossly::meeting
