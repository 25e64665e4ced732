#pragma once

#include <QAction>
#include <QCoreApplication>
#include <QWidget>
#include <QElapsedTimer>
#include <QMutex>
#include <QStringList>
#include <functional>

#include "Diagnostics.h"

namespace mossly::test {

// The window's action with this menu text, if any.
inline QAction* findAction(QWidget& window, const QString& text) {
    for (QAction* action : window.findChildren<QAction*>()) {
        if (action->text() == text) return action;
    }
    return nullptr;
}

// Runs the event loop until `condition` holds or `timeoutMs` passes.
inline bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 5000) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeoutMs) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

inline void spin(int milliseconds) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < milliseconds) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

// Records the names of diagnostic events while alive.
class DiagnosticsRecorder {
public:
    DiagnosticsRecorder() {
        token_ = DiagnosticsCenter::shared().addObserver(
            [this](const QString&, const QString& name, const DiagnosticFields&) {
                QMutexLocker lock(&mutex_);
                names_.append(name);
            });
    }
    ~DiagnosticsRecorder() { DiagnosticsCenter::shared().removeObserver(token_); }
    int count(const QString& name) const {
        QMutexLocker lock(&mutex_);
        return static_cast<int>(names_.count(name));
    }

private:
    mutable QMutex mutex_;
    int token_;
    QStringList names_;
};

}  // namespace mossly::test
