#pragma once

#include <QObject>
#include <functional>

class QSocketNotifier;
class QWidget;

namespace mossly {

// Ends the app cleanly however it is asked to: the Quit command, closing the
// library window, or SIGTERM/SIGINT from the session. Before the process ends
// the termination handler runs (the app saves pending edits there) and may
// postpone the quit; with none installed, quitting is immediate.
class AppLifecycle : public QObject {
    Q_OBJECT
public:
    // Returns whether the app may quit; `mayCancel` is false when it is too late to stay.
    using TerminationHandler = std::function<bool(bool mayCancel)>;

    explicit AppLifecycle(QObject* parent = nullptr);
    ~AppLifecycle() override;

    void setTerminationHandler(TerminationHandler handler) { terminationHandler_ = std::move(handler); }
    // Closing this window asks to quit the app.
    void watchMainWindow(QWidget* window);
    // Routes SIGTERM and SIGINT into the event loop (a signal handler may do
    // nothing but write to a pipe).
    void handleTerminationSignals();
    // Runs the termination handler, then quits unless it postponed the quit.
    void requestQuit();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void aboutToQuit();

    TerminationHandler terminationHandler_;
    QSocketNotifier* signalNotifier_ = nullptr;
    QObject* mainWindow_ = nullptr;
    bool handlerDone_ = false;  // the handler agreed to this quit
    bool asking_ = false;
};

}  // namespace mossly
