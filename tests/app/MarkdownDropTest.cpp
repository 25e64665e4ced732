#include <gtest/gtest.h>

#include <QApplication>
#include <QBuffer>
#include <QClipboard>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QTextBlock>
#include <QTextLayout>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QMimeData>
#include <QSignalSpy>
#include <QTest>

#include "AppTestSupport.h"
#include "EditorPane.h"
#include "MainWindow.h"
#include "MarkdownTextView.h"
#include "NoteListModel.h"
#include "NoteStore.h"
#include "TestSupport.h"

namespace mossly {
namespace {

using markdown::DrawnKind;

QByteArray pngBytes(QColor colour, int side = 8) {
    QImage image(side, side, QImage::Format_ARGB32);
    image.fill(colour);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

class MarkdownDropTest : public ::testing::Test {
protected:
    test::TemporaryNotesFolder folder;
    std::unique_ptr<NoteStore> store;
    std::unique_ptr<MainWindow> window;
    MarkdownTextView* view = nullptr;

    void open(const QString& identifier) {
        store = std::make_unique<NoteStore>(
            folder.path(), NoteStore::Options{.createsWelcomeNote = false, .loadsNotesSynchronously = true,
                                              .welcomeIconPng = {}});
        window = std::make_unique<MainWindow>(*store);
        window->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window.get()));
        store->select(url(identifier));
        view = window->editorPane()->markdownEditor();
    }
    QString url(const QString& identifier) const { return QDir::cleanPath(folder.filePath(identifier)); }
    void caretAt(int position) {
        QTextCursor cursor = view->textCursor();
        cursor.setPosition(position);
        view->setTextCursor(cursor);
    }
    // Pastes a copy of `data` at the caret, as Ctrl+V does.
    void insert(const QMimeData& data) {
        auto* copy = new QMimeData;
        for (const QString& format : data.formats()) copy->setData(format, data.data(format));
        if (data.hasImage()) copy->setImageData(data.imageData());
        QGuiApplication::clipboard()->setMimeData(copy);
        view->paste();
    }
    // Drops `data` at the character `position`, as a drag from another window does.
    void dropAt(QMimeData& data, int position) {
        QTextCursor cursor(view->document());
        cursor.setPosition(position);
        const QPointF point = view->cursorRect(cursor).center();
        QDragEnterEvent enter(point.toPoint(), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(view->viewport(), &enter);
        QDragMoveEvent move(point.toPoint(), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(view->viewport(), &move);
        ASSERT_TRUE(move.isAccepted());
        QDropEvent drop(point, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(view->viewport(), &drop);
    }
};

TEST_F(MarkdownDropTest, AnImageFileIsCopiedBesideTheNoteAndLinkedOnItsOwnLineAsOneUndoStep) {
    folder.write(QStringLiteral("Trip notes.md"), "Trip\nbefore after");
    QTemporaryDir outside;
    const QByteArray photo = pngBytes(Qt::red, 40);
    QFile file(outside.filePath(QStringLiteral("Beach [1].png")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(photo);
    file.close();
    open(QStringLiteral("Trip notes.md"));
    caretAt(12);  // between "before " and "after"
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile(file.fileName())});
    insert(data);
    EXPECT_EQ(view->markdown(), QStringLiteral("Trip\nbefore \n![Beach (1)](Trip%20notes.assets/Beach%20%5B1%5D.png)\nafter"));
    EXPECT_EQ(folder.read(QStringLiteral("Trip notes.assets/Beach [1].png")), photo) << "the bytes as they were";
    ASSERT_TRUE(test::waitUntil([&] { return store->body(url("Trip notes.md")).contains("Beach%20%5B1%5D.png"); }));

    // The same name again: a second file, never over the first.
    insert(data);
    EXPECT_TRUE(folder.exists(QStringLiteral("Trip notes.assets/Beach [1] 2.png")));
    EXPECT_TRUE(view->markdown().contains(QStringLiteral("Beach%20%5B1%5D%202.png")));

    view->undo();
    view->undo();
    EXPECT_EQ(view->markdown(), QStringLiteral("Trip\nbefore after"));
    EXPECT_TRUE(folder.exists(QStringLiteral("Trip notes.assets/Beach [1].png"))) << "undo leaves the file";
    const auto* image = [&]() -> const markdown::DrawnObject* {
        view->redo();
        for (const auto& object : view->stylePass().objects) {
            if (object.kind == DrawnKind::image) return &object;
        }
        return nullptr;
    }();
    ASSERT_TRUE(image) << "the inserted line is drawn as the image";
    EXPECT_TRUE(image->link->localPath.endsWith(QStringLiteral("Trip notes.assets/Beach [1].png")));
}

TEST_F(MarkdownDropTest, PastedImageDataKeepsItsBytesAndWhatIsNotAnImageIsRefusedWithNothingLeftBehind) {
    folder.write(QStringLiteral("Note.md"), "Note\n");
    open(QStringLiteral("Note.md"));
    QSignalSpy refused(view, &MarkdownTextView::insertRefused);
    caretAt(5);
    QMimeData pasted;
    const QByteArray png = pngBytes(Qt::blue);
    pasted.setData(QStringLiteral("image/png"), png);
    pasted.setImageData(QImage::fromData(png));
    insert(pasted);
    EXPECT_EQ(view->markdown(), QStringLiteral("Note\n![Pasted image](Note.assets/Pasted%20image.png)"));
    EXPECT_EQ(folder.read(QStringLiteral("Note.assets/Pasted image.png")), png);

    QTemporaryDir outside;
    QFile fake(outside.filePath(QStringLiteral("notes.pdf")));
    ASSERT_TRUE(fake.open(QIODevice::WriteOnly));
    fake.write("%PDF-1.4 not an image");
    fake.close();
    QMimeData document;
    document.setUrls({QUrl::fromLocalFile(fake.fileName())});
    const QString before = view->markdown();
    insert(document);
    EXPECT_EQ(view->markdown(), before);
    ASSERT_EQ(refused.count(), 1);
    EXPECT_EQ(refused.first().first().toString(), QStringLiteral("\u201Cnotes.pdf\u201D is not an image Mossly can show, so it was not added."));
    EXPECT_EQ(QDir(folder.filePath(QStringLiteral("Note.assets"))).entryList(QDir::Files | QDir::Hidden),
              QStringList{QStringLiteral("Pasted image.png")});
}

TEST_F(MarkdownDropTest, AnAssetThatCannotBeWrittenIsReportedAndNoLineIsInserted) {
    folder.write(QStringLiteral("Note.md"), "Note\n");
    folder.write(QStringLiteral("Note.assets"), "a file where the folder would go");
    open(QStringLiteral("Note.md"));
    QSignalSpy refused(view, &MarkdownTextView::insertRefused);
    QMimeData pasted;
    pasted.setImageData(QImage::fromData(pngBytes(Qt::green)));
    insert(pasted);
    EXPECT_EQ(view->markdown(), QStringLiteral("Note\n"));
    ASSERT_EQ(refused.count(), 1);
    EXPECT_TRUE(refused.first().first().toString().startsWith(QStringLiteral("The image could not be saved beside the note")));
}

TEST_F(MarkdownDropTest, NotesDraggedFromTheListBecomeReferencesAndAGoneNoteIsDrawnMissing) {
    folder.write(QStringLiteral("Projects/Plan.md"), "Plan\n");
    folder.write(QStringLiteral("Ideas [draft].md"), "Ideas [draft]\n");
    folder.write(QStringLiteral("Projects/Home.md"), "Home\n");
    open(QStringLiteral("Projects/Home.md"));
    QMimeData dragged;
    dragged.setData(QString::fromLatin1(NoteListModel::noteUrlsMimeType),
                    (url("Projects/Plan.md") + u'\n' + url("Ideas [draft].md") + u'\n' + url("Projects/Home.md")).toUtf8());
    QSignalSpy refused(view, &MarkdownTextView::insertRefused);
    dropAt(dragged, 5);
    EXPECT_EQ(view->markdown(),
              QStringLiteral("Home\n[Plan](Plan.md)\n[Ideas (draft)](../Ideas%20%5Bdraft%5D.md)"));
    EXPECT_EQ(refused.count(), 1) << "a note cannot reference itself";
    int references = 0;
    for (const auto& object : view->stylePass().objects) references += object.kind == DrawnKind::noteReference;
    EXPECT_EQ(references, 2);

    // Clicking a reference opens the note it names.
    const QString text = view->markdown();
    QTextCursor at(view->document());
    at.setPosition(static_cast<int>(text.indexOf(QStringLiteral("Plan]"))) + 1);
    QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, view->cursorRect(at).center());
    ASSERT_TRUE(test::waitUntil([&] { return store->selection() == url("Projects/Plan.md"); }));

    // A reference to a note that is gone is drawn as missing, not as a working link.
    store->deleteNotes({url("Ideas [draft].md")});
    ASSERT_TRUE(test::waitUntil([&] { return !folder.exists(QStringLiteral("Ideas [draft].md")); }));
    store->select(url("Projects/Home.md"));
    const QTextBlock line = view->document()->findBlockByNumber(2);
    bool struck = false;
    for (const auto& range : line.layout()->formats()) struck = struck || range.format.fontStrikeOut();
    EXPECT_TRUE(struck);
    if (const QByteArray dir = qgetenv("MOSSLY_SCREENSHOT_DIR"); !dir.isEmpty()) {
        QMimeData pasted;
        pasted.setImageData(QImage::fromData(pngBytes(QColor(0x2e, 0x6b, 0x4f), 48)));
        caretAt(static_cast<int>(view->markdown().size()));
        insert(pasted);
        test::spin(100);
        window->grab().save(QString::fromLocal8Bit(dir) + QStringLiteral("/note-references.png"));
    }
}

}  // namespace
}  // namespace mossly
