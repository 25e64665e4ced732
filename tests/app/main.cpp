#include <QApplication>
#include <gtest/gtest.h>

#include "AgentAccess.h"
#include "TestSupport.h"

int main(int argc, char** argv) {
    mossly::test::isolateUserDirectories();
    // The conflict tests run mossly-agent, which needs agent access.
    if (!mossly::AgentAccess::setEnabled(true)) return 1;
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    // Should a test show an HTML note, its web view must be able to start here (as root, headless).
    qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
    qputenv("QTWEBENGINE_CHROMIUM_FLAGS", "--disable-gpu --disable-background-networking");
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
