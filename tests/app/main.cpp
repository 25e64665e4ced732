#include <QApplication>
#include <gtest/gtest.h>

#include "AgentAccess.h"
#include "TestSupport.h"

int main(int argc, char** argv) {
    mossly::test::isolateUserDirectories();
    // The conflict tests run mossly-agent, which needs agent access.
    if (!mossly::AgentAccess::setEnabled(true)) return 1;
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
