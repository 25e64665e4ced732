#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <mutex>
#include <thread>

#include "TestHttpServer.h"
#include "WhisperModelManager.h"

using namespace mossly::meeting;
using mossly::test::TestHttpServer;
using namespace std::chrono_literals;

namespace {

// A stand-in for the model: random bytes behind the model file's magic.
QByteArray fakeModel() {
    QByteArray bytes(300'000, Qt::Uninitialized);
    QRandomGenerator generator(7);
    for (auto& byte : bytes) byte = static_cast<char>(generator.bounded(256));
    bytes.replace(0, 4, "lmgg");
    return bytes;
}

std::optional<qint64> requestedRangeStart(const QByteArray& headers) {
    static const QRegularExpression range(QStringLiteral("\r\nRange: bytes=(\\d+)-\r?\n?"),
                                          QRegularExpression::CaseInsensitiveOption);
    const auto match = range.match(QString::fromLatin1(headers) + QStringLiteral("\r\n"));
    if (!match.hasMatch()) return std::nullopt;
    return match.captured(1).toLongLong();
}

// Answers Range requests with 206 like a real file host.
TestHttpServer::Response serveWithRanges(const QByteArray& body, const TestHttpServer::Request& request) {
    const auto start = requestedRangeStart(request.headers);
    if (!start) return {.status = 200, .contentType = "application/octet-stream", .body = body};
    if (*start >= body.size()) return {.status = 416, .contentType = "text/plain", .body = ""};
    return {.status = 206,
            .contentType = "application/octet-stream",
            .body = body.mid(*start),
            .extraHeaders = "Content-Range: bytes " + QByteArray::number(*start) + "-" +
                            QByteArray::number(body.size() - 1) + "/" + QByteArray::number(body.size()) +
                            "\r\n"};
}

class WhisperModelManagerTest : public ::testing::Test {
  protected:
    QByteArray model = fakeModel();
    QTemporaryDir folder;

    std::unique_ptr<WhisperModelManager> manager(const TestHttpServer& server, QString sha256 = {}) {
        WhisperModelManager::Options options;
        options.directory = folder.filePath(QStringLiteral("Models"));
        options.url = QStringLiteral("http://127.0.0.1:%1/ggml-base.bin").arg(server.port());
        options.sha256 =
            sha256.isEmpty()
                ? QString::fromLatin1(QCryptographicHash::hash(model, QCryptographicHash::Sha256).toHex())
                : sha256;
        options.stallTimeout = 5s;
        return std::make_unique<WhisperModelManager>(options);
    }
    QString path(const QString& name) const { return folder.filePath(QStringLiteral("Models/") + name); }
    QByteArray read(const QString& name) const {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    void write(const QString& name, const QByteArray& bytes) const {
        QDir().mkpath(folder.filePath(QStringLiteral("Models")));
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
    }
    static void downloadAndWait(WhisperModelManager& manager) {
        manager.download();
        manager.waitForDownload();
    }
};

TEST_F(WhisperModelManagerTest, DownloadsVerifiesAndInstallsReportingProgressAndStates) {
    TestHttpServer server([&](const auto& request) { return serveWithRanges(model, request); });
    auto models = manager(server);
    EXPECT_EQ(models->state(), WhisperModelState::notInstalled());
    std::mutex mutex;
    QList<WhisperModelState::Kind> states;
    QList<double> progress;
    QObject::connect(models.get(), &WhisperModelManager::stateChanged, [&] {
        std::lock_guard lock(mutex);
        states << models->state().kind;
    });
    QObject::connect(models.get(), &WhisperModelManager::downloadProgressChanged, [&] {
        std::lock_guard lock(mutex);
        if (auto value = models->downloadProgress()) progress << *value;
    });

    downloadAndWait(*models);

    EXPECT_EQ(models->state(), WhisperModelState::installed(path("ggml-base.bin")));
    EXPECT_EQ(read("ggml-base.bin"), model);
    EXPECT_EQ(QDir(path(".")).entryList(QDir::Files | QDir::Hidden), QStringList{"ggml-base.bin"});
    EXPECT_EQ(states, (QList{WhisperModelState::Kind::downloading, WhisperModelState::Kind::installed}));
    ASSERT_FALSE(progress.isEmpty());
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_DOUBLE_EQ(progress.last(), 1.0);
    EXPECT_EQ(models->downloadProgress(), std::nullopt);  // idle again

    WhisperModelManager::Options reopened;
    reopened.directory = path(".");
    EXPECT_TRUE(WhisperModelManager(reopened).state().isInstalled());  // found at the next launch
}

TEST_F(WhisperModelManagerTest, CutConnectionKeepsTheBytesAndTheNextDownloadResumesFromThem) {
    int attempt = 0;
    TestHttpServer server([&](const auto& request) {
        auto response = serveWithRanges(model, request);
        if (attempt++ == 0) response.cutAfterBytes = 120'000;
        response.chunkDelay = 1ms;  // the resumed body arrives in steps the progress can follow
        return response;
    });
    auto models = manager(server);

    downloadAndWait(*models);
    EXPECT_EQ(models->state().kind, WhisperModelState::Kind::failed);
    EXPECT_TRUE(models->state().detail.startsWith("The model download was interrupted: "));
    EXPECT_EQ(read(".ggml-base.bin.partial"), model.left(120'000));
    EXPECT_FALSE(QFile::exists(path(".ggml-base.bin.download")));

    // The bar goes on from the bytes already there, not from zero.
    std::mutex mutex;
    QList<double> progress;
    QObject::connect(models.get(), &WhisperModelManager::downloadProgressChanged, [&] {
        std::lock_guard lock(mutex);
        if (auto value = models->downloadProgress()) progress << *value;
    });
    downloadAndWait(*models);
    EXPECT_TRUE(server.lastHeaders("/ggml-base.bin").contains("Range: bytes=120000-"));
    ASSERT_FALSE(progress.isEmpty());
    EXPECT_GE(progress.first(), 120'000.0 / double(model.size()));
    EXPECT_DOUBLE_EQ(progress.last(), 1.0);
    EXPECT_TRUE(models->state().isInstalled());
    EXPECT_EQ(read("ggml-base.bin"), model);
    EXPECT_FALSE(QFile::exists(path(".ggml-base.bin.partial")));
}

TEST_F(WhisperModelManagerTest, ARetryStartedFromTheFailureSignalItselfWorks) {
    int attempt = 0;
    TestHttpServer server([&](const auto& request) {
        auto response = serveWithRanges(model, request);
        if (attempt++ == 0) response.status = 503;
        return response;
    });
    auto models = manager(server);
    std::atomic<bool> retried{false};
    QObject::connect(models.get(), &WhisperModelManager::stateChanged, [&] {
        if (models->state().kind == WhisperModelState::Kind::failed && !retried.exchange(true))
            models->download();
    });
    models->download();
    for (int wait = 0; wait < 500 && !models->state().isInstalled(); ++wait)
        std::this_thread::sleep_for(10ms);
    models->waitForDownload();
    EXPECT_TRUE(retried);
    EXPECT_TRUE(models->state().isInstalled());
}

TEST_F(WhisperModelManagerTest, AServerIgnoringRangeRestartsThePartialFileCleanly) {
    write(".ggml-base.bin.partial", QByteArray(50'000, 'x'));  // bytes the server will not continue
    TestHttpServer server([&](const auto&) {
        return TestHttpServer::Response{
            .status = 200, .contentType = "application/octet-stream", .body = model};
    });
    auto models = manager(server);
    downloadAndWait(*models);
    EXPECT_TRUE(server.lastHeaders("/ggml-base.bin").contains("Range: bytes=50000-"));
    EXPECT_TRUE(models->state().isInstalled());
    EXPECT_EQ(read("ggml-base.bin"), model);
}

TEST_F(WhisperModelManagerTest, AFullPartialFileAnsweredWith416IsVerifiedAndInstalled) {
    write(".ggml-base.bin.partial", model);
    TestHttpServer server([&](const auto& request) { return serveWithRanges(model, request); });
    auto models = manager(server);
    downloadAndWait(*models);
    EXPECT_TRUE(models->state().isInstalled());
    EXPECT_EQ(read("ggml-base.bin"), model);
}

TEST_F(WhisperModelManagerTest, AWrongChecksumFailsAndDiscardsTheBytesSoTheNextTryStartsOver) {
    TestHttpServer server([&](const auto& request) { return serveWithRanges(model, request); });
    auto models = manager(server, QString(64, QLatin1Char('0')));
    downloadAndWait(*models);
    EXPECT_EQ(models->state(), WhisperModelState::failed(
                                   "The downloaded model did not match its checksum. Download it again."));
    EXPECT_TRUE(QDir(path(".")).entryList(QDir::Files | QDir::Hidden).isEmpty());
}

TEST_F(WhisperModelManagerTest, AnErrorStatusFailsWithItAndLeavesThePartialFileAlone) {
    write(".ggml-base.bin.partial", model.left(1000));
    TestHttpServer server([&](const auto&) {
        return TestHttpServer::Response{
            .status = 404, .contentType = "text/html", .body = "<h1>Not here</h1>"};
    });
    auto models = manager(server);
    downloadAndWait(*models);
    EXPECT_EQ(models->state(), WhisperModelState::failed("The model download failed (HTTP 404)."));
    EXPECT_EQ(read(".ggml-base.bin.partial"), model.left(1000));
    EXPECT_FALSE(QFile::exists(path("ggml-base.bin")));
}

TEST_F(WhisperModelManagerTest, AResumeAtTheWrongOffsetIsRefusedAndForgotten) {
    write(".ggml-base.bin.partial", model.left(1000));
    TestHttpServer server([&](const auto&) {
        return TestHttpServer::Response{.status = 206,
                                        .contentType = "application/octet-stream",
                                        .body = model.mid(500),
                                        .extraHeaders = "Content-Range: bytes 500-299999/300000\r\n"};
    });
    auto models = manager(server);
    downloadAndWait(*models);
    EXPECT_EQ(models->state().kind, WhisperModelState::Kind::failed);
    EXPECT_FALSE(QFile::exists(path(".ggml-base.bin.partial")));
}

TEST_F(WhisperModelManagerTest, CancelKeepsThePartialFileForALaterResume) {
    TestHttpServer server([&](const auto& request) {
        auto response = serveWithRanges(model, request);
        response.chunkSize = 2000;
        response.chunkDelay = 10ms;  // 1.5 s for the whole file
        return response;
    });
    auto models = manager(server);
    QObject::connect(models.get(), &WhisperModelManager::downloadProgressChanged, [&] {
        if (models->downloadProgress().value_or(0) > 0.1) models->cancelDownload();
    });
    downloadAndWait(*models);
    EXPECT_EQ(models->state(), WhisperModelState::notInstalled());
    const QByteArray kept = read(".ggml-base.bin.partial");
    EXPECT_GT(kept.size(), 0);
    EXPECT_LT(kept.size(), model.size());
    EXPECT_EQ(kept, model.left(kept.size()));

    QObject::disconnect(models.get(), &WhisperModelManager::downloadProgressChanged, nullptr, nullptr);
    downloadAndWait(*models);
    EXPECT_TRUE(models->state().isInstalled());
    EXPECT_EQ(read("ggml-base.bin"), model);
}

TEST_F(WhisperModelManagerTest, FileTroubleFailsWithADescriptionInsteadOfLosingTrack) {
    QDir().mkpath(path(".ggml-base.bin.download"));  // the transfer file cannot be opened
    TestHttpServer server([&](const auto& request) { return serveWithRanges(model, request); });
    auto models = manager(server);
    downloadAndWait(*models);
    EXPECT_EQ(models->state().kind, WhisperModelState::Kind::failed);
    EXPECT_TRUE(models->state().detail.startsWith("The model file could not be saved: "));
}

TEST_F(WhisperModelManagerTest, RemoveDeletesTheModelAndReportsAFileThatWillNotGo) {
    write("ggml-base.bin", model);
    TestHttpServer server([&](const auto& request) { return serveWithRanges(model, request); });
    auto models = manager(server);
    ASSERT_TRUE(models->state().isInstalled());
    ASSERT_TRUE(models->removeModel());
    EXPECT_EQ(models->state(), WhisperModelState::notInstalled());
    EXPECT_FALSE(QFile::exists(path("ggml-base.bin")));

    QDir().mkpath(path("ggml-base.bin/stuck"));  // a folder in the model's place cannot be removed as a file
    const auto removal = models->removeModel();
    ASSERT_FALSE(removal);
    EXPECT_EQ(removal.error().code(), WhisperModelError::Code::file);
}

TEST(WhisperModelTexts, SettingsAndRecorderTextsFollowTheState) {
    using namespace whisper_model_texts;
    EXPECT_EQ(settingsStatus(WhisperModelState::notInstalled(), {}), "Model not installed");
    EXPECT_EQ(settingsStatus(WhisperModelState::downloading(), {}), "Downloading and verifying…");
    EXPECT_EQ(settingsStatus(WhisperModelState::downloading(), 0.427), "Downloading and verifying… 42%");
    EXPECT_EQ(settingsStatus(WhisperModelState::installed("/m"), {}), "Model installed and verified");
    EXPECT_EQ(settingsStatus(WhisperModelState::failed("Boom."), {}), "Boom.");
    EXPECT_EQ(recorderStatus(WhisperModelState::notInstalled()), "Local Whisper model required");
    EXPECT_EQ(recorderStatus(WhisperModelState::failed("Boom.")), "Local Whisper model required");
    EXPECT_EQ(recorderStatus(WhisperModelState::downloading()), "Downloading and verifying local model…");
    EXPECT_EQ(recorderStatus(WhisperModelState::installed("/m")), "Local Whisper base model ready");
}

}  // namespace
