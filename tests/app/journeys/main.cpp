#include <QApplication>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "TestSupport.h"

// The journeys run the whole app, web views included, in a real (headless) Chromium.
int main(int argc, char** argv) {
    mossly::test::isolateUserDirectories();
    // Each test process is its own user: its Mossly meets no other's at the instance socket.
    static QTemporaryDir runtime;
    QFile::setPermissions(runtime.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtime.path()));
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");  // CI runs as root, where the sandbox cannot start
    qputenv("QTWEBENGINE_CHROMIUM_FLAGS", "--disable-gpu --disable-background-networking");
    qputenv("QT_LOGGING_RULES", "qt.webenginecontext.info=false");
    qputenv("DBUS_SESSION_BUS_ADDRESS", "disabled:");
    qputenv("PULSE_SERVER", "unix:/nonexistent");  // no desktop audio server is asked for anything
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QApplication app(argc, argv);
    QApplication::setOrganizationDomain(QStringLiteral("com.bellam.notes"));
    QApplication::setApplicationName(QStringLiteral("Mossly"));
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
