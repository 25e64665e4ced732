#pragma once

#include <QString>
#include <QStringList>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#include "Error.h"
#include "NoteRepository.h"

namespace mossly {

// Reads notes on a background thread, in order, a bounded distance ahead of
// the consumer: while the catalog tokenises one note the next ones are read,
// decoded and hashed on the other core. Stops and joins when destroyed.
class NotePrefetcher {
public:
    struct Prepared {
        QString identifier;
        Result<StoredNote> note;
        // UTF-8, as the catalog binds them: encoding is part of the work moved off the writer.
        QByteArray visibleText;
        QByteArray title;
    };

    NotePrefetcher(const NoteRepository& repository, QStringList identifiers, std::size_t depth = 32);
    NotePrefetcher(const NotePrefetcher&) = delete;
    NotePrefetcher& operator=(const NotePrefetcher&) = delete;
    ~NotePrefetcher();

    // The next note in order; none when all were taken.
    std::optional<Prepared> next();

private:
    void run(std::stop_token stop);

    const NoteRepository& repository_;
    const QStringList identifiers_;
    const std::size_t depth_;
    std::mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<Prepared> ready_;
    qsizetype taken_ = 0;
    std::jthread worker_;  // last: started after everything it uses exists
};

}  // namespace mossly
