#include "InterruptSignals.h"

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace mossly::meeting {

namespace {

volatile std::sig_atomic_t writeEnd = -1;
struct sigaction previousInterrupt {};
struct sigaction previousTerminate {};

void forward(int) {
    const char byte = 1;
    // Nothing to do on failure: a full pipe already holds an unread interrupt.
    [[maybe_unused]] const auto written = ::write(writeEnd, &byte, 1);
}

}  // namespace

InterruptSignals::InterruptSignals(std::function<void()> onInterrupt, QObject* parent)
    : QObject(parent), onInterrupt_(std::move(onInterrupt)) {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds_) != 0) return;
    writeEnd = fds_[0];
    notifier_ = std::make_unique<QSocketNotifier>(fds_[1], QSocketNotifier::Read);
    connect(notifier_.get(), &QSocketNotifier::activated, this, [this] {
        char bytes[16];
        while (::read(fds_[1], bytes, sizeof bytes) > 0) {
        }
        if (onInterrupt_) onInterrupt_();
    });
    struct sigaction action {};
    action.sa_handler = forward;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, &previousInterrupt);
    sigaction(SIGTERM, &action, &previousTerminate);
}

InterruptSignals::~InterruptSignals() {
    if (fds_[0] < 0) return;
    sigaction(SIGINT, &previousInterrupt, nullptr);
    sigaction(SIGTERM, &previousTerminate, nullptr);
    writeEnd = -1;
    notifier_.reset();
    ::close(fds_[0]);
    ::close(fds_[1]);
}

}  // namespace mossly::meeting
