#include <gtest/gtest.h>

#include "TestSupport.h"

int main(int argc, char** argv) {
    // Before anything reads them: no test may touch the real user's folders or Trash.
    mossly::test::isolateUserDirectories();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
