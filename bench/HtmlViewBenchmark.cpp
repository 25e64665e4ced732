// Time from selecting an HTML note to its page shown, in the real app window
// (offscreen), for generated saved web pages of 100 KB and 1 MB: first show,
// and showing the same note again after another note (the cache makes the
// preparation free; the page still loads).
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <vector>

#include "EditorPane.h"
#include "HeadlessWebEngine.h"
#include "HtmlNoteView.h"
#include "HtmlPageView.h"
#include "MainWindow.h"
#include "NoteStore.h"

using namespace mossly;

namespace {

QByteArray savedPage(qsizetype bytes) {
    QByteArray page = "<!doctype html><html><head><title>Saved</title><style>p{margin:4px}</style></head><body>\n";
    for (int i = 0; page.size() < bytes; ++i) {
        page += "<h2>Section " + QByteArray::number(i) + "</h2><p class=\"c\">Tides <b>rise</b> and <i>fall</i> "
                "twice a day; <a href=\"https://example.org/" + QByteArray::number(i) + "\">charts</a> help.</p>"
                "<ul><li>one</li><li>two</li></ul><img src=\"https://example.org/x.png\">\n";
    }
    return page + "</body></html>\n";
}

double showMs(NoteStore& store, HtmlNoteView*& view, MainWindow& window, const QString& url) {
    const int before = view ? view->pageView()->loadedPages() : 0;
    QElapsedTimer timer;
    timer.start();
    store.select(url);
    view = window.editorPane()->htmlView();
    while (view->pageView()->loadedPages() <= before && timer.elapsed() < 30000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    }
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    prepareHeadlessWebEngine();
    QApplication app(argc, argv);
    QTemporaryDir folder;
    for (const auto& [name, size] : {std::pair{"small.html", 2'000}, {"100k.html", 100'000}, {"1m.html", 1'000'000}}) {
        QFile file(folder.filePath(QString::fromLatin1(name)));
        if (!file.open(QIODevice::WriteOnly) || file.write(savedPage(size)) < 0) return 1;
    }
    NoteStore store(folder.path(), NoteStore::Options{.createsWelcomeNote = false, .loadsNotesSynchronously = true,
                                                      .welcomeIconPng = {}});
    MainWindow window(store);
    window.show();
    HtmlNoteView* view = nullptr;
    const auto url = [&](const char* name) { return QDir::cleanPath(folder.filePath(QString::fromLatin1(name))); };
    showMs(store, view, window, url("small.html"));  // the browser process starts here, once
    std::printf("| page | first shown (ms) | shown again (ms, median of 5) |\n|---|---|---|\n");
    for (const char* name : {"100k.html", "1m.html"}) {
        const double first = showMs(store, view, window, url(name));
        std::vector<double> again;
        for (int i = 0; i < 5; ++i) {
            showMs(store, view, window, url("small.html"));
            again.push_back(showMs(store, view, window, url(name)));
        }
        std::printf("| %s | %.0f | %.0f |\n", name, first, median(again));
    }
    return 0;
}
