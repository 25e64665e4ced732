#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <chrono>
#include <csignal>
#include <sys/wait.h>
#include <thread>

#include "ProcessTestSupport.h"
#include "ProviderCLIConnection.h"

using namespace mossly::meeting;
using namespace std::chrono_literals;
using mossly::meeting::test::FakeExecutables;

namespace {

ProviderCLIConnection connectionTo(const FakeExecutables& programs, std::chrono::milliseconds timeout = 10s,
                                   qint64 maximumOutputBytes = 2'000'000) {
    ProviderCLIConnection connection;
    connection.executableName = QStringLiteral("claude");
    connection.timeout = timeout;
    connection.maximumOutputBytes = maximumOutputBytes;
    connection.searchPath = programs.path();
    return connection;
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed() : QByteArray();
}

QStringList leftoverWorkingDirectories() {
    return QDir(QDir::tempPath())
        .entryList({ProviderCLIConnection::workingDirectoryPrefix + u'*'}, QDir::Dirs | QDir::NoDotAndDotDot);
}

}  // namespace

TEST(MeetingProviderCLIConnection, FindsTheFirstRegularExecutableAlongTheSearchPath) {
    FakeExecutables first, second;
    QDir(first.path()).mkdir("claude");  // a folder of that name is no program
    second.add("claude", "exit 0\n");
    auto connection = connectionTo(first);
    connection.searchPath = first.path() + ":" + second.path();
    EXPECT_EQ(connection.executableURL(), second.filePath("claude"));

    QFile::setPermissions(second.filePath("claude"), QFile::ReadOwner | QFile::WriteOwner);  // not executable
    EXPECT_EQ(connection.executableURL(), std::nullopt);
}

TEST(MeetingProviderCLIConnection, WithoutAPathItSearchesTheStandardFolders) {
    const QByteArray saved = qgetenv("PATH");
    qunsetenv("PATH");
    ProviderCLIConnection connection;
    connection.executableName = QStringLiteral("sh");
    const auto found = connection.executableURL();
    qputenv("PATH", saved);
    ASSERT_TRUE(found);
    // /opt/homebrew/bin and /usr/local/bin come first, then /usr/bin and /bin.
    EXPECT_TRUE(*found == "/usr/bin/sh" || *found == "/bin/sh" || found->startsWith("/usr/local/bin/"))
        << found->toStdString();
}

TEST(MeetingProviderCLIConnection, AMissingExecutableIsNotInstalled) {
    FakeExecutables empty;
    auto result = connectionTo(empty).run({}, {});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code(), MeetingSummaryProviderError::Code::notInstalled);
    EXPECT_EQ(result.error().description(), "The provider CLI is not installed.");
}

TEST(MeetingProviderCLIConnection, RunsWithItsInputArgumentsMinimalEnvironmentAndPrivateFolder) {
    FakeExecutables programs;
    programs.add("claude",
                 "printf '%s|' \"$@\"; echo\n"
                 "pwd\n"
                 "env | sort\n"
                 "cat stdin >&2\n"
                 "exit 0\n");
    qputenv("MOSSLY_SECRET_FOR_TEST", "leak");
    auto result = connectionTo(programs).run({"one", "", "two words"}, "line 1\nline 2");
    qunsetenv("MOSSLY_SECRET_FOR_TEST");
    ASSERT_TRUE(result) << result.error().description().toStdString();
    EXPECT_EQ(result->exitCode, 0);
    EXPECT_EQ(result->stderr, "line 1\nline 2");

    const QStringList lines = QString::fromUtf8(result->stdout).split('\n', Qt::SkipEmptyParts);
    ASSERT_GE(lines.size(), 3);
    EXPECT_EQ(lines[0], "one||two words|");
    const QString folder = lines[1];
    EXPECT_TRUE(QFileInfo(folder).fileName().startsWith("NotesMeetingProvider-")) << folder.toStdString();
    EXPECT_FALSE(QFileInfo::exists(folder)) << "the working folder is removed after the run";

    QStringList names;
    for (const QString& line : lines.mid(2)) names.append(line.section('=', 0, 0));
    names.removeAll("PWD");  // the shell sets it; it was not passed on
    names.removeAll("SHLVL");
    names.removeAll("_");
    EXPECT_EQ(names, (QStringList{"HOME", "LANG", "NO_COLOR", "PATH", "TERM", "TMPDIR"}));
    EXPECT_TRUE(lines.contains("TMPDIR=" + folder));
    EXPECT_TRUE(lines.contains("LANG=en_US.UTF-8"));
    EXPECT_TRUE(lines.contains("TERM=dumb"));
    EXPECT_TRUE(lines.contains("NO_COLOR=1"));
    EXPECT_TRUE(lines.contains("PATH=" + programs.path() + ":/usr/bin:/bin"));
}

TEST(MeetingProviderCLIConnection, ANonZeroExitIsReturnedWithItsMessage) {
    FakeExecutables programs;
    programs.add("claude", "echo 'Not logged in' >&2\nexit 3\n");
    auto result = connectionTo(programs).run({}, {});
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exitCode, 3);
    EXPECT_EQ(result->stderr, "Not logged in\n");
    EXPECT_EQ(MeetingSummaryProviderError::failed(*result).description(), "The summary provider exited with status 3");
}

TEST(MeetingProviderCLIConnection, ATimeoutKillsTheWholeProcessGroupIncludingGrandchildren) {
    mossly::meeting::test::adoptOrphans();
    FakeExecutables programs;
    const QString pidFile = programs.filePath("grandchild.pid");
    programs.add("claude", "sleep 300 &\necho $! > '" + pidFile.toUtf8() + "'\nwait\n");
    const auto before = leftoverWorkingDirectories();

    const auto started = std::chrono::steady_clock::now();
    auto result = connectionTo(programs, 700ms).run({}, {});
    const auto elapsed = std::chrono::steady_clock::now() - started;
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code(), MeetingSummaryProviderError::Code::timedOut);
    EXPECT_EQ(result.error().description(), "The summary provider timed out.");
    EXPECT_GE(elapsed, 700ms);
    EXPECT_LT(elapsed, 3s);

    const pid_t grandchild = readFile(pidFile).toInt();
    ASSERT_GT(grandchild, 0);
    const int status = mossly::meeting::test::reapWithin(grandchild, 3.0);
    ASSERT_NE(status, -1) << "the grandchild outlived the timeout";
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(leftoverWorkingDirectories(), before);
}

TEST(MeetingProviderCLIConnection, WhatTheProgramLeftRunningIsKilledWhenItExits) {
    mossly::meeting::test::adoptOrphans();
    FakeExecutables programs;
    const QString pidFile = programs.filePath("straggler.pid");
    programs.add("claude", "sleep 300 &\necho $! > '" + pidFile.toUtf8() + "'\necho done\n");
    auto result = connectionTo(programs).run({}, {});
    ASSERT_TRUE(result);
    EXPECT_EQ(result->stdout, "done\n");
    const pid_t straggler = readFile(pidFile).toInt();
    ASSERT_GT(straggler, 0);
    const int status = mossly::meeting::test::reapWithin(straggler, 3.0);
    ASSERT_NE(status, -1) << "a background process outlived the run";
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST(MeetingProviderCLIConnection, TheTimeoutFollowsTheInjectedClock) {
    FakeExecutables programs;
    programs.add("claude", "sleep 300\n");
    auto connection = connectionTo(programs, 120s);
    // Each look at the clock is a minute later: the second check passes the two-minute limit.
    auto now = std::chrono::steady_clock::time_point{};
    connection.clock = [&now] { return now += 60s; };
    const auto started = std::chrono::steady_clock::now();
    auto result = connection.run({}, {});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code(), MeetingSummaryProviderError::Code::timedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
}

TEST(MeetingProviderCLIConnection, AStopRequestKillsTheRunAtOnce) {
    FakeExecutables programs;
    programs.add("claude", "sleep 300\n");
    const auto before = leftoverWorkingDirectories();
    std::stop_source stop;
    std::thread stopper([&stop] {
        std::this_thread::sleep_for(200ms);
        stop.request_stop();
    });
    const auto started = std::chrono::steady_clock::now();
    auto result = connectionTo(programs, 120s).run({}, {}, stop.get_token());
    stopper.join();
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code(), MeetingSummaryProviderError::Code::stopped);
    EXPECT_EQ(result.error().description(), "The summary was stopped.");
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
    EXPECT_EQ(leftoverWorkingDirectories(), before);
}

TEST(MeetingProviderCLIConnection, EndlessOutputIsCutAtTheLimit) {
    FakeExecutables programs;
    programs.add("claude", "while :; do echo 'all work and no play makes a long transcript'; done\n");
    const auto before = leftoverWorkingDirectories();
    auto result = connectionTo(programs, 20s, 50'000).run({}, {});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code(), MeetingSummaryProviderError::Code::outputTooLarge);
    EXPECT_EQ(result.error().description(), "The summary provider returned too much data.");
    EXPECT_EQ(leftoverWorkingDirectories(), before);
}

TEST(MeetingProviderCLIConnection, OutputOnStandardErrorCountsTowardsTheLimit) {
    FakeExecutables programs;
    programs.add("claude", "head -c 60000 /dev/zero >&2\nexit 0\n");
    auto result = connectionTo(programs, 20s, 50'000).run({}, {});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code(), MeetingSummaryProviderError::Code::outputTooLarge);
}

TEST(MeetingProviderCLIConnection, AProgramThatCannotStartIsUnavailableWithTheSystemsReason) {
    FakeExecutables programs;
    programs.add("claude", "exit 0\n");
    QFile program(programs.filePath("claude"));
    ASSERT_TRUE(program.open(QIODevice::WriteOnly | QIODevice::Truncate));
    program.write("not a program\n");  // executable, but neither a binary nor a script
    program.close();
    auto result = connectionTo(programs).run({}, {});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code(), MeetingSummaryProviderError::Code::unavailable);
    EXPECT_EQ(result.error().description(), "Exec format error");
}
