#pragma once

#include <QObject>
#include <QString>
#include <atomic>
#include <chrono>
#include <expected>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "WhisperModelState.h"

namespace mossly::meeting {

// Owns the local speech model "ggml-base.bin": downloads it on request,
// resumes an interrupted download from ".ggml-base.bin.partial", verifies the
// SHA-256 before the file is ever used, and removes it.
//
// Thread safety: every method may be called from any thread. The download runs
// on a thread of its own; `stateChanged` and `downloadProgressChanged` are
// emitted from that thread (queued to receivers living elsewhere).
class WhisperModelManager : public QObject {
    Q_OBJECT
  public:
    struct Options {
        QString directory = defaultDirectory();
        QString url =
            QStringLiteral("https://huggingface.co/ggerganov/whisper.cpp/resolve/main/ggml-base.bin");
        QString sha256 = QStringLiteral("60ed5bc3dd14eea856493d334349b405782ddcaf0028d4b5df4088345fba2efe");
        std::chrono::milliseconds connectTimeout{15000};
        std::chrono::seconds stallTimeout{30};
    };

    static constexpr const char* modelFileName = "ggml-base.bin";
    // "$XDG_DATA_HOME/com.bellam.notes/Models"
    static QString defaultDirectory();

    // Creates the folder when needed and looks for an installed model.
    explicit WhisperModelManager(Options options, QObject* parent = nullptr);
    // Cancels a running download and waits for it; the partial file stays.
    ~WhisperModelManager() override;

    WhisperModelState state() const;
    std::optional<double> downloadProgress() const;  // 0…1; absent when unknown or idle
    QString directory() const { return options_.directory; }
    QString modelPath() const;

    // `installed` when a model file is present (only verified files are ever
    // moved there, so a header check is enough), otherwise `notInstalled`.
    void refresh();
    // Starts the download unless one runs.
    void download();
    // Ends the running download; the bytes received so far are kept for a resume.
    void cancelDownload();
    // Blocks until the running download, if any, has ended.
    void waitForDownload();
    std::expected<void, WhisperModelError> removeModel();

  signals:
    void stateChanged();
    void downloadProgressChanged();

  private:
    void runDownload();
    void finishDownload(WhisperModelState state);
    void publishProgress(qint64 received, qint64 total);
    WhisperModelState verifyAndInstall();
    QString filePath(const QString& name) const;

    Options options_;
    mutable std::mutex mutex_;
    WhisperModelState state_;
    std::optional<double> progress_;
    int publishedPercent_ = -1;
    std::atomic<bool> cancel_{false};
    // A retry may start from the ending download's own thread while the main thread
    // waits: the handle is only ever moved in or out under this lock.
    std::mutex workerMutex_;
    std::thread worker_;
    std::vector<std::thread> retired_;  // downloads that started their own retry, joined by waitForDownload()
};

}  // namespace mossly::meeting
