#include <QClipboard>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QMessageBox>
#include <QMimeData>
#include <QPointer>
#include <QProcess>
#include <QPushButton>
#include <QTabWidget>
#include <QTimer>
#include <QUrl>
#include <QWebEnginePage>
#include <QWebEngineScript>
#include <QWebEngineView>

#include "AppLifecycle.h"
#include "EditorPane.h"
#include "HtmlNoteView.h"
#include "Journey.h"
#include "MarkdownTextView.h"
#include "NoteFileLock.h"
#include "PlainNoteEditor.h"
#include "SettingsWindow.h"
#include "WebTestSupport.h"

namespace mossly::test {
namespace {

class SavingJourney : public Journey {
protected:
    MarkdownTextView* editor() const { return window().editorPane()->markdownEditor(); }
    void writeAtEnd() {
        QTest::mouseClick(editor()->viewport(), Qt::LeftButton, {}, QPoint(40, 20));
        press(Qt::Key_End, Qt::ControlModifier);
    }
};

// A screenshot pasted into a note is saved beside it and shown in it.
TEST_F(SavingJourney, APastedImageIsSavedBesideTheNote) {
    folder.write(QStringLiteral("Trip.md"), "# Trip\nthe view:");
    launch();
    writeAtEnd();
    press(Qt::Key_Return);
    QImage picture(64, 48, QImage::Format_RGB32);
    picture.fill(Qt::darkCyan);
    auto* data = new QMimeData;
    data->setImageData(picture);
    QGuiApplication::clipboard()->setMimeData(data);
    press(QKeySequence(QStringLiteral("Ctrl+V")));
    settle();
    const QString body = bodyOnDisk(QStringLiteral("Trip.md"));
    EXPECT_TRUE(body.contains(QStringLiteral("](Trip.assets/"))) << body.toStdString();
    QStringList assets;
    for (const QString& entry : folder.allEntries()) {
        if (entry.startsWith(QStringLiteral("Trip.assets/")) && entry.endsWith(QStringLiteral(".png"))) assets.append(entry);
    }
    ASSERT_EQ(assets.size(), 1);
    EXPECT_FALSE(QImage(folder.filePath(assets.front())).isNull());
    screenshot(QStringLiteral("pasted-image"), &window());
}

// Note files dropped on the window are imported as notes.
TEST_F(SavingJourney, NoteFilesDroppedOnTheWindowAreImported) {
    launch();
    TemporaryNotesFolder elsewhere;
    elsewhere.write(QStringLiteral("Minutes.md"), "# Minutes\nagreed");
    elsewhere.write(QStringLiteral("Page.html"), "<html><body><p>hello</p></body></html>");
    QMimeData files;
    files.setUrls({QUrl::fromLocalFile(elsewhere.filePath(QStringLiteral("Minutes.md"))),
                   QUrl::fromLocalFile(elsewhere.filePath(QStringLiteral("Page.html")))});
    dropOn(&window(), window().rect().center(), files);
    ASSERT_TRUE(waitUntil([&] { return folder.exists(QStringLiteral("Minutes.md")) && folder.exists(QStringLiteral("Page.html")); }));
    ASSERT_TRUE(waitUntil([&] { return rowRect(QStringLiteral("Minutes")).isValid(); }));
    EXPECT_TRUE(elsewhere.exists(QStringLiteral("Minutes.md"))) << "the originals stay where they were";
}

// Split mode puts an HTML note's source beside its page; what is typed there is saved.
TEST_F(SavingJourney, AnHtmlNoteIsEditedInSplitMode) {
    folder.write(QStringLiteral("Page.html"), "<!doctype html><html><head><title>Page</title></head><body><p>hello</p></body></html>");
    launch();
    ASSERT_TRUE(waitUntil([&] { return window().editorPane()->htmlView() != nullptr; }, 10000));
    press(QKeySequence(QStringLiteral("Ctrl+Alt+S")));
    auto* source = window().editorPane()->findChild<PlainNoteEditor*>(QStringLiteral("htmlSourceEditor"));
    ASSERT_TRUE(source);
    ASSERT_TRUE(waitUntil([&] { return source->isVisible() && source->toPlainText().contains(QStringLiteral("hello")); }));
    source->setFocus();
    QTextCursor cursor = source->textCursor();
    cursor.setPosition(static_cast<int>(source->toPlainText().indexOf(QStringLiteral("hello")) + 5));
    source->setTextCursor(cursor);
    type(QStringLiteral(" world"));
    settle();
    EXPECT_TRUE(QString::fromUtf8(folder.read(QStringLiteral("Page.html"))).contains(QStringLiteral("<p>hello world</p>")));
    settle(1000);
    screenshot(QStringLiteral("html-split-mode"), &window());
}

// On a dark desktop an HTML note is shown on a dark base, its own styles and its file untouched.
TEST_F(SavingJourney, AnHtmlNoteFollowsADarkDesktop) {
    const QByteArray page = "<!doctype html><html><head><title>Page</title><style>.mine{color:rgb(200, 30, 30)}</style>"
                            "</head><body><p>plain words</p><p class=\"mine\">the author's red</p></body></html>";
    folder.write(QStringLiteral("Page.html"), page);
    const QPalette light = QApplication::palette();
    QPalette dark = light;
    dark.setColor(QPalette::Window, QColor(0x2b, 0x2b, 0x2b));
    dark.setColor(QPalette::Base, QColor(0x1e, 0x1e, 0x1e));
    dark.setColor(QPalette::Text, QColor(0xe6, 0xe6, 0xe6));
    dark.setColor(QPalette::WindowText, QColor(0xe6, 0xe6, 0xe6));
    dark.setColor(QPalette::Link, QColor(0x8a, 0xb4, 0xf8));
    QApplication::setPalette(dark);
    launch();
    HtmlNoteView* view = nullptr;
    ASSERT_TRUE(waitUntil([&] { return (view = window().editorPane()->htmlView()) != nullptr; }, 10000));
    QWebEnginePage* shown = view->findChild<QWebEngineView*>()->page();
    const auto evaluate = [&](const QString& script) {
        return test::evaluate(shown, script, QWebEngineScript::ApplicationWorld).toString();
    };
    ASSERT_TRUE(waitUntil([&] { return evaluate(QStringLiteral("document.body ? document.body.innerText : ''")).contains(QStringLiteral("plain words")); }, 15000));
    EXPECT_EQ(evaluate(QStringLiteral("getComputedStyle(document.body).color")), QStringLiteral("rgb(230, 230, 230)"));
    EXPECT_EQ(evaluate(QStringLiteral("getComputedStyle(document.querySelector('.mine')).color")),
              QStringLiteral("rgb(200, 30, 30)")) << "the note's own styles win";
    settle(800);
    screenshot(QStringLiteral("html-note-dark"), &window());
    EXPECT_EQ(folder.read(QStringLiteral("Page.html")), page) << "the file is untouched";
    QApplication::setPalette(light);
}

// A note deleted elsewhere while it holds unsaved words is written back with them.
TEST_F(SavingJourney, ANoteDeletedElsewhereWhileTypingIsWrittenBack) {
    folder.write(QStringLiteral("Draft.md"), "# Draft\nstart");
    launch();
    writeAtEnd();
    type(QStringLiteral(" and more"));
    QFile::remove(folder.filePath(QStringLiteral("Draft.md")));  // before the quarter-second save
    ASSERT_TRUE(waitUntil([&] {
        return folder.exists(QStringLiteral("Draft.md")) &&
               bodyOnDisk(QStringLiteral("Draft.md")) == QStringLiteral("# Draft\nstart and more");
    }, 8000));
}

// Quitting while another writer holds the library: Mossly waits, then asks;
// Keep Trying stays open, and the words are saved once the library is free.
TEST_F(SavingJourney, QuittingWithWordsThatCannotBeSavedAsksAndKeepsThem) {
    folder.write(QStringLiteral("Diary.md"), "# Diary\nMonday");
    launch();
    const auto holder = holdLibraryLock();
    writeAtEnd();
    type(QStringLiteral(", rain"));
    bool asked = false;
    whenShown([&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box || !box->isVisible()) return false;
        for (QAbstractButton* button : box->buttons()) {
            if (button->text() != QStringLiteral("Keep Trying")) continue;
            asked = true;
            screenshot(QStringLiteral("quit-cannot-save"), box);
            QTest::mouseClick(button, Qt::LeftButton);
        }
        return true;
    });
    press(QKeySequence(QStringLiteral("Ctrl+Q")));
    ASSERT_TRUE(waitUntil([&] { return asked; }, 15000)) << "the quit asks what to do with the unsaved words";
    spin(200);
    EXPECT_TRUE(window().isVisible()) << "Keep Trying keeps Mossly open";
    holder->kill();
    holder->waitForFinished();
    ASSERT_TRUE(waitUntil([&] { return bodyOnDisk(QStringLiteral("Diary.md")) == QStringLiteral("# Diary\nMonday, rain"); },
                          40000));
}

// `mossly FILE` while Mossly runs: the running one opens a note of its library,
// and offers a file from elsewhere for import, leaving that file as it was.
TEST_F(SavingJourney, FilesOpenedFromTheCommandLineGoToTheRunningMossly) {
    folder.write(QStringLiteral("Older.md"), "# Older");
    spin(20);
    folder.write(QStringLiteral("Newer.md"), "# Newer");
    launch();
    ASSERT_TRUE(waitUntil([&] { return store().selection().has_value(); }));
    // The second launch runs beside this one, whose event loop keeps going meanwhile.
    QProcess second;
    const auto run = [&](const QString& file) {
        second.start(QStringLiteral(MOSSLY_APP_PATH), {file});
        return waitUntil([&] { return second.state() == QProcess::NotRunning; }, 15000) ? second.exitCode() : -1;
    };
    EXPECT_EQ(run(folder.filePath(QStringLiteral("Older.md"))), 0) << "the second launch hands the file over and ends";
    ASSERT_TRUE(waitUntil([&] { return store().selection() == QDir::cleanPath(folder.filePath(QStringLiteral("Older.md"))); }));

    TemporaryNotesFolder elsewhere;
    elsewhere.write(QStringLiteral("Recipe.md"), "# Recipe\nflour");
    whenShown([&] {
        auto* question = window().findChild<QMessageBox*>(QStringLiteral("importOpenedFiles"));
        if (!question || !question->isVisible()) return false;
        screenshot(QStringLiteral("open-file-import"), question);
        for (QAbstractButton* button : question->buttons()) {
            if (button->text() == QStringLiteral("Import")) QTest::mouseClick(button, Qt::LeftButton);
        }
        return true;
    });
    EXPECT_EQ(run(elsewhere.filePath(QStringLiteral("Recipe.md"))), 0);
    ASSERT_TRUE(waitUntil([&] { return folder.exists(QStringLiteral("Recipe.md")); }, 15000));
    EXPECT_EQ(elsewhere.read(QStringLiteral("Recipe.md")), "# Recipe\nflour") << "the original is never changed";
}

// Settings (Ctrl+,) opens with a Close button; Check for Updates is there but off.
TEST_F(SavingJourney, SettingsOpenFromTheKeyboard) {
    launch();
    press(QKeySequence(QStringLiteral("Ctrl+,")));
    QPointer<SettingsWindow> settings;
    ASSERT_TRUE(waitUntil([&] {
        settings = window().findChild<SettingsWindow*>();
        return settings && settings->isVisible();
    }));
    // Agents: Register is offered only while a client is not registered, Unregister only while it is.
    auto* tabs = settings->findChild<QTabWidget*>(QStringLiteral("settingsTabs"));
    tabs->setCurrentIndex(1);
    auto* add = settings->findChild<QPushButton*>(QStringLiteral("register-codex"));
    auto* remove = settings->findChild<QPushButton*>(QStringLiteral("unregister-codex"));
    ASSERT_TRUE(add && remove);
    EXPECT_TRUE(add->isEnabled());
    EXPECT_FALSE(remove->isEnabled());
    QTest::mouseClick(add, Qt::LeftButton);
    EXPECT_FALSE(add->isEnabled());
    EXPECT_TRUE(remove->isEnabled());
    screenshot(QStringLiteral("settings"), settings);
    QPushButton* close = nullptr;
    for (QPushButton* button : settings->findChildren<QPushButton*>()) {
        if (button->text() == QStringLiteral("&Close") || button->text() == QStringLiteral("Close")) close = button;
    }
    ASSERT_TRUE(close) << "the Settings window has a Close button";
    QTest::mouseClick(close, Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return !settings || !settings->isVisible(); }));
    QAction* updates = findAction(window(), QStringLiteral("Check for Updates…"));
    ASSERT_TRUE(updates);
    EXPECT_FALSE(updates->isEnabled());
}

}  // namespace
}  // namespace mossly::test
