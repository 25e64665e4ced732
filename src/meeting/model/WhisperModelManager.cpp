#include "WhisperModelManager.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <algorithm>

#include "WhisperModelTransfer.h"

namespace mossly::meeting {
namespace {

constexpr QByteArrayView modelMagic("lmgg", 4);  // 0x67676d6c, little-endian

bool appendFile(const QString& sourcePath, const QString& targetPath) {
    QFile source(sourcePath);
    QFile target(targetPath);
    if (!source.open(QIODevice::ReadOnly) || !target.open(QIODevice::WriteOnly | QIODevice::Append))
        return false;
    while (!source.atEnd()) {
        const QByteArray block = source.read(1 << 20);
        if (block.isEmpty() || target.write(block) != block.size()) return false;
    }
    return target.flush();
}

bool replaceFile(const QString& sourcePath, const QString& targetPath) {
    if (QFile::exists(targetPath) && !QFile::remove(targetPath)) return false;
    return QFile::rename(sourcePath, targetPath);
}

}  // namespace

QString WhisperModelManager::defaultDirectory() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
           QStringLiteral("/com.bellam.notes/Models");
}

WhisperModelManager::WhisperModelManager(Options options, QObject* parent)
    : QObject(parent), options_(std::move(options)) {
    QDir().mkpath(options_.directory);
    refresh();
}

WhisperModelManager::~WhisperModelManager() {
    cancel_ = true;
    waitForDownload();
}

QString WhisperModelManager::filePath(const QString& name) const {
    return options_.directory + QLatin1Char('/') + name;
}

QString WhisperModelManager::modelPath() const {
    return filePath(QString::fromLatin1(modelFileName));
}

WhisperModelState WhisperModelManager::state() const {
    std::lock_guard lock(mutex_);
    return state_;
}

std::optional<double> WhisperModelManager::downloadProgress() const {
    std::lock_guard lock(mutex_);
    return progress_;
}

void WhisperModelManager::refresh() {
    QFile model(modelPath());
    const bool present = model.open(QIODevice::ReadOnly) && model.read(4) == modelMagic;
    {
        std::lock_guard lock(mutex_);
        if (state_.kind == WhisperModelState::Kind::downloading) return;  // the download decides
        state_ = present ? WhisperModelState::installed(modelPath()) : WhisperModelState::notInstalled();
    }
    emit stateChanged();
}

void WhisperModelManager::download() {
    {
        std::lock_guard lock(mutex_);
        if (state_.kind == WhisperModelState::Kind::downloading) return;
        state_ = WhisperModelState::downloading();
        progress_.reset();
        publishedPercent_ = -1;
    }
    std::thread previous;
    {
        std::lock_guard lock(workerMutex_);
        previous = std::move(worker_);
        // A retry from a slot connected directly to the ending download runs on
        // that download's thread, which cannot join itself; it ends right after.
        if (previous.joinable() && previous.get_id() == std::this_thread::get_id())
            retired_.push_back(std::move(previous));
    }
    if (previous.joinable()) previous.join();  // the previous download has already ended
    cancel_ = false;
    emit stateChanged();
    std::lock_guard lock(workerMutex_);
    worker_ = std::thread([this] { runDownload(); });
}

void WhisperModelManager::cancelDownload() {
    cancel_ = true;
}

void WhisperModelManager::waitForDownload() {
    // A download may start its own retry: wait for that one too.
    for (;;) {
        std::vector<std::thread> threads;
        {
            std::lock_guard lock(workerMutex_);
            threads = std::move(retired_);
            retired_.clear();
            if (worker_.joinable()) threads.push_back(std::move(worker_));
        }
        if (threads.empty()) return;
        for (std::thread& thread : threads) {
            if (thread.get_id() == std::this_thread::get_id())
                thread.detach();  // called from a download's own signal: it ends right after
            else
                thread.join();
        }
    }
}

std::expected<void, WhisperModelError> WhisperModelManager::removeModel() {
    QFile model(modelPath());
    if (model.exists() && !model.remove())
        return std::unexpected(WhisperModelError::file(model.errorString()));
    refresh();
    return {};
}

void WhisperModelManager::publishProgress(qint64 received, qint64 total) {
    if (total <= 0) return;
    const double fraction = std::clamp(static_cast<double>(received) / static_cast<double>(total), 0.0, 1.0);
    const int percent = static_cast<int>(fraction * 100);
    {
        std::lock_guard lock(mutex_);
        progress_ = fraction;
        if (percent == publishedPercent_) return;  // one signal per percent is plenty for a progress bar
        publishedPercent_ = percent;
    }
    emit downloadProgressChanged();
}

void WhisperModelManager::finishDownload(WhisperModelState state) {
    {
        std::lock_guard lock(mutex_);
        state_ = std::move(state);
        progress_.reset();
    }
    emit downloadProgressChanged();
    emit stateChanged();
}

void WhisperModelManager::runDownload() {
    const QString partialPath = filePath(QStringLiteral(".ggml-base.bin.partial"));
    const QString transferPath = filePath(QStringLiteral(".ggml-base.bin.download"));
    const qint64 resumeFrom = QFileInfo(partialPath).isFile() ? QFileInfo(partialPath).size() : 0;
    WhisperModelTransferRequest request{options_.url, resumeFrom, transferPath, options_.connectTimeout,
                                        options_.stallTimeout};
    const auto result = transferWhisperModel(
        request, cancel_, [this](qint64 received, qint64 total) { publishProgress(received, total); });

    // The transfer lands in its own file first, so a response that is not a
    // continuation (an error page, a wrong range) never touches the partial file.
    const bool continuation = result.status == 206 && result.rangeStart == resumeFrom;
    const bool restart = result.status == 200;
    bool kept = true;
    if (continuation && result.receivedBytes > 0) kept = appendFile(transferPath, partialPath);
    if (restart)
        kept = replaceFile(transferPath, partialPath);  // the server ignored Range: start over cleanly
    QFile::remove(transferPath);

    if (!kept)
        return finishDownload(WhisperModelState::failed(
            WhisperModelError::file(QStringLiteral("the downloaded bytes could not be kept."))
                .description()));
    if (result.cancelled) return finishDownload(WhisperModelState::notInstalled());
    if (result.error) return finishDownload(WhisperModelState::failed(result.error->description()));
    if (result.status == 206 && !continuation) {
        QFile::remove(partialPath);  // resuming at a wrong place would corrupt the model
        return finishDownload(WhisperModelState::failed(
            WhisperModelError::transfer(QStringLiteral("unexpected range")).description()));
    }
    // 416: nothing left to send, the partial file may already be whole.
    if (!continuation && !restart && result.status != 416) {
        return finishDownload(
            WhisperModelState::failed(WhisperModelError::httpStatus(result.status).description()));
    }
    finishDownload(verifyAndInstall());
}

WhisperModelState WhisperModelManager::verifyAndInstall() {
    const QString partialPath = filePath(QStringLiteral(".ggml-base.bin.partial"));
    QFile partial(partialPath);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!partial.open(QIODevice::ReadOnly) || !hash.addData(&partial)) {
        return WhisperModelState::failed(WhisperModelError::file(partial.errorString()).description());
    }
    partial.close();
    if (QString::fromLatin1(hash.result().toHex()) != options_.sha256.toLower()) {
        QFile::remove(partialPath);  // resuming a corrupt file would never succeed
        return WhisperModelState::failed(WhisperModelError::checksumMismatch().description());
    }
    if (!replaceFile(partialPath, modelPath())) {
        return WhisperModelState::failed(
            WhisperModelError::file(QStringLiteral("the verified model could not be put in place."))
                .description());
    }
    return WhisperModelState::installed(modelPath());
}

}  // namespace mossly::meeting
