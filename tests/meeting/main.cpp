#include <gtest/gtest.h>

#include <QDir>
#include <QString>
#include <cstdlib>

#include "TestSupport.h"

int main(int argc, char** argv) {
    // Before anything reads them: no test may touch the real user's folders or Trash.
    mossly::test::isolateUserDirectories();
    // A temporary folder of this process's own: tests that check what a run
    // leaves in the temporary folder must not see other test processes' files.
    QByteArray pattern = QDir::tempPath().toUtf8() + "/meeting-tests-XXXXXX";
    const char* own = mkdtemp(pattern.data());
    if (own) setenv("TMPDIR", own, 1);
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    if (own) QDir(QString::fromLocal8Bit(own)).removeRecursively();
    return result;
}
