#pragma once

#include <QObject>
#include <functional>

namespace mossly {

// What the sketch page and the app say to each other over the web channel.
// Page to app: the page is ready, the drawing changed, a file was refused.
// App to page: a drawing to show, the theme, "save what you have now".
class SketchBridge : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

signals:
    void documentLoaded(const QString& note, const QString& json, bool dark, const QString& folderUrl);
    void themeChanged(bool dark);
    void flushRequested();

    // Re-emitted to the app (the page calls the slots).
    void ready();
    void edited(const QString& note, const QString& json);
    void refused(const QString& note, const QString& message);
    void thumbnail(const QString& note, const QByteArray& png);
    void flushed();

public:
    // Writes an image beside the note; returns its path relative to the note, or nothing.
    std::function<QString(const QString& note, const QString& fileName, const QByteArray& bytes)> storeImage;

public slots:
    QString storeAsset(const QString& note, const QString& fileName, const QString& base64) {
        return storeImage ? storeImage(note, fileName, QByteArray::fromBase64(base64.toLatin1())) : QString();
    }
    void pageReady() { emit ready(); }
    void documentEdited(const QString& note, const QString& json) { emit edited(note, json); }
    void documentRefused(const QString& note, const QString& message) { emit refused(note, message); }
    void pageFlushed() { emit flushed(); }
    void thumbnailRendered(const QString& note, const QString& base64) {
        emit thumbnail(note, QByteArray::fromBase64(base64.toLatin1()));
    }
};

}  // namespace mossly
