#include "AppLifecycle.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>
#include <QWidget>
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

void AppLifecycle::watchMainWindow(QWidget* window) {
    mainWindow_ = window;
    window->installEventFilter(this);
}

bool AppLifecycle::eventFilter(QObject* watched, QEvent* event) {
    if (watched == mainWindow_ && event->type() == QEvent::Close && !handlerDone_) {
        // The window stays until the work before quitting is done (or the user stays).
        event->ignore();
        QTimer::singleShot(0, this, &AppLifecycle::requestQuit);
        return true;
    }
    return QObject::eventFilter(watched, event);
}

void AppLifecycle::handleTerminationSignals() {
    if (signalNotifier_ || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0) return;
    signalNotifier_ = new QSocketNotifier(signalPipe[1], QSocketNotifier::Read, this);
    connect(signalNotifier_, &QSocketNotifier::activated, this, [this] {
        char byte = 0;
        (void)!::read(signalPipe[1], &byte, 1);
        requestQuit();
    });
    struct sigaction action {};
    action.sa_handler = forwardSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
}

void AppLifecycle::requestQuit() {
    if (asking_ || handlerDone_) return;
    asking_ = true;
    const bool mayQuit = !terminationHandler_ || terminationHandler_(true);
    asking_ = false;
    if (!mayQuit) return;
    handlerDone_ = true;
    QCoreApplication::quit();
}

void AppLifecycle::aboutToQuit() {
    DiagnosticsCenter::shared().event(QStringLiteral("Application will terminate"));
    // A quit that did not come through requestQuit still gets its work done.
    if (!handlerDone_ && terminationHandler_) (void)terminationHandler_(false);
    handlerDone_ = true;
}

}  // namespace mossly
