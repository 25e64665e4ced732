#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <functional>
#include <memory>

namespace mossly::meeting {

// Turns SIGINT and SIGTERM into a call on the Qt thread that creates it, through
// a self-pipe: a signal handler may do nothing but write a byte. One at a time
// per process; the previous handlers come back when it is destroyed.
class InterruptSignals : public QObject {
    Q_OBJECT
public:
    explicit InterruptSignals(std::function<void()> onInterrupt, QObject* parent = nullptr);
    ~InterruptSignals() override;

private:
    std::function<void()> onInterrupt_;
    int fds_[2] = {-1, -1};
    std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace mossly::meeting
