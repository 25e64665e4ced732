// Time from selecting a sketch note to its drawing on an interactive canvas,
// for an empty sketch and one with 2,000 shapes, and the memory of the web
// view's processes (offscreen, real Chromium).
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QWebEnginePage>
#include <cstdio>

#include "EditorPane.h"
#include "HeadlessWebEngine.h"
#include "MainWindow.h"
#include "NoteStore.h"
#include "SketchDocumentCodec.h"
#include "SketchNoteView.h"

using namespace mossly;

namespace {

QVariant evaluate(QWebEnginePage* page, const QString& script) {
    QVariant result;
    bool done = false;
    page->runJavaScript(script, [&](const QVariant& value) {
        result = value;
        done = true;
    });
    while (!done) QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    return result;
}

int loads(SketchNoteView* view) { return evaluate(view->page(), QStringLiteral("window.mosslyLoads || 0")).toInt(); }

double showMs(NoteStore& store, MainWindow& window, const QString& url) {
    SketchNoteView* view = window.editorPane()->sketchView();
    const int before = view && view->isReady() ? loads(view) : 0;
    QElapsedTimer timer;
    timer.start();
    store.select(url);
    view = window.editorPane()->sketchView();
    while (!(view->isReady() && loads(view) > before) && timer.elapsed() < 60000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

// Resident memory of this process's web engine helpers, in MiB.
double webEngineMiB() {
    double kib = 0;
    for (const QString& pid : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(pid));
        if (!cmdline.open(QIODevice::ReadOnly) || !cmdline.readAll().contains("QtWebEngineProcess")) continue;
        QFile status(QStringLiteral("/proc/%1/status").arg(pid));
        if (!status.open(QIODevice::ReadOnly)) continue;
        const auto match = QRegularExpression(QStringLiteral("VmRSS:\\s+(\\d+)")).match(QString::fromLatin1(status.readAll()));
        if (match.hasMatch()) kib += match.captured(1).toDouble();
    }
    return kib / 1024;
}

}  // namespace

int main(int argc, char** argv) {
    prepareHeadlessWebEngine();
    QApplication app(argc, argv);
    QTemporaryDir folder;
    for (const char* name : {"Empty.tldr", "Busy.tldr"}) {
        QFile file(folder.filePath(QString::fromLatin1(name)));
        if (!file.open(QIODevice::WriteOnly) || file.write(SketchDocumentCodec::emptyDocument().toUtf8()) < 0) return 1;
    }
    NoteStore store(folder.path(), NoteStore::Options{.createsWelcomeNote = false, .loadsNotesSynchronously = true,
                                                      .welcomeIconPng = {}});
    MainWindow window(store);
    window.resize(1100, 720);
    window.show();
    const auto url = [&](const char* name) { return QDir::cleanPath(folder.filePath(QString::fromLatin1(name))); };

    const double firstEmpty = showMs(store, window, url("Empty.tldr"));  // starts the browser and the bundle
    const double memoryEmpty = webEngineMiB();
    showMs(store, window, url("Busy.tldr"));
    SketchNoteView* view = window.editorPane()->sketchView();
    evaluate(view->page(), QStringLiteral(
        "for (let i = 0; i < 2000; i++) mosslyEditor.createShape({type: 'geo', x: (i % 50) * 60, "
        "y: Math.floor(i / 50) * 60, props: {w: 50, h: 50}}); true"));
    QElapsedTimer settle;
    settle.start();
    while (settle.elapsed() < 1500 || store.hasPendingSaves()) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    const qint64 busyBytes = QFileInfo(url("Busy.tldr")).size();
    const double memoryBusy = webEngineMiB();
    double emptyAgain = 0;
    double busyAgain = 0;
    for (int i = 0; i < 3; ++i) {
        emptyAgain += showMs(store, window, url("Empty.tldr")) / 3;
        busyAgain += showMs(store, window, url("Busy.tldr")) / 3;
    }
    std::printf("| sketch | shown on the canvas | web view memory |\n|---|---|---|\n");
    std::printf("| empty, first in the session | %.0f ms | %.0f MiB |\n", firstEmpty, memoryEmpty);
    std::printf("| empty, again (mean of 3) | %.0f ms | |\n", emptyAgain);
    std::printf("| 2,000 shapes (%lld KB), again (mean of 3) | %.0f ms | %.0f MiB |\n",
                static_cast<long long>(busyBytes / 1024), busyAgain, memoryBusy);
    return 0;
}
