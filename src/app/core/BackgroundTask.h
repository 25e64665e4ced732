#pragma once

#include <QCoreApplication>
#include <QMetaObject>
#include <QPointer>
#include <QThreadPool>
#include <memory>

namespace mossly {

// Runs `work` on Qt's thread pool and hands its result to `apply` on the GUI
// thread, unless `context` was destroyed meanwhile. `work` must capture only
// values and shared state, never the context object itself.
template <typename Work, typename Apply>
void runInBackground(QObject* context, Work work, Apply apply) {
    QPointer<QObject> guard(context);
    auto task = std::make_shared<std::pair<Work, Apply>>(std::move(work), std::move(apply));
    QThreadPool::globalInstance()->start([guard, task] {
        auto result = std::make_shared<decltype(task->first())>(task->first());
        // Posted to the application object, which outlives every context.
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [guard, task, result] {
                if (guard) task->second(std::move(*result));
            },
            Qt::QueuedConnection);
    });
}

}  // namespace mossly
