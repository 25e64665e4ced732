#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "NoteLinkPolicy.h"

namespace mossly {
namespace {

using Code = NoteLinkRefusal::Code;

class NoteLinkPolicyTest : public ::testing::Test {
protected:
    QTemporaryDir root;
    QString notes;

    void SetUp() override {
        ASSERT_TRUE(root.isValid());
        notes = root.filePath(QStringLiteral("Notes"));
        ASSERT_TRUE(QDir().mkpath(notes + QStringLiteral("/Saved pages")));
        write(notes + QStringLiteral("/install.sh"), "#!/bin/sh\necho ran > ran.txt\n", true);
        write(notes + QStringLiteral("/Saved pages/update.desktop"), "[Desktop Entry]\nType=Application\nExec=sh -c 'touch ran'\n");
        write(notes + QStringLiteral("/Saved pages/report.pdf"), "%PDF-1.4\n");
        write(root.filePath(QStringLiteral("elsewhere.sh")), "#!/bin/sh\n", true);
        ASSERT_TRUE(QFile::link(QStringLiteral("/bin/sh"), notes + QStringLiteral("/shell")));
        ASSERT_TRUE(QFile::link(notes + QStringLiteral("/install.sh"), notes + QStringLiteral("/Saved pages/setup")));
    }
    static void write(const QString& path, const QByteArray& bytes, bool executable = false) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        file.close();
        if (executable) file.setPermissions(file.permissions() | QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther);
    }
    auto action(const QString& path) const { return noteLinkAction(QUrl::fromLocalFile(path), notes); }
    QUrl folderShownFor(const QString& path) const {
        const auto result = action(path);
        if (!result || !std::holds_alternative<ShowFolderLink>(*result)) {
            ADD_FAILURE() << path.toStdString() << " is not shown as its folder";
            return {};
        }
        return std::get<ShowFolderLink>(*result).folder;
    }
};

// Whatever the file is, what gets opened is a folder: never a script, a
// launcher or the target of a link.
TEST_F(NoteLinkPolicyTest, LocalFilesThatAreNotNotesOnlyShowTheirFolder) {
    const QString pages = QDir(notes).canonicalPath() + QStringLiteral("/Saved pages");
    EXPECT_EQ(folderShownFor(notes + QStringLiteral("/install.sh")), QUrl::fromLocalFile(QDir(notes).canonicalPath()));
    EXPECT_EQ(folderShownFor(notes + QStringLiteral("/Saved pages/update.desktop")), QUrl::fromLocalFile(pages));
    EXPECT_EQ(folderShownFor(notes + QStringLiteral("/Saved pages/report.pdf")), QUrl::fromLocalFile(pages));
    // A link inside the folder to a script inside it: the script's folder, not the script.
    EXPECT_EQ(folderShownFor(notes + QStringLiteral("/Saved pages/setup")), QUrl::fromLocalFile(QDir(notes).canonicalPath()));
    EXPECT_EQ(folderShownFor(notes + QStringLiteral("/Saved pages")), QUrl::fromLocalFile(pages));
}

TEST_F(NoteLinkPolicyTest, FilesOutsideTheNotesFolderAreRefused) {
    for (const QString& path : {notes + QStringLiteral("/shell"),  // a link in the folder to /bin/sh
                                root.filePath(QStringLiteral("elsewhere.sh")),
                                notes + QStringLiteral("/../elsewhere.sh"), QStringLiteral("/bin/sh")}) {
        EXPECT_EQ(action(path), std::unexpected(Code::outsideNotesFolder)) << path.toStdString();
    }
    EXPECT_EQ(action(QStringLiteral("install.sh")), std::unexpected(Code::outsideNotesFolder)) << "nothing to resolve it against";
    EXPECT_EQ(noteLinkAction(QUrl::fromLocalFile(notes + QStringLiteral("/install.sh")), {}),
              std::unexpected(Code::outsideNotesFolder))
        << "no notes folder known";
    EXPECT_EQ(action(notes + QStringLiteral("/gone.sh")), std::unexpected(Code::missingFile));
    EXPECT_FALSE(action(notes + QStringLiteral("/gone.sh")).error().description().isEmpty());
}

TEST_F(NoteLinkPolicyTest, NotesOpenInTheAppWebLinksInTheBrowserAndOtherSchemesNowhere) {
    const QString note = notes + QStringLiteral("/Saved pages/Trip.html");
    EXPECT_EQ(std::get<OpenNoteLink>(*action(note)).path, note);
    for (const char* web : {"https://example.com/a?b#c", "HTTP://example.com", "mailto:someone@example.com"}) {
        const auto result = noteLinkAction(QUrl(QString::fromLatin1(web)), notes);
        ASSERT_TRUE(result && std::holds_alternative<OpenWebLink>(*result)) << web;
        EXPECT_EQ(std::get<OpenWebLink>(*result).url, QUrl(QString::fromLatin1(web)));
    }
    for (const char* other : {"javascript:alert(1)", "smb://server/share/run.exe", "file://server/share/run.sh",
                              "ftp://example.com/x", "appname://do-something", "data:text/html,<b>x</b>"}) {
        EXPECT_EQ(noteLinkAction(QUrl(QString::fromLatin1(other)), notes), std::unexpected(Code::unsupportedScheme))
            << other;
    }
}

}  // namespace
}  // namespace mossly
