#pragma once

#include <QMutex>
#include <QSemaphore>
#include <atomic>
#include <cerrno>
#include <functional>
#include <optional>

#include "NoteFileAccess.h"

namespace mossly::test {

// The real notes folder, with faults on demand: the next N calls of an
// operation fail with a chosen error, and listings can be held back until the
// test lets them go (a slow disk, a scan still in flight).
class FaultyFileAccess : public RepositoryFileAccess {
public:
    enum class Operation { update, createAt, moveToTrash, saveFolderMetadata };

    using RepositoryFileAccess::RepositoryFileAccess;

    // The next `count` calls of `operation` fail with `error`.
    void failNext(Operation operation, Error error, int count = 1) {
        QMutexLocker lock(&mutex_);
        faults_[static_cast<int>(operation)] = {error, count};
    }
    void failAlways(Operation operation, Error error) { failNext(operation, std::move(error), 1 << 30); }
    void heal() {
        QMutexLocker lock(&mutex_);
        for (auto& fault : faults_) fault.reset();
    }
    // Listings wait until `releaseListings` while held.
    void holdListings() { held_ = true; }
    void releaseListings() {
        held_ = false;
        gate_.release(1000);
    }
    // Lets one waiting listing go; later ones are still held.
    void releaseOneListing() { gate_.release(1); }
    int listingsWaiting() const { return waiting_; }
    // Reads of single notes wait until `releaseReads` while held.
    void holdReads() { readsHeld_ = true; }
    void releaseReads() {
        readsHeld_ = false;
        readGate_.release(1 << 20);
    }
    int readsWaiting() const { return readsWaiting_; }
    // A folder-metadata load reads the file, then waits until `releaseFolderMetadata` while held.
    void holdFolderMetadata() { metadataHeld_ = true; }
    void releaseFolderMetadata() {
        metadataHeld_ = false;
        metadataGate_.release(1000);
    }
    int folderMetadataWaiting() const { return metadataWaiting_; }

    Result<FolderMetadata> loadFolderMetadata() const override {
        auto loaded = RepositoryFileAccess::loadFolderMetadata();
        if (metadataHeld_) {
            ++metadataWaiting_;
            metadataGate_.acquire();
            --metadataWaiting_;
        }
        return loaded;
    }

    Result<StoredNote> read(const QString& identifier) const override {
        if (readsHeld_) {
            ++readsWaiting_;
            readGate_.acquire();
            --readsWaiting_;
        }
        return RepositoryFileAccess::read(identifier);
    }
    int calls(Operation operation) const { return calls_[static_cast<int>(operation)]; }

    Result<std::vector<NoteFileMetadata>> enumerateMetadata() const override {
        if (held_) {
            ++waiting_;
            gate_.acquire();
            --waiting_;
        }
        return RepositoryFileAccess::enumerateMetadata();
    }
    Result<StoredNote> update(const QString& identifier, const QString& expectedRevision, const QString& body,
                              NoteContentType contentType) const override {
        if (auto error = fault(Operation::update)) return fail(*error);
        return RepositoryFileAccess::update(identifier, expectedRevision, body, contentType);
    }
    Result<StoredNote> createAt(const QString& identifier, const QString& text) const override {
        if (auto error = fault(Operation::createAt)) return fail(*error);
        return RepositoryFileAccess::createAt(identifier, text);
    }
    Result<void> moveToTrash(const QString& identifier) const override {
        if (auto error = fault(Operation::moveToTrash)) return fail(*error);
        return RepositoryFileAccess::moveToTrash(identifier);
    }
    Result<void> saveFolderMetadata(const FolderMetadata& metadata) const override {
        if (auto error = fault(Operation::saveFolderMetadata)) return fail(*error);
        return RepositoryFileAccess::saveFolderMetadata(metadata);
    }

private:
    struct Fault {
        Error error;
        int remaining;
    };
    std::optional<Error> fault(Operation operation) const {
        ++calls_[static_cast<int>(operation)];
        QMutexLocker lock(&mutex_);
        auto& fault = faults_[static_cast<int>(operation)];
        if (!fault || fault->remaining <= 0) return std::nullopt;
        --fault->remaining;
        return fault->error;
    }

    mutable QMutex mutex_;
    mutable std::optional<Fault> faults_[4];
    mutable std::atomic<int> calls_[4] = {};
    mutable QSemaphore gate_;
    mutable std::atomic<int> waiting_{0};
    std::atomic<bool> held_{false};
    mutable QSemaphore readGate_;
    mutable std::atomic<int> readsWaiting_{0};
    std::atomic<bool> readsHeld_{false};
    mutable QSemaphore metadataGate_;
    mutable std::atomic<int> metadataWaiting_{0};
    std::atomic<bool> metadataHeld_{false};
};

// Errors as the disk would give them.
inline Error diskFull(const QString& path) { return Error::system(ENOSPC, path); }
inline Error permissionDenied(const QString& path) { return Error::system(EACCES, path); }

}  // namespace mossly::test
