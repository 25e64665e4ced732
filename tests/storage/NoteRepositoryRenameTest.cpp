#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include "NoteFileLock.h"
#include "NoteRepository.h"
#include "TestSupport.h"

namespace mossly {
namespace {

class NoteRepositoryRenameTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    NoteRepository repository{folder.path()};

    QString revisionOf(const QString& identifier) {
        auto note = repository.read(identifier);
        EXPECT_TRUE(note);
        return note ? note->document.revision() : QString();
    }
    QStringList visibleEntries() const {
        QStringList entries = folder.allEntries();
        entries.removeAll(QStringLiteral(".notes-agent.lock"));
        return entries;
    }
};

TEST_F(NoteRepositoryRenameTest, RenamesInPlaceKeepingExtensionSubfolderAndText) {
    QDir(folder.path()).mkpath(QStringLiteral("Projects"));
    folder.write(QStringLiteral("Projects/Untitled.markdown"), "# Plan\nwords");
    const QString revision = revisionOf(QStringLiteral("Projects/Untitled.markdown"));

    auto renamed = repository.rename(QStringLiteral("Projects/Untitled.markdown"), revision,
                                     QStringLiteral("Plan für Q3"), NoteEditor::human());
    ASSERT_TRUE(renamed) << renamed.error().description().toStdString();
    EXPECT_EQ(renamed->identifier, QStringLiteral("Projects/Plan für Q3.markdown"));
    EXPECT_EQ(renamed->document.revision(), revision);
    EXPECT_EQ(folder.read(QStringLiteral("Projects/Plan für Q3.markdown")), "# Plan\nwords");
    EXPECT_EQ(visibleEntries(), (QStringList{"Projects", "Projects/Plan für Q3.markdown"}));

    // The same name again changes nothing and is no error.
    auto same = repository.rename(renamed->identifier, revision, QStringLiteral("Plan für Q3"), NoteEditor::human());
    ASSERT_TRUE(same);
    EXPECT_EQ(same->identifier, renamed->identifier);
}

TEST_F(NoteRepositoryRenameTest, NeverReplacesAnExistingFile) {
    folder.write(QStringLiteral("Untitled.md"), "mine");
    folder.write(QStringLiteral("Plan.md"), "someone else's");
    QDir(folder.path()).mkpath(QStringLiteral("Folder.md"));

    for (const QString& name : {QStringLiteral("Plan"), QStringLiteral("Folder")}) {
        auto renamed = repository.rename(QStringLiteral("Untitled.md"), revisionOf(QStringLiteral("Untitled.md")),
                                         name, NoteEditor::human());
        ASSERT_FALSE(renamed);
        EXPECT_EQ(renamed.error().code(), Error::Code::alreadyExists) << name.toStdString();
    }
    EXPECT_EQ(folder.read(QStringLiteral("Untitled.md")), "mine");
    EXPECT_EQ(folder.read(QStringLiteral("Plan.md")), "someone else's");
    EXPECT_EQ(visibleEntries(), (QStringList{"Folder.md", "Plan.md", "Untitled.md"}));
}

TEST_F(NoteRepositoryRenameTest, RefusesAChangedFileABusyLibraryAndBadNames) {
    folder.write(QStringLiteral("Untitled.md"), "v1");
    const QString oldRevision = revisionOf(QStringLiteral("Untitled.md"));
    folder.write(QStringLiteral("Untitled.md"), "v2 from an agent");

    auto stale = repository.rename(QStringLiteral("Untitled.md"), oldRevision, QStringLiteral("Plan"),
                                   NoteEditor::human());
    ASSERT_FALSE(stale);
    EXPECT_EQ(stale.error().code(), Error::Code::stale);

    const QString revision = revisionOf(QStringLiteral("Untitled.md"));
    {
        auto held = NoteFileLock::acquire(folder.path());
        ASSERT_TRUE(held);
        auto busy = repository.rename(QStringLiteral("Untitled.md"), revision, QStringLiteral("Plan"),
                                      NoteEditor::human());
        ASSERT_FALSE(busy);
        EXPECT_EQ(busy.error().code(), Error::Code::busy);
    }

    for (const QString& name : {QString(), QStringLiteral("a/b"), QStringLiteral("../Plan"), QStringLiteral(".hidden"),
                               QStringLiteral(" Plan"), QStringLiteral("tab\there"), QString(300, u'x')}) {
        auto invalid = repository.rename(QStringLiteral("Untitled.md"), revision, name, NoteEditor::human());
        ASSERT_FALSE(invalid) << name.toStdString();
        EXPECT_EQ(invalid.error().code(), Error::Code::invalidIdentifier) << name.toStdString();
    }
    auto missing = repository.rename(QStringLiteral("Gone.md"), revision, QStringLiteral("Plan"), NoteEditor::human());
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().code(), Error::Code::notFound);
    EXPECT_EQ(visibleEntries(), QStringList{"Untitled.md"});
    EXPECT_EQ(folder.read(QStringLiteral("Untitled.md")), "v2 from an agent");
}

}  // namespace
}  // namespace mossly
