#include <QCoreApplication>
#include <gtest/gtest.h>

#include "TestSupport.h"

int main(int argc, char** argv) {
    mossly::test::isolateUserDirectories();
    // The controller applies its worker's results through the main thread's event loop.
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
