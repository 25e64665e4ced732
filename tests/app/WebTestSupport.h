#pragma once

#include <QVariant>
#include <QWebEnginePage>
#include <QWebEngineScript>

#include "AppTestSupport.h"

namespace mossly::test {

// What `script` evaluates to in the page (in `world`), waiting up to ten seconds.
inline QVariant evaluate(QWebEnginePage* page, const QString& script,
                         quint32 world = QWebEngineScript::MainWorld) {
    QVariant result;
    bool done = false;
    page->runJavaScript(script, world, [&](const QVariant& value) {
        result = value;
        done = true;
    });
    waitUntil([&] { return done; }, 10000);
    return result;
}

}  // namespace mossly::test
