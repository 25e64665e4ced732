#pragma once

#include <QCoreApplication>

// Before the QApplication exists: Qt WebEngine headless, as root, without a GPU,
// making no background requests. For benchmarks that open web views.
inline void prepareHeadlessWebEngine() {
    qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
    qputenv("QTWEBENGINE_CHROMIUM_FLAGS", "--disable-gpu --disable-background-networking");
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
}
