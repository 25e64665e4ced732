#pragma once

#include <QString>
#include <type_traits>
#include <utility>

#include "Error.h"

namespace mossly {

// The library lock: serialises writers of one notes folder across processes
// (the app, the meeting recorder, mossly-agent). An exclusive, non-blocking
// flock on ".notes-agent.lock" in the folder; a second taker, even another
// thread of the same process, fails at once with `busy`. Never waits.
class NoteFileLock {
public:
    static inline const QString fileName = QStringLiteral(".notes-agent.lock");

    // Runs `operation` (returning Result<T>) while holding the lock of
    // `directory`; the operation's own failure passes through unchanged.
    template <typename Operation>
    static auto withExclusiveLock(const QString& directory, Operation&& operation)
        -> std::invoke_result_t<Operation> {
        auto held = acquire(directory);
        if (!held) return fail(held.error());
        return operation();
    }

    // The held lock; released (LOCK_UN, close) when destroyed.
    class Held {
    public:
        explicit Held(int fd) : fd_(fd) {}
        Held(Held&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;
        Held& operator=(Held&&) = delete;
        ~Held();

    private:
        int fd_;
    };

    static Result<Held> acquire(const QString& directory);
};

}  // namespace mossly
