#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "NoteFileLock.h"
#include "TestSupport.h"

namespace mossly {
namespace {

TEST(NoteFileLock, NestedTakerInTheSameProcessIsBusyAtOnce) {
    test::TemporaryNotesFolder folder;
    const auto outer = NoteFileLock::withExclusiveLock(folder.path(), [&]() -> Result<int> {
        // Another thread, like a second caller in the app, must not wait.
        Result<int> inner = 0;
        std::thread([&] {
            inner = NoteFileLock::withExclusiveLock(folder.path(), []() -> Result<int> { return 1; });
        }).join();
        EXPECT_FALSE(inner);
        EXPECT_EQ(inner.error().description(), QStringLiteral("The notes library is busy. Try again."));
        return 7;
    });
    EXPECT_EQ(outer, 7);
    // Released afterwards, even when the operation failed.
    const auto failed =
        NoteFileLock::withExclusiveLock(folder.path(), []() -> Result<int> { return fail(Error::notFound("x.md")); });
    EXPECT_EQ(failed.error(), Error::notFound("x.md"));
    EXPECT_TRUE(NoteFileLock::withExclusiveLock(folder.path(), []() -> Result<void> { return {}; }));
}

TEST(NoteFileLock, LockFileIsPrivateAndStays) {
    test::TemporaryNotesFolder folder;
    ASSERT_TRUE(NoteFileLock::withExclusiveLock(folder.path(), []() -> Result<void> { return {}; }));
    struct stat info {};
    ASSERT_EQ(::stat(QFile::encodeName(folder.filePath(".notes-agent.lock")).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(info.st_size, 0);
}

TEST(NoteFileLock, AnotherProcessHoldingTheLockMakesUsBusyWithoutWaiting) {
    test::TemporaryNotesFolder folder;
    int ready[2];
    int release[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(release), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        auto held = NoteFileLock::acquire(folder.path());
        char byte = held ? 'y' : 'n';
        (void)!::write(ready[1], &byte, 1);
        (void)!::read(release[0], &byte, 1);
        ::_exit(0);
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    ASSERT_EQ(byte, 'y');

    const auto started = std::chrono::steady_clock::now();
    const auto contended = NoteFileLock::withExclusiveLock(folder.path(), []() -> Result<void> { return {}; });
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
    ASSERT_FALSE(contended);
    EXPECT_EQ(contended.error().code(), Error::Code::busy);

    (void)!::write(release[1], "x", 1);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(NoteFileLock::withExclusiveLock(folder.path(), []() -> Result<void> { return {}; }));
}

TEST(NoteFileLock, MissingFolderIsAnOsError) {
    const auto result = NoteFileLock::withExclusiveLock(QStringLiteral("/nonexistent/folder"),
                                                        []() -> Result<void> { return {}; });
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code(), Error::Code::system);
    EXPECT_EQ(result.error().systemErrno(), ENOENT);
}

TEST(NoteFileLock, DescriptorIsNotInheritedByChildProcesses) {
    test::TemporaryNotesFolder folder;
    auto held = NoteFileLock::acquire(folder.path());
    ASSERT_TRUE(held);
    // A program started while we hold the lock must not keep the lock file open.
    FILE* listing = ::popen("ls -l /proc/self/fd/", "r");
    ASSERT_NE(listing, nullptr);
    std::string output;
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, listing)) output += buffer;
    ::pclose(listing);
    EXPECT_EQ(output.find(".notes-agent.lock"), std::string::npos) << output;
}

}  // namespace
}  // namespace mossly
