#pragma once

#include <gtest/gtest.h>

#include <QDir>
#include <QTest>
#include <memory>

#include "MainWindow.h"
#include "NoteStore.h"
#include "TestSupport.h"

namespace mossly::test {

// The library window on a temporary notes folder, as a user sees it.
class LibraryWindowTest : public ::testing::Test {
protected:
    TemporaryNotesFolder folder;
    std::unique_ptr<NoteStore> store;
    std::unique_ptr<MainWindow> window;

    void open() {
        store = std::make_unique<NoteStore>(
            folder.path(), NoteStore::Options{.createsWelcomeNote = false, .loadsNotesSynchronously = true,
                                              .welcomeIconPng = {}});
        window = std::make_unique<MainWindow>(*store);
        window->resize(1100, 720);
        window->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window.get()));
    }
    QString url(const QString& identifier) const { return QDir::cleanPath(folder.filePath(identifier)); }
};

}  // namespace mossly::test
