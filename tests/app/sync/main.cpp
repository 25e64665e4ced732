#include <QCoreApplication>
#include <gtest/gtest.h>

#include "AgentAccess.h"
#include "TestSupport.h"

int main(int argc, char** argv) {
    mossly::test::isolateUserDirectories();
    // Machine B is mossly-agent, which needs agent access.
    if (!mossly::AgentAccess::setEnabled(true)) return 1;
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
