#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>
#include <QWebEnginePage>

#include "AppTestSupport.h"
#include "LibraryWindowTest.h"
#include "EditorPane.h"
#include "MainWindow.h"
#include "NoteDocument.h"
#include "NoteRequestInterceptor.h"
#include "NoteStore.h"
#include "SketchDocumentCodec.h"
#include "SketchNoteView.h"
#include "SketchThumbnails.h"
#include "TestSupport.h"
#include "WebTestSupport.h"

namespace mossly {
namespace {

using test::evaluate;

const char* const harbourShape =
    "mosslyEditor.createShape({type: 'text', x: 80, y: 260, props: {richText: {type: 'doc', content: "
    "[{type: 'paragraph', content: [{type: 'text', text: 'Harbour tides'}]}]}}});"
    "mosslyEditor.createShape({type: 'geo', x: 80, y: 80, props: {w: 220, h: 120, geo: 'ellipse'}}); true";

class SketchNoteViewTest : public test::LibraryWindowTest {
protected:
    // Selects a sketch and waits until its drawing is on the canvas.
    SketchNoteView* showSketch(const QString& identifier, int loadsBefore = 0) {
        store->select(url(identifier));
        SketchNoteView* view = window->editorPane()->sketchView();
        if (!view) return nullptr;
        const bool shown = test::waitUntil(
            [&] {
                return view->isReady() &&
                       evaluate(view->page(), QStringLiteral("window.mosslyLoads || 0")).toInt() > loadsBefore;
            },
            30000);
        return shown ? view : nullptr;
    }
};

TEST_F(SketchNoteViewTest, ADrawingIsSavedOnceAfterTheDebounceAndItsTextIsSearchable) {
    folder.write(QStringLiteral("Harbour.tldr"), SketchDocumentCodec::emptyDocument().toUtf8());
    open();
    SketchNoteView* view = showSketch(QStringLiteral("Harbour.tldr"));
    ASSERT_TRUE(view) << "the canvas comes up with the note's drawing";
    QSignalSpy changes(store.get(), &NoteStore::noteContentChanged);
    ASSERT_TRUE(evaluate(view->page(), QString::fromLatin1(harbourShape)).toBool());
    const QString file = url("Harbour.tldr");
    ASSERT_TRUE(test::waitUntil([&] { return QString::fromUtf8(folder.read("Harbour.tldr")).contains("Harbour tides"); }, 10000));
    test::spin(600);
    EXPECT_EQ(changes.count(), 1) << "two shapes drawn at once are one save";
    const QString saved = QString::fromUtf8(folder.read("Harbour.tldr"));
    const NoteDocument document(saved, NoteContentType::sketch);
    EXPECT_TRUE(document.visibleText().contains(QStringLiteral("Harbour tides"))) << "the catalog finds the words";
    EXPECT_EQ(document.lastEditedBy, NoteEditor::human()) << "who drew it is kept in the drawing's document record";
    // The list shows a picture of this very revision.
    ASSERT_TRUE(test::waitUntil([&] {
        return QFileInfo::exists(SketchThumbnails::pathFor(file, store->note(file)->revision));
    }, 10000));
    EXPECT_FALSE(QImage(SketchThumbnails::pathFor(file, store->note(file)->revision)).isNull());
    if (const QByteArray dir = qgetenv("MOSSLY_SCREENSHOT_DIR"); !dir.isEmpty()) {
        test::spin(500);
        window->grab().save(QString::fromLocal8Bit(dir) + QStringLiteral("/sketch-note.png"));
    }
    // Nothing but the bundle's own files, data: and blob: was asked for.
    for (const QUrl& requested : view->interceptor().requested()) {
        if (requested.scheme() == QLatin1String("data") || requested.scheme() == QLatin1String("blob")) continue;
        ASSERT_TRUE(requested.isLocalFile()) << requested.toString().toStdString();
        EXPECT_TRUE(NoteRequestInterceptor::isInside(requested.toLocalFile(), SketchNoteView::bundleFolder()))
            << requested.toString().toStdString();
    }
}

// Quitting right after a stroke: the page still holds it (it waits a quarter of a
// second); the flush before quitting hands it over and the store writes it.
TEST_F(SketchNoteViewTest, AStrokeMadeJustBeforeQuittingIsSaved) {
    folder.write(QStringLiteral("Quick.tldr"), SketchDocumentCodec::emptyDocument().toUtf8());
    open();
    SketchNoteView* view = showSketch(QStringLiteral("Quick.tldr"));
    ASSERT_TRUE(view);
    ASSERT_TRUE(evaluate(view->page(), QString::fromLatin1(harbourShape)).toBool());
    window->editorPane()->flushWebEdits();  // what quitting does first
    ASSERT_TRUE(store->flushPendingSaves().has_value());
    EXPECT_TRUE(QString::fromUtf8(folder.read("Quick.tldr")).contains("Harbour tides"));
}

TEST_F(SketchNoteViewTest, AChangeMadeElsewhereIsShownOnTheCanvas) {
    folder.write(QStringLiteral("Plan.tldr"), SketchDocumentCodec::emptyDocument().toUtf8());
    open();
    SketchNoteView* view = showSketch(QStringLiteral("Plan.tldr"));
    ASSERT_TRUE(view);
    ASSERT_TRUE(evaluate(view->page(), QString::fromLatin1(harbourShape)).toBool());
    ASSERT_TRUE(test::waitUntil([&] { return QString::fromUtf8(folder.read("Plan.tldr")).contains("Harbour tides"); }, 10000));
    ASSERT_TRUE(test::waitUntil([&] { return !store->hasPendingSaves(); }, 5000));
    // Another program (an agent, a sync engine) puts back the empty drawing.
    const int loads = evaluate(view->page(), QStringLiteral("window.mosslyLoads")).toInt();
    folder.write(QStringLiteral("Plan.tldr"), SketchDocumentCodec::emptyDocument().toUtf8());
    ASSERT_TRUE(test::waitUntil(
        [&] { return evaluate(view->page(), QStringLiteral("window.mosslyLoads")).toInt() > loads; }, 15000));
    EXPECT_EQ(evaluate(view->page(), QStringLiteral("mosslyEditor.getCurrentPageShapes().length")).toInt(), 0);
}

// Strokes not yet saved when the file changes elsewhere are never drawn over:
// the note is in conflict, the canvas keeps the strokes, and Reload shows the
// other version.
TEST_F(SketchNoteViewTest, UnsavedStrokesAndAChangeElsewhereBecomeAConflict) {
    folder.write(QStringLiteral("Board.tldr"), SketchDocumentCodec::emptyDocument().toUtf8());
    open();
    SketchNoteView* view = showSketch(QStringLiteral("Board.tldr"));
    ASSERT_TRUE(view);
    // Another writer holds the library lock, so the strokes cannot be saved yet.
    QProcess holder;
    holder.start(QStringLiteral("flock"), {QStringLiteral("--no-fork"), QStringLiteral("-x"),
                                           folder.filePath(".notes-agent.lock"), QStringLiteral("sleep"), QStringLiteral("30")});
    ASSERT_TRUE(holder.waitForStarted());
    test::spin(200);
    ASSERT_TRUE(evaluate(view->page(), QString::fromLatin1(harbourShape)).toBool());
    ASSERT_TRUE(test::waitUntil([&] { return store->hasPendingSaves(); }, 10000));
    // A sync engine replaces the file meanwhile; then the lock is free again.
    QString elsewhere = SketchDocumentCodec::emptyDocument();
    elsewhere.replace(QStringLiteral("\"Page 1\""), QStringLiteral("\"Drawn elsewhere\""));
    folder.write(QStringLiteral("Board.tldr"), elsewhere.toUtf8());
    holder.kill();
    holder.waitForFinished();
    ASSERT_TRUE(test::waitUntil([&] { return store->conflict(url("Board.tldr")) != nullptr; }, 15000));
    test::spin(500);
    EXPECT_EQ(QString::fromUtf8(folder.read("Board.tldr")), elsewhere) << "the other version is not overwritten";
    EXPECT_EQ(evaluate(view->page(), QStringLiteral("mosslyEditor.getCurrentPageShapes().length")).toInt(), 2)
        << "the strokes stay on the canvas";
    const int loads = evaluate(view->page(), QStringLiteral("window.mosslyLoads")).toInt();
    store->reloadConflict(url("Board.tldr"));
    ASSERT_TRUE(test::waitUntil(
        [&] { return evaluate(view->page(), QStringLiteral("window.mosslyLoads")).toInt() > loads; }, 10000));
    EXPECT_EQ(evaluate(view->page(), QStringLiteral("mosslyEditor.getCurrentPage().name")).toString(),
              QStringLiteral("Drawn elsewhere"));
}

// An image put on the canvas is a file beside the sketch, referenced by a
// relative path: the drawing stays small and the image survives a reload.
TEST_F(SketchNoteViewTest, AnImageOnTheCanvasIsAFileBesideTheSketch) {
    folder.write(QStringLiteral("Board.tldr"), SketchDocumentCodec::emptyDocument().toUtf8());
    open();
    SketchNoteView* view = showSketch(QStringLiteral("Board.tldr"));
    ASSERT_TRUE(view);
    evaluate(view->page(), QStringLiteral(
        "(async () => { const c = new OffscreenCanvas(16, 16); const g = c.getContext('2d'); g.fillStyle = '#2e6b4f';"
        " g.fillRect(0, 0, 16, 16); const blob = await c.convertToBlob({type: 'image/png'});"
        " await mosslyEditor.putExternalContent({type: 'files', files: [new File([blob], 'dot.png', {type: 'image/png'})],"
        " point: {x: 200, y: 200}}); })(); true"));
    ASSERT_TRUE(test::waitUntil([&] { return folder.exists(QStringLiteral("Board.assets/dot.png")); }, 15000));
    ASSERT_TRUE(test::waitUntil([&] { return QString::fromUtf8(folder.read("Board.tldr")).contains("Board.assets/dot.png"); }, 10000));
    const QString saved = QString::fromUtf8(folder.read("Board.tldr"));
    EXPECT_FALSE(saved.contains(QStringLiteral("data:image"))) << "the image is not inlined";
    EXPECT_TRUE(QImage::fromData(folder.read("Board.assets/dot.png")).size() == QSize(16, 16));
    // Shown again from the file: read from the assets folder, nothing refused.
    const int loads = evaluate(view->page(), QStringLiteral("window.mosslyLoads")).toInt();
    folder.write(QStringLiteral("Board.tldr"), saved.toUtf8() + "\n");
    ASSERT_TRUE(test::waitUntil(
        [&] { return evaluate(view->page(), QStringLiteral("window.mosslyLoads")).toInt() > loads; }, 15000));
    test::spin(500);
    EXPECT_TRUE(view->interceptor().refused().isEmpty())
        << view->interceptor().refused().first().toString().toStdString();
}

TEST_F(SketchNoteViewTest, ADrawingFromANewerTldrawIsShownReadOnlyAndNeverRewritten) {
    QString newer = SketchDocumentCodec::emptyDocument();
    newer.replace(QStringLiteral("\"sequences\":{}"), QStringLiteral("\"sequences\":{\"com.tldraw.document\":999}"));
    folder.write(QStringLiteral("Future.tldr"), newer.toUtf8());
    open();
    store->select(url("Future.tldr"));
    SketchNoteView* view = window->editorPane()->sketchView();
    ASSERT_TRUE(view);
    ASSERT_TRUE(test::waitUntil([&] { return !view->refusal().isEmpty(); }, 30000));
    EXPECT_TRUE(view->refusal().contains(QStringLiteral("newer version of tldraw"))) << view->refusal().toStdString();
    EXPECT_TRUE(evaluate(view->page(), QStringLiteral("mosslyEditor.getInstanceState().isReadonly")).toBool());
    evaluate(view->page(), QString::fromLatin1(harbourShape));
    test::spin(800);
    EXPECT_EQ(QString::fromUtf8(folder.read("Future.tldr")), newer) << "the file is left exactly as it was";
}

// Drawings saved by older tldraw versions (2.0's first file schema; 3.0's, before
// rich text) open with their shapes migrated, are not rewritten by being looked
// at, and are saved in today's schema, words intact, once the user draws.
TEST_F(SketchNoteViewTest, DrawingsFromOlderTldrawVersionsOpenAndAreSavedMigrated) {
    const QStringList fixtures{QStringLiteral("sketch-tldraw-2.0.tldr"), QStringLiteral("sketch-tldraw-3.0.tldr")};
    QHash<QString, QByteArray> originals;
    for (const QString& fixture : fixtures) {
        QFile source(QStringLiteral(MOSSLY_TEST_FIXTURES) + u'/' + fixture);
        ASSERT_TRUE(source.open(QIODevice::ReadOnly));
        originals.insert(fixture, source.readAll());
        folder.write(fixture, originals.value(fixture));
    }
    open();
    int loads = 0;
    for (const QString& fixture : fixtures) {
        SCOPED_TRACE(fixture.toStdString());
        const QByteArray original = originals.value(fixture);
        SketchNoteView* view = showSketch(fixture, loads);
        ASSERT_TRUE(view);
        loads = evaluate(view->page(), QStringLiteral("window.mosslyLoads || 0")).toInt();
        EXPECT_TRUE(view->refusal().isEmpty()) << view->refusal().toStdString();
        const QString shapes = evaluate(view->page(), QStringLiteral("JSON.stringify(mosslyEditor.getCurrentPageShapes()"
                                                                     ".map(s => s.props.richText))")).toString();
        EXPECT_TRUE(shapes.contains(QStringLiteral("Harbour tides"))) << shapes.toStdString();
        test::spin(600);
        EXPECT_EQ(folder.read(fixture), original) << "opening alone writes nothing";

        ASSERT_TRUE(evaluate(view->page(), QStringLiteral("mosslyEditor.createShape({type: 'geo', x: 400, y: 80, props: "
                                                          "{w: 100, h: 100}}); true")).toBool());
        ASSERT_TRUE(test::waitUntil([&] { return folder.read(fixture) != original; }, 10000));
        const QString saved = QString::fromUtf8(folder.read(fixture));
        const QJsonObject sequences =
            QJsonDocument::fromJson(saved.toUtf8()).object().value("schema").toObject().value("sequences").toObject();
        EXPECT_EQ(sequences.value("com.tldraw.shape.text").toInt(), 3) << "saved in today's schema: " << saved.left(400).toStdString();
        const NoteDocument document(saved, NoteContentType::sketch);
        EXPECT_TRUE(document.visibleText().contains(QStringLiteral("Harbour tides")));
        if (fixture.contains(QStringLiteral("3.0"))) {
            EXPECT_TRUE(document.visibleText().contains(QStringLiteral("Two more berths")));
        }
    }
}

// A sketch made elsewhere (an agent, another machine) and never opened here
// still shows its picture in the list; the note the user reads stays selected.
TEST_F(SketchNoteViewTest, TheListShowsPicturesOfSketchesNeverOpened) {
    QFile source(QStringLiteral(MOSSLY_TEST_FIXTURES) + QStringLiteral("/sketch-tldraw-3.0.tldr"));
    ASSERT_TRUE(source.open(QIODevice::ReadOnly));
    const QByteArray drawing = source.readAll();
    folder.write(QStringLiteral("Berths.tldr"), drawing);
    folder.write(QStringLiteral("Reading.md"), "# Reading\nA text note, newest, open.");
    open();
    store->select(url("Reading.md"));
    const QString sketch = url("Berths.tldr");
    const QString picture = SketchThumbnails::pathFor(sketch, store->note(sketch)->revision);
    ASSERT_TRUE(test::waitUntil([&] { return QFileInfo::exists(picture); }, 30000));
    EXPECT_FALSE(QImage(picture).isNull());
    EXPECT_EQ(store->selection(), url("Reading.md"));
    EXPECT_EQ(folder.read("Berths.tldr"), drawing) << "drawing the picture never writes the sketch";
    if (const QByteArray dir = qgetenv("MOSSLY_SCREENSHOT_DIR"); !dir.isEmpty()) {
        test::spin(500);
        window->grab().save(QString::fromLocal8Bit(dir) + QStringLiteral("/sketch-thumbnails.png"));
    }
}

}  // namespace
}  // namespace mossly
