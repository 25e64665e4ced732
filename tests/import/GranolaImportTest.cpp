#include <gtest/gtest.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QUrlQuery>

#include <QBuffer>

#include "AgentCommand.h"
#include "GranolaKeyStore.h"
#include "FakeGranola.h"
#include "GranolaSync.h"
#include "RuntimeLibrary.h"
#include "TestHttpServer.h"
#include "TestSupport.h"

namespace mossly {
namespace {

using namespace std::chrono_literals;
using test::TestHttpServer;
using test::FakeGranola;

class GranolaImportTest : public ::testing::Test {
protected:
    FakeGranola granola;
    TestHttpServer server{[this](const TestHttpServer::Request& request) { return granola.answer(request); }};
    test::TemporaryNotesFolder folder;
    std::vector<std::chrono::milliseconds> pauses;
    std::chrono::milliseconds now{0};

    GranolaImportReport sync(const QString& key = QStringLiteral("grn_good")) {
        auto limiter = std::make_shared<GranolaRateLimiter>([this] { return now; },
                                                            [this](std::chrono::milliseconds d) {
                                                                pauses.push_back(d);
                                                                now += d;
                                                            });
        GranolaClient client({.baseUrl = QStringLiteral("http://127.0.0.1:%1").arg(server.port()), .apiKey = key,
                              .timeout = 5000ms, .maximumRetries = 4, .maximumRetryWait = 60000ms},
                             limiter);
        GranolaSync sync(client, NoteRepository(folder.path()), folder.path());
        return sync.run();
    }
    QStringList noteFiles() const {
        QStringList files = QDir(folder.path()).entryList({QStringLiteral("*.md")}, QDir::Files);
        files.sort();
        return files;
    }
    NoteDocument document(const QString& name) const {
        return NoteDocument(QString::fromUtf8(folder.read(name)), NoteContentType::markdown);
    }
};

TEST_F(GranolaImportTest, FirstImportWritesMeetingNotesLikeTheRecordersOwn) {
    granola.add("not_a", "Budget review", "2026-11-20T10:00:00Z", "- Travel **over** plan");
    granola.add("not_b", "Hiring", "2026-11-20T11:00:00Z", "");
    granola.add("not_c", "Offsite", "2026-11-20T12:00:00Z", "Venue chosen");
    const GranolaImportReport report = sync();
    EXPECT_FALSE(report.stoppedBecause) << report.stoppedBecause->toStdString();
    EXPECT_EQ(report.imported, (QStringList{"Budget review.md", "Hiring.md", "Offsite.md"}));
    EXPECT_EQ(noteFiles(), (QStringList{"Budget review.md", "Hiring.md", "Offsite.md"}));

    const NoteDocument budget = document(QStringLiteral("Budget review.md"));
    EXPECT_EQ(budget.createdBy, NoteEditor::agent(QStringLiteral("granola")));
    EXPECT_EQ(budget.body, QStringLiteral("# Budget review\n\n<!-- notes:meeting-summary:start -->\n## Summary\n\n"
                                          "- Travel **over** plan\n<!-- notes:meeting-summary:end -->\n\n"
                                          "<!-- notes:meeting-transcript:start -->\n## Transcript\n\n"
                                          "[00:00] You: Shall we start?\n[01:13] System: Yes, budget first.\n"
                                          "<!-- notes:meeting-transcript:end -->"));
    EXPECT_EQ(budget.frontMatterFields.at("meeting-started-at").get<QString>(), QStringLiteral("2026-11-20T09:00:00Z"));
    EXPECT_EQ(budget.frontMatterFields.at("meeting-attendees").get<QStringList>(),
              QStringList{QStringLiteral("Oat Benson <oat@example.com>")});
    EXPECT_EQ(document(QStringLiteral("Hiring.md")).frontMatterFields.at("meeting-summary-status").get<QString>(),
              QStringLiteral("disabled"));
    ASSERT_EQ(report.folders.size(), 3u);
    EXPECT_EQ(report.folders[0].second, QStringList{QStringLiteral("fol_1\tTeam")});

    // Nothing changed at Granola: nothing is fetched or written again, and the filter is used.
    const QByteArray before = folder.read(QStringLiteral("Budget review.md"));
    const GranolaImportReport again = sync();
    EXPECT_TRUE(again.imported.isEmpty() && again.updated.isEmpty());
    EXPECT_EQ(granola.lastUpdatedAfter, QStringLiteral("2026-11-20T12:00:00Z"));
    EXPECT_EQ(folder.read(QStringLiteral("Budget review.md")), before);
}

TEST_F(GranolaImportTest, UpdatesFollowGranolaButNeverOverwriteTheUsersEdits) {
    granola.add("not_a", "Budget review", "2026-11-20T10:00:00Z", "first summary");
    granola.add("not_b", "Hiring", "2026-11-20T11:00:00Z", "first summary");
    ASSERT_FALSE(sync().stoppedBecause);
    // The user adds a line to one note in Mossly.
    const QByteArray edited = folder.read(QStringLiteral("Hiring.md")) + "\nMy own follow-up.";
    folder.write(QStringLiteral("Hiring.md"), edited);
    granola.add("not_a", "Budget review", "2026-11-21T10:00:00Z", "revised summary");
    granola.add("not_b", "Hiring", "2026-11-21T11:00:00Z", "revised summary");

    const GranolaImportReport report = sync();
    EXPECT_EQ(report.updated, QStringList{QStringLiteral("Budget review.md")});
    EXPECT_EQ(report.conflictCopies, QStringList{QStringLiteral("Hiring (Granola update).md")});
    EXPECT_TRUE(document(QStringLiteral("Budget review.md")).body.contains(QStringLiteral("revised summary")));
    EXPECT_EQ(folder.read(QStringLiteral("Hiring.md")), edited) << "the user's words were overwritten";
    EXPECT_TRUE(document(QStringLiteral("Hiring (Granola update).md")).body.contains(QStringLiteral("revised summary")));

    // A note the user deleted stays deleted.
    QFile::remove(folder.filePath("Budget review.md"));
    granola.add("not_a", "Budget review", "2026-11-22T10:00:00Z", "third summary");
    const GranolaImportReport third = sync();
    EXPECT_EQ(third.skipped, QStringList{QStringLiteral("Budget review.md")});
    EXPECT_FALSE(folder.exists(QStringLiteral("Budget review.md")));
}

TEST_F(GranolaImportTest, AnInterruptedRunResumesWithoutDuplicates) {
    granola.add("not_a", "One", "2026-11-20T10:00:00Z", "s");
    granola.add("not_b", "Two", "2026-11-20T11:00:00Z", "s");
    granola.add("not_c", "Three", "2026-11-20T12:00:00Z", "s");
    granola.faults.insert(QStringLiteral("/v1/notes/not_b"), {.status = 500, .body = "{}"});
    const GranolaImportReport broken = sync();
    ASSERT_TRUE(broken.stoppedBecause);
    EXPECT_EQ(*broken.stoppedBecause, GranolaError(GranolaError::Code::server, 500).description());
    EXPECT_EQ(noteFiles(), QStringList{QStringLiteral("One.md")});

    const GranolaImportReport resumed = sync();
    EXPECT_FALSE(resumed.stoppedBecause);
    EXPECT_EQ(resumed.imported, (QStringList{"Two.md", "Three.md"}));
    EXPECT_EQ(noteFiles(), (QStringList{"One.md", "Three.md", "Two.md"}));
}

TEST_F(GranolaImportTest, FailuresSayWhatHappenedAndWriteNothing) {
    granola.add("not_a", "One", "2026-11-20T10:00:00Z", "s");
    EXPECT_EQ(*sync(QStringLiteral("grn_wrong")).stoppedBecause, GranolaError(GranolaError::Code::badKey).description());
    granola.faults.insert(QStringLiteral("/v1/notes?"), {.status = 403, .body = "{}"});
    EXPECT_EQ(*sync().stoppedBecause, GranolaError(GranolaError::Code::noAccess).description());
    granola.faults.insert(QStringLiteral("/v1/notes?"), {.contentType = "application/json", .body = R"({"notes":"x"})"});
    EXPECT_EQ(*sync().stoppedBecause, GranolaError(GranolaError::Code::malformed).description());
    granola.faults.insert(QStringLiteral("/v1/notes?"),
                          {.contentType = "application/json", .body = QByteArray(5000, ' ') + "{}", .cutAfterBytes = 100});
    EXPECT_EQ(*sync().stoppedBecause, GranolaError(GranolaError::Code::offline).description());
    EXPECT_TRUE(noteFiles().isEmpty());
    EXPECT_FALSE(folder.exists(GranolaImportManifest::fileName));

    // One malformed note is reported on its own; the others still come in.
    granola.add("not_b", "Two", "2026-11-20T11:00:00Z", "s");
    granola.faults.insert(QStringLiteral("/v1/notes/not_a"),
                          {.contentType = "application/json", .body = R"({"id":"not_a","transcript":"garbage"})"});
    const GranolaImportReport report = sync();
    ASSERT_EQ(report.failed.size(), 1u);
    EXPECT_EQ(report.failed[0].second, GranolaError(GranolaError::Code::malformed).description());
    EXPECT_EQ(noteFiles(), QStringList{QStringLiteral("Two.md")});
}

TEST_F(GranolaImportTest, RateLimitsArePacedAndRetryAfterIsHonoured) {
    for (int i = 0; i < 3; ++i) granola.add(QStringLiteral("not_%1").arg(i), QStringLiteral("N%1").arg(i), "2026-11-20T10:00:00Z", "s");
    granola.faults.insert(QStringLiteral("/v1/notes/not_1"),
                          {.status = 429, .body = "{}", .extraHeaders = "Retry-After: 7\r\n"});
    const GranolaImportReport report = sync();
    EXPECT_FALSE(report.stoppedBecause);
    EXPECT_EQ(report.imported.size(), 3u);
    EXPECT_NE(std::find(pauses.begin(), pauses.end(), 7000ms), pauses.end()) << "Retry-After was not waited out";

    // The limiter alone: 60 requests at once take at least 11 seconds (25 per 5 s, one per 200 ms).
    std::chrono::milliseconds clock{0};
    GranolaRateLimiter limiter([&] { return clock; }, [&](std::chrono::milliseconds d) { clock += d; });
    for (int i = 0; i < 60; ++i) limiter.acquire();
    EXPECT_GE(clock, 11800ms);
    EXPECT_LE(clock, 12000ms);
}

TEST_F(GranolaImportTest, TheCommandImportsWithTheKeyFromTheEnvironment) {
    granola.add("not_a", "Budget review", "2026-11-20T10:00:00Z", "s");
    qputenv("MOSSLY_GRANOLA_API_URL", QStringLiteral("http://127.0.0.1:%1").arg(server.port()).toUtf8());
    const auto run = [&](const char* key, QString& out, QString& err) {
        qputenv(granolaKeyVariable, key);
        QTextStream outStream(&out), errStream(&err);
        QBuffer in;
        in.open(QIODevice::ReadOnly);
        agent::AgentIo io{outStream, errStream, in};
        const int code = agent::runAgent({"import-granola", "--notes-dir", folder.path()}, io);
        outStream.flush();
        errStream.flush();
        return code;
    };
    QString out, err;
    EXPECT_EQ(run("grn_wrong", out, err), 1);
    EXPECT_EQ(err.trimmed(), GranolaError(GranolaError::Code::badKey).description());
    out.clear();
    EXPECT_EQ(run("grn_good", out, err), 0);
    EXPECT_TRUE(out.startsWith(QStringLiteral(R"({"imported":["Budget review.md"],"updated":[])"))) << out.toStdString();
    EXPECT_TRUE(folder.exists(QStringLiteral("Budget review.md")));
    qunsetenv(granolaKeyVariable);
    qunsetenv("MOSSLY_GRANOLA_API_URL");
}

// Stands `replacement` in for a library for one test, whatever the test's outcome.
class MissingLibrary {
public:
    explicit MissingLibrary(const QString& fileName) : fileName_(fileName) {
        RuntimeLibrary::substitute(fileName_, QStringLiteral("libmossly-test-missing.so.0"));
    }
    ~MissingLibrary() { RuntimeLibrary::substitute(fileName_, {}); }

private:
    QString fileName_;
};

TEST_F(GranolaImportTest, TheCommandSaysWhichLibraryIsMissingAndWritesNothing) {
    granola.add("not_a", "Budget review", "2026-11-20T10:00:00Z", "s");
    qputenv("MOSSLY_GRANOLA_API_URL", QStringLiteral("http://127.0.0.1:%1").arg(server.port()).toUtf8());
    const auto run = [&](QString& err) {
        QString out;
        QTextStream outStream(&out), errStream(&err);
        QBuffer in;
        in.open(QIODevice::ReadOnly);
        agent::AgentIo io{outStream, errStream, in};
        const int code = agent::runAgent({"import-granola", "--notes-dir", folder.path()}, io);
        errStream.flush();
        return code;
    };
    {
        const MissingLibrary curl(QStringLiteral("libcurl.so.4"));
        qputenv(granolaKeyVariable, "grn_good");
        QString err;
        EXPECT_EQ(run(err), 1);
        EXPECT_TRUE(err.contains(QStringLiteral("libcurl.so.4 could not be loaded"))) << err.toStdString();
        EXPECT_TRUE(err.contains(QStringLiteral("Install the package libcurl4"))) << err.toStdString();
        EXPECT_TRUE(noteFiles().isEmpty());
        EXPECT_FALSE(folder.exists(GranolaImportManifest::fileName));
    }
    {
        // Without a key in the environment the keyring is asked, through libsecret.
        const MissingLibrary secret(QStringLiteral("libsecret-1.so.0"));
        qunsetenv(granolaKeyVariable);
        QString err;
        EXPECT_EQ(run(err), 1);
        EXPECT_TRUE(err.contains(QStringLiteral("libsecret-1.so.0 could not be loaded"))) << err.toStdString();
        EXPECT_TRUE(err.contains(QStringLiteral("Install the package libsecret-1-0"))) << err.toStdString();
        SecretServiceKeyStore keyring;
        EXPECT_EQ(keyring.key(), std::nullopt);
        const auto stored = keyring.store(QStringLiteral("grn_good"));
        ASSERT_FALSE(stored);
        EXPECT_EQ(stored.error().code(), Error::Code::libraryUnavailable);
        EXPECT_FALSE(SecretServiceKeyStore::isAvailable());
    }
    // With the libraries back the same command imports.
    qputenv(granolaKeyVariable, "grn_good");
    QString err;
    EXPECT_EQ(run(err), 0) << err.toStdString();
    EXPECT_TRUE(folder.exists(QStringLiteral("Budget review.md")));
    qunsetenv(granolaKeyVariable);
    qunsetenv("MOSSLY_GRANOLA_API_URL");
}

}  // namespace
}  // namespace mossly
