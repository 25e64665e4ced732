#include <QApplication>
#include <QDir>
#include <gtest/gtest.h>

#include "TestSupport.h"

// The HTML view tests run a real Chromium (Qt WebEngine), headless.
int main(int argc, char** argv) {
    mossly::test::isolateUserDirectories();
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");  // CI runs as root, where the sandbox cannot start
    qputenv("QTWEBENGINE_CHROMIUM_FLAGS", "--disable-gpu --disable-background-networking");
    qputenv("QT_LOGGING_RULES", "qt.webenginecontext.info=false");
    qputenv("DBUS_SESSION_BUS_ADDRESS", "disabled:");
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
