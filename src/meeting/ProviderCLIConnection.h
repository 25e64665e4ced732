#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <chrono>
#include <expected>
#include <functional>
#include <optional>
#include <stop_token>

// Running a first-party assistant's command-line program as an isolated child
// process: its own process group and temporary folder, a minimal environment,
// a time limit and an output limit.
namespace mossly::meeting {

struct ProviderCLIResult {
    QByteArray stdout;
    QByteArray stderr;
    qint32 exitCode = 0;  // 128 + the signal number when a signal ended the process

    bool operator==(const ProviderCLIResult&) const = default;
};

// The summary providers' error type. Each case's text is shown to the user as it stands.
class MeetingSummaryProviderError {
public:
    enum class Code { unavailable, failed, notInstalled, needsLogin, timedOut, outputTooLarge, invalidOutput, stopped };

    static MeetingSummaryProviderError unavailable(QString text);
    static MeetingSummaryProviderError failed(ProviderCLIResult result);
    static MeetingSummaryProviderError notInstalled();
    static MeetingSummaryProviderError needsLogin();
    static MeetingSummaryProviderError timedOut();
    static MeetingSummaryProviderError outputTooLarge();
    static MeetingSummaryProviderError invalidOutput();
    // The user stopped the run (quitting, say).
    static MeetingSummaryProviderError stopped();

    Code code() const { return code_; }
    const QString& description() const { return description_; }
    // For `failed`: what the process printed, for diagnostics.
    const std::optional<ProviderCLIResult>& result() const { return result_; }

    bool operator==(const MeetingSummaryProviderError&) const = default;

private:
    MeetingSummaryProviderError(Code code, QString description, std::optional<ProviderCLIResult> result = {})
        : code_(code), description_(std::move(description)), result_(std::move(result)) {}

    Code code_;
    QString description_;
    std::optional<ProviderCLIResult> result_;
};

using ProviderClock = std::function<std::chrono::steady_clock::time_point()>;

// One command-line program and the limits it runs under. `run` blocks until
// the child ends (at most `timeout` plus a poll): call it from a worker
// thread, never the main thread. Concurrent runs are safe: each gets its own folder.
struct ProviderCLIConnection {
    QString executableName;
    std::chrono::milliseconds timeout{120'000};
    qint64 maximumOutputBytes = 2'000'000;
    // The "PATH" value the executable is looked up in; absent means this process's own
    // "PATH", and "/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin" when that is unset too.
    std::optional<QString> searchPath;
    ProviderClock clock = [] { return std::chrono::steady_clock::now(); };
    std::chrono::milliseconds pollInterval{50};

    static inline const QString fallbackSearchPath = QStringLiteral("/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin");
    static inline const QString workingDirectoryPrefix = QStringLiteral("NotesMeetingProvider-");

    // "claude", 120 seconds, 2,000,000 bytes.
    static ProviderCLIConnection claudeCode();

    // The first regular executable file named `executableName` along the search path.
    std::optional<QString> executableURL() const;

    // Runs the executable with `arguments`, `input` on its standard input, in a
    // fresh "NotesMeetingProvider-<UUID>" folder of the temporary directory that is
    // removed afterwards. The child leads its own process group; when it runs past
    // `timeout` or its output (standard output and error together) grows past
    // `maximumOutputBytes`, the whole group is killed. Whatever the group left
    // running when the child exits is killed too, so a run leaves no process behind.
    // A stop request kills the group at the next poll.
    std::expected<ProviderCLIResult, MeetingSummaryProviderError> run(const QStringList& arguments,
                                                                      const QByteArray& input,
                                                                      std::stop_token stop = {}) const;
};

}  // namespace mossly::meeting
