#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QMimeData>
#include <QTemporaryDir>
#include <algorithm>
#include <QFile>
#include <QPlainTextEdit>
#include <QTest>
#include <QWebEnginePage>
#include <QWebEngineScript>

#include "AppTestSupport.h"
#include "LibraryWindowTest.h"
#include "EditorPane.h"
#include "HTMLRenderPolicy.h"
#include "HtmlNoteView.h"
#include "HtmlPageView.h"
#include "MainWindow.h"
#include "NoteRequestInterceptor.h"
#include "NoteStore.h"
#include "PlainNoteEditor.h"
#include "TestSupport.h"

namespace mossly {
namespace {

QString readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QString pageDom(HtmlPageView& view) {
    QString dom;
    bool done = false;
    view.page()->toHtml([&](const QString& html) {
        dom = html;
        done = true;
    });
    test::waitUntil([&] { return done; });
    return dom;
}

bool waitForPage(HtmlPageView& view, int loadsBefore) {
    return test::waitUntil([&] { return view.loadedPages() > loadsBefore; }, 20000);
}

// Everything the view let through: data: URLs, the page itself, or files of the
// note's folder (relative references arrive in the page's own folder and are
// sent on to the note's).
void expectOnlyLocalRequests(const HtmlPageView& view, const QString& noteFolder, const std::string& note) {
    const NoteRequestInterceptor& interceptor = view.interceptor();
    for (const QUrl& url : interceptor.requested()) {
        if (interceptor.refused().contains(url) || url.scheme() == QLatin1String("data")) continue;
        ASSERT_TRUE(url.isLocalFile()) << note << ": " << url.toString().toStdString();
        const QString file = url.toLocalFile();
        EXPECT_TRUE(NoteRequestInterceptor::isInside(file, view.pageFolder()) ||
                    NoteRequestInterceptor::isInside(file, noteFolder))
            << note << ": " << url.toString().toStdString();
    }
}

using HtmlNoteViewTest = test::LibraryWindowTest;

// Each of these would change the title, add an element, reach the network or
// read a file outside the folder if anything of it ran or loaded.
TEST_F(HtmlNoteViewTest, HostileNotesAreInertInTheRealView) {
    const QString pwn = QStringLiteral(
        "document.title='pwned';var e=document.createElement('p');e.id='pwned';document.body.appendChild(e);"
        "console.log('pwned')");
    const std::vector<std::pair<std::string, QString>> notes = {
        {"script", "<script>" + pwn + "</script>"},
        {"handler", "<img src=\"x.png\" onerror=\"" + pwn + "\"><body onload=\"" + pwn + "\">"},
        {"svg script", "<svg><script>" + pwn + "</script><a href=\"javascript:" + pwn + "\"><text>x</text></a></svg>"},
        {"javascript link", "<a id=\"l\" href=\"&#106;ava&#x09;script:" + pwn + "\">click</a>"},
        {"iframe", "<iframe srcdoc=\"<script>parent." + pwn + "</script>\"></iframe><iframe src=\"data:text/html,<script>"
                       + pwn + "</script>\"></iframe>"},
        {"meta refresh", "<meta http-equiv=\"refresh\" content=\"0;url=javascript:" + pwn + "\">"},
        {"remote loads", "<img src=\"http://127.0.0.1:9/a.png\"><link rel=\"stylesheet\" href=\"https://127.0.0.1:9/s.css\">"
                             "<div style=\"background:url('http://127.0.0.1:9/b.png')\">x</div>"
                             "<style>@import 'http://127.0.0.1:9/c.css';</style><video poster=\"http://127.0.0.1:9/p.png\"></video>"},
        {"file escapes", "<img src=\"../../../../etc/passwd\"><img src=\"file:///etc/hostname\">"
                             "<img src=\"%2e%2e/%2e%2e/etc/hosts\"><img src=\"file://evil.example/share/x.png\">"},
        {"plugins and forms", "<object data=\"x.swf\"></object><embed src=\"x.swf\"><form action=\"http://127.0.0.1:9/\">"
                                  "<input name=q><button formaction=\"javascript:" + pwn + "\">go</button></form>"},
        {"template", "<template><script>" + pwn + "</script></template><noscript><img src=\"http://127.0.0.1:9/n.png\"></noscript>"},
    };
    for (const auto& [name, body] : notes) {
        folder.write(QString::fromStdString(name) + QStringLiteral(".html"),
                     ("<!doctype html><html><head><title>inert</title></head><body>" + body + "<p>words</p></body></html>")
                         .toUtf8());
    }
    open();
    test::DiagnosticsRecorder diagnostics;
    for (const auto& [name, body] : notes) {
        const QString note = url(QString::fromStdString(name) + QStringLiteral(".html"));
        HtmlNoteView* view = window->editorPane()->htmlView();
        const int loads = view ? view->pageView()->loadedPages() : 0;
        if (view) view->pageView()->interceptor().clearLog();
        store->select(note);
        view = window->editorPane()->htmlView();
        ASSERT_TRUE(view) << name;
        ASSERT_TRUE(waitForPage(*view->pageView(), loads)) << name;
        test::spin(300);  // give anything that could run a chance to
        EXPECT_EQ(view->pageView()->page()->title(), QStringLiteral("inert")) << name;
        const QString dom = pageDom(*view->pageView());
        EXPECT_TRUE(dom.contains(QStringLiteral("words"))) << name;
        EXPECT_FALSE(dom.contains(QStringLiteral("id=\"pwned\""))) << name;
        expectOnlyLocalRequests(*view->pageView(), folder.path(), name);
        // The author's markup stays in the file: nothing was written back.
        EXPECT_TRUE(readFile(note).contains(body)) << name;
    }
    EXPECT_EQ(diagnostics.count(QStringLiteral("HTML note console message")), 0);
}

// Defence in depth: a page that somehow still asks for the network or a file
// elsewhere is refused by the view itself, and its own folder's images load.
TEST_F(HtmlNoteViewTest, TheViewRefusesWhatThePolicyWouldHaveRemoved) {
    folder.write(QStringLiteral("pic.svg"), "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"4\" height=\"4\"/>");
    HtmlPageView view;
    view.resize(400, 300);
    view.show();
    HTMLRenderResult raw;
    raw.html = QStringLiteral("<html><body><img src=\"http://127.0.0.1:9/x.png\"><img src=\"file:///etc/hostname\">"
                              "<img src=\"pic.svg\"></body></html>");
    const int loads = view.loadedPages();
    view.showPage(raw, folder.filePath(QStringLiteral("note.html")));
    ASSERT_TRUE(waitForPage(view, loads));
    test::spin(300);
    // The remote image never got through (Chromium itself keeps file pages off the
    // network; the interceptor refuses it if asked); the file elsewhere was refused.
    expectOnlyLocalRequests(view, folder.path(), "raw page");
    EXPECT_TRUE(view.interceptor().refused().contains(QUrl(QStringLiteral("file:///etc/hostname"))));
    const auto requestedPicture = std::ranges::any_of(view.interceptor().requested(), [](const QUrl& url) {
        return url.path().endsWith(QStringLiteral("/pic.svg"));
    });
    EXPECT_TRUE(requestedPicture) << "the note's own image is asked for";
    for (const QUrl& url : view.interceptor().refused()) {
        EXPECT_FALSE(url.path().endsWith(QStringLiteral("pic.svg"))) << "and not refused";
    }
}

// A saved page's links to local files: none of them runs, whatever it is.
TEST_F(HtmlNoteViewTest, LinksToLocalFilesShowTheirFolderAndNeverOpenTheFile) {
    folder.write(QStringLiteral("install.sh"), "#!/bin/sh\ntouch ran\n");
    QFile::setPermissions(folder.filePath(QStringLiteral("install.sh")), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    folder.write(QStringLiteral("update.desktop"), "[Desktop Entry]\nType=Application\nExec=touch ran\n");
    folder.write(QStringLiteral("Saved.html"), "<p><a href=\"install.sh\">install</a></p>");
    open();
    HtmlNoteView view(*store);
    QStringList opened;  // what the desktop was asked to open
    view.setUrlOpener([&](const QUrl& url) {
        opened.append(url.toString());
        return true;
    });
    QStringList refusals;
    QObject::connect(&view, &HtmlNoteView::refusedLink, [&](const QString& message) { refusals.append(message); });
    view.showNote(url(QStringLiteral("Saved.html")));

    const QString notesFolder = QUrl::fromLocalFile(QDir(folder.path()).canonicalPath()).toString();
    emit view.pageView()->linkActivated(QUrl::fromLocalFile(folder.filePath(QStringLiteral("install.sh"))));
    emit view.pageView()->linkActivated(QUrl::fromLocalFile(folder.filePath(QStringLiteral("update.desktop"))));
    EXPECT_EQ(opened, QStringList({notesFolder, notesFolder}));
    opened.clear();
    emit view.pageView()->linkActivated(QUrl::fromLocalFile(QStringLiteral("/bin/sh")));
    EXPECT_TRUE(opened.isEmpty());
    EXPECT_EQ(refusals.size(), 1) << "the user is told why nothing happened";
    emit view.pageView()->linkActivated(QUrl(QStringLiteral("https://example.com/page")));
    EXPECT_EQ(opened, QStringList({QStringLiteral("https://example.com/page")}));
}

TEST_F(HtmlNoteViewTest, EditingInSplitModeKeepsTheAuthorsScriptOnDisk) {
    folder.write(QStringLiteral("Page.html"),
                 "<html><head><title>Tide tables</title><script>var x = 1;</script>\n"
                 "<style>h1{color:#2e6b4f} .note{background:#eef6f1;padding:8px 12px;border-radius:6px}</style></head>\n"
                 "<body>\n<h1>Tide tables</h1>\n<p class=\"note\">High water at <b>06:12</b> and <b>18:40</b>.</p>\n"
                 "<ul><li>Charts</li><li>Rain jackets</li></ul>\n<p>Hello</p>\n</body></html>");
    open();
    const auto shot = [&](const QString& name) {
        if (const QByteArray dir = qgetenv("MOSSLY_SCREENSHOT_DIR"); !dir.isEmpty()) {
            test::spin(300);
            window->grab().save(QString::fromLocal8Bit(dir) + u'/' + name);
        }
    };
    store->select(url(QStringLiteral("Page.html")));
    ASSERT_TRUE(window->editorPane()->htmlView());
    ASSERT_TRUE(waitForPage(*window->editorPane()->htmlView()->pageView(), 0));
    shot(QStringLiteral("html-note.png"));
    window->editorPane()->setHtmlSplitMode(true);
    shot(QStringLiteral("html-split-mode.png"));
    HtmlNoteView* view = window->editorPane()->htmlView();
    ASSERT_TRUE(view);
    ASSERT_TRUE(view->sourceEditor()->isVisible());
    EXPECT_GT(view->blockedElements(), 0) << "the script is not shown";
    QPlainTextEdit* source = view->sourceEditor();
    QTextCursor cursor = source->textCursor();
    cursor.setPosition(static_cast<int>(source->toPlainText().indexOf(QStringLiteral("Hello")) + 5));
    source->setTextCursor(cursor);
    const int loads = view->pageView()->loadedPages();
    QTest::keyClicks(source, QStringLiteral(" world"));
    ASSERT_TRUE(test::waitUntil([&] { return readFile(url(QStringLiteral("Page.html"))).contains(QStringLiteral("Hello world")); }));
    const QString saved = readFile(url(QStringLiteral("Page.html")));
    EXPECT_TRUE(saved.contains(QStringLiteral("<script>var x = 1;</script>"))) << saved.toStdString();
    ASSERT_TRUE(waitForPage(*view->pageView(), loads)) << "the page follows the source";
    EXPECT_TRUE(pageDom(*view->pageView()).contains(QStringLiteral("Hello world")));
}

TEST_F(HtmlNoteViewTest, NonBreakingSpacesSurviveTheSourceEditor) {
    folder.write(QStringLiteral("page.html"), "<p>It is 10\xC2\xA0km away</p>");
    open();
    window->editorPane()->setHtmlSplitMode(true);
    store->select(url("page.html"));
    ASSERT_TRUE(window->editorPane()->htmlView());
    PlainNoteEditor* editor = window->editorPane()->htmlView()->sourceEditor();
    QTextCursor end = editor->textCursor();
    end.movePosition(QTextCursor::End);
    editor->setTextCursor(end);
    QTest::keyClicks(editor, QStringLiteral("!"));
    EXPECT_EQ(store->body(url("page.html")), QStringLiteral("<p>It is 10\u00A0km away</p>!"));
}

// A clean page is edited in place; what is saved is the author's own text with
// only the body's content replaced: doctype, head and body attributes stay.
TEST_F(HtmlNoteViewTest, VisualEditingOfACleanNoteKeepsItsHeadAndBodyAttributes) {
    const QByteArray head = "<!DOCTYPE html>\n<html lang=\"en\"><head><title>Clean</title>"
                            "<style>p{color:#333}</style></head>\n<body class=\"paper\" data-theme=\"sea\">";
    folder.write(QStringLiteral("Clean.html"), head + "<p id=\"p\">Hello</p></body>\n</html>\n");
    folder.write(QStringLiteral("Scripted.html"), "<html><body><p>x</p><script>1</script></body></html>");
    open();
    store->select(url(QStringLiteral("Scripted.html")));
    HtmlNoteView* view = window->editorPane()->htmlView();
    ASSERT_TRUE(view);
    ASSERT_TRUE(waitForPage(*view->pageView(), 0));
    test::spin(100);
    EXPECT_FALSE(view->isVisuallyEditable()) << "a page the policy changed is edited as source only";

    const int loads = view->pageView()->loadedPages();
    store->select(url(QStringLiteral("Clean.html")));
    ASSERT_TRUE(waitForPage(*view->pageView(), loads));
    ASSERT_TRUE(test::waitUntil([&] { return view->isVisuallyEditable(); }));
    // Type into the page as a user would: caret after "Hello", then keys.
    bool placed = false;
    view->pageView()->page()->runJavaScript(
        QStringLiteral("(() => { const t = document.getElementById('p').firstChild; const r = document.createRange();"
                       " r.setStart(t, 5); r.collapse(true); const s = getSelection(); s.removeAllRanges(); s.addRange(r);"
                       " document.body.focus(); return true; })()"),
        QWebEngineScript::ApplicationWorld, [&](const QVariant&) { placed = true; });
    ASSERT_TRUE(test::waitUntil([&] { return placed; }));
    view->pageView()->setFocus();
    QWidget* target = view->pageView()->focusProxy() ? view->pageView()->focusProxy() : view->pageView();
    QTest::keyClicks(target, QStringLiteral(" there"));
    const QString file = url(QStringLiteral("Clean.html"));
    ASSERT_TRUE(test::waitUntil([&] { return readFile(file).contains(QStringLiteral("Hello there")); }, 10000))
        << readFile(file).toStdString();
    // The file also carries who edited it (the codec's meta tags); the note's own text is exact.
    const QString saved = store->body(file);
    EXPECT_TRUE(saved.startsWith(QString::fromUtf8(head))) << saved.toStdString();
    EXPECT_TRUE(readFile(file).contains(QStringLiteral("<meta name=\"notes-last-edited-by\" content=\"human\">")));
    EXPECT_TRUE(saved.endsWith(QStringLiteral("</body>\n</html>\n"))) << saved.toStdString();
}

TEST_F(HtmlNoteViewTest, DroppedNoteFilesAreImportedAndPastedHtmlBecomesANote) {
    QTemporaryDir outside;
    QFile page(outside.filePath(QStringLiteral("Saved page.html")));
    ASSERT_TRUE(page.open(QIODevice::WriteOnly));
    page.write("<html><body><p>saved</p></body></html>");
    page.close();
    QFile other(outside.filePath(QStringLiteral("picture.png")));
    ASSERT_TRUE(other.open(QIODevice::WriteOnly));
    other.close();
    open();
    QMimeData dropped;
    dropped.setUrls({QUrl::fromLocalFile(page.fileName()), QUrl::fromLocalFile(other.fileName())});
    QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &dropped, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(window.get(), &enter);
    EXPECT_TRUE(enter.isAccepted());
    QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &dropped, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(window.get(), &drop);
    ASSERT_TRUE(test::waitUntil([&] { return store->note(url(QStringLiteral("Saved page.html"))) != nullptr; }));
    EXPECT_FALSE(folder.exists(QStringLiteral("picture.png"))) << "only note files are imported";

    QMimeData pasted;
    pasted.setHtml(QStringLiteral("<h1>Clipped</h1><p>from a browser</p>"));
    ASSERT_TRUE(window->pasteAsHtmlNote(pasted));
    ASSERT_TRUE(store->selection());
    EXPECT_TRUE(store->body(*store->selection()).contains(QStringLiteral("<h1>Clipped</h1><p>from a browser</p>")));
    QMimeData plain;
    plain.setText(QStringLiteral("just words"));
    EXPECT_FALSE(window->pasteAsHtmlNote(plain)) << "plain text is not HTML";
}

}  // namespace
}  // namespace mossly
