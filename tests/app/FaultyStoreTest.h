#pragma once

#include <gtest/gtest.h>

#include <QDir>
#include <memory>

#include "FaultyFileAccess.h"
#include "NoteDocument.h"
#include "NoteStore.h"
#include "TestSupport.h"

namespace mossly::test {

// A store over a real notes folder whose file layer fails on demand.
class FaultyStoreTest : public ::testing::Test {
protected:
    TemporaryNotesFolder folder;
    std::shared_ptr<FaultyFileAccess> files;

    std::unique_ptr<NoteStore> openStore(bool synchronously = true) {
        NoteStore::Options options{.createsWelcomeNote = false, .loadsNotesSynchronously = synchronously,
                                   .welcomeIconPng = {}};
        options.fileAccess = [this](const QString& directory) {
            files = std::make_shared<FaultyFileAccess>(directory);
            return files;
        };
        return std::make_unique<NoteStore>(folder.path(), options);
    }
    QString url(const QString& identifier) const { return QDir::cleanPath(folder.filePath(identifier)); }
    QString bodyOnDisk(const QString& identifier) const {
        return NoteDocument(QString::fromUtf8(folder.read(identifier)), NoteContentType::markdown).body;
    }
};

}  // namespace mossly::test
