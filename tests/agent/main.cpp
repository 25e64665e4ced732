#include <gtest/gtest.h>

#include "AgentAccess.h"
#include "TestSupport.h"

int main(int argc, char** argv) {
    // Before anything reads them: no test may touch the real user's folders or Trash.
    mossly::test::isolateUserDirectories();
    // The user has let agents in; the access tests turn it off where they need to.
    if (!mossly::AgentAccess::setEnabled(true)) return 1;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
