#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <sys/stat.h>

#include "NoteRepository.h"
#include "NotesLocation.h"
#include "TestSupport.h"

namespace mossly {
namespace {

class NotesLocationTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    NotesLocationConfigurationStore store{folder.filePath("config/storage-location.json")};
    NotesDirectoryResolver resolver{folder.filePath("local"), nullptr};

    Result<NotesLocationConfiguration> loadText(const QByteArray& json) {
        folder.write(QStringLiteral("config/storage-location.json"), json);
        return store.load();
    }
};

TEST_F(NotesLocationTest, MissingFileMeansLocalNotes) {
    auto configuration = store.load();
    ASSERT_TRUE(configuration);
    EXPECT_EQ(configuration->mode, NotesStorageMode::local);
    EXPECT_EQ(resolver.resolve(*configuration), folder.filePath("local/Notes"));
    EXPECT_FALSE(QFile::exists(store.url()));  // loading creates nothing
}

TEST_F(NotesLocationTest, LoadErrorsCarryTheirTexts) {
    EXPECT_EQ(loadText(R"({"schemaVersion":2,"mode":"local","notesRelativePath":"Notes"})").error().description(),
              QStringLiteral("Unsupported notes location configuration version 2"));
    const auto malformed = [&](const QByteArray& json) {
        auto result = loadText(json);
        EXPECT_FALSE(result) << json.toStdString();
        return result ? QString() : result.error().description();
    };
    EXPECT_TRUE(malformed("{not json").startsWith(QStringLiteral("The notes location configuration is invalid: ")));
    EXPECT_TRUE(malformed("[]").startsWith(QStringLiteral("The notes location configuration is invalid: ")));
    EXPECT_EQ(loadText(R"({"schemaVersion":1,"mode":"floppy","notesRelativePath":"N"})").error().code(),
              Error::Code::malformedLocation);
    EXPECT_EQ(loadText(R"({"schemaVersion":1,"mode":"local"})").error().code(), Error::Code::malformedLocation);
    EXPECT_EQ(loadText(R"({"mode":"local","notesRelativePath":"N"})").error().code(),
              Error::Code::malformedLocation);
    // The record is decoded whole before its version is judged.
    EXPECT_EQ(loadText(R"({"schemaVersion":2,"mode":"floppy","notesRelativePath":"N"})").error().code(),
              Error::Code::malformedLocation);
}

TEST_F(NotesLocationTest, ResolverErrors) {
    auto cloud = loadText(R"({"schemaVersion":1,"mode":"iCloud","notesRelativePath":"Notes"})");
    ASSERT_TRUE(cloud);
    EXPECT_EQ(resolver.resolve(*cloud).error().description(),
              QStringLiteral("iCloud mode requires a container identifier."));
    cloud->iCloudContainerIdentifier = QStringLiteral("iCloud.com.bellam.notes");
    EXPECT_EQ(resolver.resolve(*cloud).error().description(),
              QStringLiteral("The iCloud container iCloud.com.bellam.notes is unavailable."));

    NotesLocationConfiguration local;
    for (const char* path : {"../Elsewhere", "/abs", "a//b", "a/./b", "", "a/.."}) {
        local.notesRelativePath = QString::fromUtf8(path);
        EXPECT_EQ(resolver.resolve(local).error().description(),
                  QStringLiteral("Invalid notes directory path: ") + local.notesRelativePath);
    }
    local.notesRelativePath = QStringLiteral("Work/Notes");
    EXPECT_EQ(resolver.resolve(local), folder.filePath("local/Work/Notes"));
}

TEST_F(NotesLocationTest, UnavailableCloudFallsBackToLocalWithANotice) {
    NotesLocationConfiguration cloud;
    cloud.mode = NotesStorageMode::iCloud;
    cloud.iCloudContainerIdentifier = NotesLocationConfiguration::defaultCloudContainerIdentifier;
    auto fallback = resolver.resolveWithFallback(cloud);
    ASSERT_TRUE(fallback);
    EXPECT_EQ(fallback->directory, folder.filePath("local/Notes"));
    EXPECT_EQ(fallback->notice, QStringLiteral("Using local storage until iCloud is available."));

    // A configured container is used, below its "Documents" folder.
    QDir(folder.path()).mkpath(QStringLiteral("clouds/iCloud.com.bellam.notes"));
    const NotesDirectoryResolver withCloud(
        folder.filePath("local"), std::make_shared<DirectoryCloudContainerLocator>(folder.filePath("clouds")));
    auto resolved = withCloud.resolveWithFallback(cloud);
    ASSERT_TRUE(resolved);
    EXPECT_EQ(resolved->directory, folder.filePath("clouds/iCloud.com.bellam.notes/Documents/Notes"));
    EXPECT_FALSE(resolved->notice);

    // The cloud is there but the path is wrong: that is said, not papered over with local storage.
    cloud.notesRelativePath = QStringLiteral("../outside");
    auto wrongPath = withCloud.resolveWithFallback(cloud);
    ASSERT_FALSE(wrongPath);
    EXPECT_EQ(wrongPath.error().description(), QStringLiteral("Invalid notes directory path: ../outside"));
    // An empty identifier is no identifier: the cloud is missing, so local storage it is.
    cloud.notesRelativePath = QStringLiteral("Notes");
    cloud.iCloudContainerIdentifier = QString();
    EXPECT_EQ(withCloud.resolveWithFallback(cloud)->notice, QStringLiteral("Using local storage until iCloud is available."));
}

TEST_F(NotesLocationTest, SaveIsAtomicAndRoundTrips) {
    NotesLocationConfiguration configuration;
    configuration.mode = NotesStorageMode::iCloud;
    configuration.iCloudContainerIdentifier = QStringLiteral("iCloud.com.bellam.notes");
    configuration.notesRelativePath = QStringLiteral("Team/Notes");
    ASSERT_TRUE(store.save(configuration));
    EXPECT_EQ(store.load(), configuration);
    configuration.mode = NotesStorageMode::local;
    configuration.iCloudContainerIdentifier.reset();
    ASSERT_TRUE(store.save(configuration));
    EXPECT_EQ(store.load(), configuration);
    EXPECT_EQ(QDir(folder.filePath("config")).entryList(QDir::Files | QDir::Hidden),
              QStringList{"storage-location.json"});

    // A save that fails half way (the disk fills up) leaves the old file whole and no leftovers.
    const QByteArray before = folder.read(QStringLiteral("config/storage-location.json"));
    configuration.notesRelativePath = QString(4000, u'x');
    const pid_t child = ::fork();
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{16, 16};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        ::_exit(store.save(configuration) ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the failing save reported success";
    EXPECT_EQ(folder.read(QStringLiteral("config/storage-location.json")), before);
    EXPECT_EQ(QDir(folder.filePath("config")).entryList(QDir::Files | QDir::Hidden),
              QStringList{"storage-location.json"});
}

TEST_F(NotesLocationTest, RepositoryFollowsTheConfiguration) {
    NotesLocationConfiguration configuration;
    configuration.notesRelativePath = QStringLiteral("Elsewhere");
    ASSERT_TRUE(store.save(configuration));
    const NoteRepository repository(store, resolver);
    EXPECT_EQ(repository.directoryURL(), folder.filePath("local/Elsewhere"));
    ASSERT_TRUE(repository.create(QStringLiteral("Hi"), QStringLiteral("x"), NoteEditor::human()));
    EXPECT_TRUE(folder.exists(QStringLiteral("local/Elsewhere/Hi.md")));
}

TEST(NotesLocationDefaults, FollowXdgFolders) {
    EXPECT_EQ(NotesLocationConfigurationStore::defaultUrl(),
              qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/com.bellam.notes/storage-location.json"));
    EXPECT_TRUE(NotesDirectoryResolver::systemDefault().localStorageRoot().endsWith(QStringLiteral("/Mossly")));
}

}  // namespace
}  // namespace mossly
