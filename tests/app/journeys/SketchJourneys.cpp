#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QWebEnginePage>

#include "EditorPane.h"
#include "Journey.h"
#include "MeetingRecorderWindow.h"
#include "SketchNoteView.h"
#include "WebTestSupport.h"

namespace mossly::test {
namespace {

int shapesOnDisk(const TemporaryNotesFolder& folder, const QString& identifier) {
    int shapes = 0;
    const QJsonObject drawing = QJsonDocument::fromJson(folder.read(identifier)).object();
    for (const QJsonValue& record : drawing[QStringLiteral("records")].toArray()) {
        if (record[QStringLiteral("typeName")].toString() == QStringLiteral("shape")) ++shapes;
    }
    return shapes;
}

class SketchJourney : public Journey {};

// New Sketch, then draw with tldraw's own keys: the file is a drawing from the
// first write, the canvas takes the rectangle tool's key and a drag, and the
// rectangle is saved.
TEST_F(SketchJourney, ANewSketchIsDrawnOnWithKeysAndTheMouse) {
    launch();
    press(QKeySequence(QStringLiteral("Shift+Ctrl+N")));
    ASSERT_TRUE(waitUntil([&] { return folder.exists(QStringLiteral("Untitled.tldr")); }));
    EXPECT_TRUE(QJsonDocument::fromJson(folder.read(QStringLiteral("Untitled.tldr"))).isObject())
        << "a new sketch is a drawing on disk, not an empty file";
    SketchNoteView* view = nullptr;
    ASSERT_TRUE(waitUntil([&] {
        view = window().editorPane()->sketchView();
        return view && view->isReady() && evaluate(view->page(), QStringLiteral("window.mosslyLoads || 0")).toInt() > 0;
    }, 30000));
    EXPECT_FALSE(evaluate(view->page(), QStringLiteral("mosslyEditor.getInstanceState().isReadonly")).toBool())
        << "the canvas opens editable";

    QWidget* canvas = view->focusProxy() ? view->focusProxy() : view;
    const QPoint start = canvas->rect().center() - QPoint(120, 60);
    const QPoint end = canvas->rect().center() + QPoint(80, 60);
    QTest::mouseClick(canvas, Qt::LeftButton, {}, canvas->rect().center() + QPoint(0, 150));
    spin(200);
    QTest::keyClick(canvas, Qt::Key_R);
    ASSERT_TRUE(waitUntil([&] {
        return evaluate(view->page(), QStringLiteral("mosslyEditor.getCurrentToolId()")).toString() == QStringLiteral("geo");
    })) << "the R key reaches tldraw";
    QTest::mousePress(canvas, Qt::LeftButton, {}, start);
    for (int step = 1; step <= 10; ++step) QTest::mouseMove(canvas, start + (end - start) * step / 10, 10);
    QTest::mouseRelease(canvas, Qt::LeftButton, {}, end);
    ASSERT_TRUE(waitUntil([&] { return shapesOnDisk(folder, QStringLiteral("Untitled.tldr")) == 1; }, 10000));
    spin(500);
    screenshot(QStringLiteral("sketch-drawn"), &window());
}

// The recorder shows no clock and no transcription health before a meeting starts.
TEST_F(SketchJourney, TheRecorderSaysNothingAboutAMeetingNotStarted) {
    launch();
    press(QKeySequence(QStringLiteral("Shift+Ctrl+R")));
    MeetingRecorderWindow* recorder = nullptr;
    ASSERT_TRUE(waitUntil([&] {
        for (QWidget* top : QApplication::topLevelWidgets()) {
            if (auto* found = qobject_cast<MeetingRecorderWindow*>(top); found && found->isVisible()) recorder = found;
        }
        return recorder != nullptr;
    }));
    for (QLabel* label : recorder->findChildren<QLabel*>()) {
        if (!label->isVisible()) continue;
        EXPECT_FALSE(label->text().contains(QStringLiteral("Transcription healthy"))) << label->text().toStdString();
        EXPECT_FALSE(label->text().startsWith(QStringLiteral("0:00"))) << label->text().toStdString();
    }
    screenshot(QStringLiteral("recorder-idle"), recorder);
    recorder->close();
}

}  // namespace
}  // namespace mossly::test
