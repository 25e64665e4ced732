#include "AppLifecycle.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

#include "Diagnostics.h"

namespace mossly {

namespace {

int signalPipe[2] = {-1, -1};

void forwardSignal(int) {
    const char byte = 1;
    (void)!::write(signalPipe[0], &byte, 1);
}

}  // namespace

AppLifecycle::AppLifecycle(QObject* parent) : QObject(parent) {
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this, &AppLifecycle::aboutToQuit);
}

AppLifecycle::~AppLifecycle() = default;

void AppLifecycle::handleTerminationSignals() {
    if (signalNotifier_ || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0) return;
    signalNotifier_ = new QSocketNotifier(signalPipe[1], QSocketNotifier::Read, this);
    connect(signalNotifier_, &QSocketNotifier::activated, this, [] {
        char byte = 0;
        (void)!::read(signalPipe[1], &byte, 1);
        QCoreApplication::quit();
    });
    struct sigaction action {};
    action.sa_handler = forwardSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
}

void AppLifecycle::aboutToQuit() {
    DiagnosticsCenter::shared().event(QStringLiteral("Application will terminate"));
    if (terminationHandler_) terminationHandler_();
}

}  // namespace mossly
