#include "SketchNoteView.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QPalette>
#include <QUrl>
#include <QWebChannel>
#include <QWebEnginePage>
#include <QWebEngineProfile>
#include <QWebEngineScript>
#include <QWebEngineScriptCollection>
#include <QWebEngineSettings>
#include <utility>

#include "Diagnostics.h"
#include "NoteAssets.h"
#include "NoteRequestInterceptor.h"
#include "NoteStore.h"
#include "SketchBridge.h"
#include "SketchThumbnails.h"

namespace mossly {

namespace {

// The page may navigate to nothing; links in a drawing open nowhere.
class SketchPage : public QWebEnginePage {
public:
    using QWebEnginePage::QWebEnginePage;
    QUrl allowed;

protected:
    bool acceptNavigationRequest(const QUrl& url, NavigationType, bool isMainFrame) override {
        return isMainFrame && url.adjusted(QUrl::RemoveQuery) == allowed;
    }
    QWebEnginePage* createWindow(WebWindowType) override { return nullptr; }
};

QString webChannelScript() {
    QFile file(QStringLiteral(":/qtwebchannel/qwebchannel.js"));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

}  // namespace

QString SketchNoteView::bundleFolder() {
    const QString installed =
        QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("../share/mossly/sketch"));
    if (QFileInfo::exists(installed + QStringLiteral("/index.html"))) return QDir::cleanPath(installed);
    return QStringLiteral(MOSSLY_SKETCH_BUNDLE_DIR);
}

SketchNoteView::SketchNoteView(NoteStore& store, QWidget* parent) : QWebEngineView(parent), store_(store) {
    setObjectName(QStringLiteral("sketchNoteView"));
    profile_ = new QWebEngineProfile(this);  // off the record
    profile_->setHttpCacheType(QWebEngineProfile::MemoryHttpCache);
    profile_->setPersistentCookiesPolicy(QWebEngineProfile::NoPersistentCookies);
    interceptor_ = new NoteRequestInterceptor(this);
    interceptor_->setFolders({}, bundleFolder());
    profile_->setUrlRequestInterceptor(interceptor_);
    auto* page = new SketchPage(profile_, this);
    QWebEngineSettings* settings = page->settings();
    settings->setAttribute(QWebEngineSettings::LocalContentCanAccessRemoteUrls, false);
    settings->setAttribute(QWebEngineSettings::LocalStorageEnabled, false);
    settings->setAttribute(QWebEngineSettings::PluginsEnabled, false);
    settings->setAttribute(QWebEngineSettings::JavascriptCanOpenWindows, false);
    settings->setAttribute(QWebEngineSettings::DnsPrefetchEnabled, false);
    settings->setAttribute(QWebEngineSettings::NavigateOnDropEnabled, false);
    settings->setUnknownUrlSchemePolicy(QWebEngineSettings::DisallowUnknownUrlSchemes);

    QWebEngineScript channel;
    channel.setName(QStringLiteral("qwebchannel"));
    channel.setSourceCode(webChannelScript());
    channel.setInjectionPoint(QWebEngineScript::DocumentCreation);
    channel.setWorldId(QWebEngineScript::MainWorld);
    page->scripts().insert(channel);
    bridge_ = new SketchBridge(this);
    auto* webChannel = new QWebChannel(page);
    webChannel->registerObject(QStringLiteral("bridge"), bridge_);
    page->setWebChannel(webChannel);
    setPage(page);
    setContextMenuPolicy(Qt::NoContextMenu);

    connect(bridge_, &SketchBridge::ready, this, [this] {
        ready_ = true;
        emit pageReady();
        sendDocument();
    });
    connect(bridge_, &SketchBridge::edited, this, &SketchNoteView::takeEdit);
    bridge_->storeImage = [this](const QString& note, const QString& fileName, const QByteArray& bytes) -> QString {
        if (!store_.note(note) || bytes.isEmpty()) return {};
        auto destination = NoteAssets::add(note, fileName, bytes);
        if (!destination) {
            emit store_.problemOccurred(tr("The image could not be saved beside the sketch: %1")
                                            .arg(destination.error().description()));
            return {};
        }
        return *destination;
    };
    connect(bridge_, &SketchBridge::refused, this, [this](const QString& note, const QString& message) {
        if (note != url_) return;
        refusal_ = message;
        DiagnosticsCenter::shared().event(QStringLiteral("Sketch shown read-only"), {{"reason", message}});
    });
    // A picture belongs to the revision it shows: it is filed once the drawing it
    // was made from is what the note holds on disk.
    connect(bridge_, &SketchBridge::thumbnail, this, [this](const QString& note, const QByteArray& png) {
        pendingThumbnails_.insert(note, png);
        fileThumbnail(note);
    });
    connect(&store_, &NoteStore::saveCommitted, this, &SketchNoteView::fileThumbnail);
    connect(&store_, &NoteStore::noteContentChanged, this, [this](const QString& url) {
        if (url == url_ && store_.body(url) != shownText_) sendDocument();
    });
    const QUrl index = QUrl::fromLocalFile(QDir(bundleFolder()).filePath(QStringLiteral("index.html")));
    page->allowed = index;
    page->load(index);
}

SketchNoteView::~SketchNoteView() {
    // The drawing's last strokes, if the page still holds any, cannot be waited
    // for here; the page saves within a quarter of a second of each change.
    QWebEnginePage* current = page();
    setPage(nullptr);
    delete current;
}

void SketchNoteView::fileThumbnail(const QString& note) {
    const auto png = pendingThumbnails_.constFind(note);
    const Note* stored = store_.note(note);
    if (png == pendingThumbnails_.cend() || !stored || store_.hasPendingSave(note)) return;
    if (SketchThumbnails::store(note, stored->revision, *png)) emit thumbnailFiled(note);
    pendingThumbnails_.erase(png);
}

void SketchNoteView::flushPendingStrokes(int timeoutMs) {
    if (!ready_ || url_.isEmpty()) return;
    bool flushed = false;
    const auto connection = connect(bridge_, &SketchBridge::flushed, this, [&flushed] { flushed = true; });
    emit bridge_->flushRequested();
    // Quitting waits for the page's answer; the edit it carries arrives before it.
    QElapsedTimer timer;
    timer.start();
    while (!flushed && timer.elapsed() < timeoutMs) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    disconnect(connection);
}

bool SketchNoteView::isDark() const { return palette().color(QPalette::Base).lightness() < 128; }

void SketchNoteView::showNote(const QString& url) {
    if (ready_ && !url_.isEmpty() && url != url_) emit bridge_->flushRequested();
    if (url == url_ && url.isEmpty()) return;
    url_ = url;
    refusal_.clear();
    sendDocument();
}

void SketchNoteView::sendDocument() {
    if (!ready_ || url_.isEmpty()) return;
    shownText_ = store_.body(url_);
    const QString folder = QUrl::fromLocalFile(QFileInfo(url_).absolutePath()).toString(QUrl::FullyEncoded);
    interceptor_->setFolders({}, bundleFolder(), NoteAssets::folderFor(url_));
    emit bridge_->documentLoaded(url_, shownText_, isDark(), folder);
    emit documentShown();
}

// The page's drawing, as the new text of the note it was drawn in (which may
// be the one shown before, saved as another replaced it).
void SketchNoteView::takeEdit(const QString& note, const QString& json) {
    if (note.isEmpty() || !store_.note(note)) return;
    if (note == url_) {
        if (!refusal_.isEmpty() || json == shownText_) return;
        store_.applyEditorChange(note, std::exchange(shownText_, json), json);
        return;
    }
    store_.setBody(note, json);  // the last strokes of the sketch shown before
}

}  // namespace mossly
