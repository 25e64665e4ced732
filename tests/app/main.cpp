#include <QApplication>
#include <gtest/gtest.h>

#include "TestSupport.h"

int main(int argc, char** argv) {
    mossly::test::isolateUserDirectories();
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
