#pragma once

#include <QObject>
#include <functional>

class QSocketNotifier;

namespace mossly {

// Ends the app cleanly however it is asked to: the Quit command, closing the
// last window, or SIGTERM/SIGINT from the session. Before the process ends the
// termination handler runs (the app flushes pending saves there); with none
// installed, quitting is immediate.
class AppLifecycle : public QObject {
    Q_OBJECT
public:
    explicit AppLifecycle(QObject* parent = nullptr);
    ~AppLifecycle() override;

    void setTerminationHandler(std::function<void()> handler) { terminationHandler_ = std::move(handler); }
    // Routes SIGTERM and SIGINT into the event loop (a signal handler may do
    // nothing but write to a pipe).
    void handleTerminationSignals();

private:
    void aboutToQuit();

    std::function<void()> terminationHandler_;
    QSocketNotifier* signalNotifier_ = nullptr;
};

}  // namespace mossly
