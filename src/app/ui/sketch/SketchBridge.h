#pragma once

#include <QObject>

namespace mossly {

// What the sketch page and the app say to each other over the web channel.
// Page to app: the page is ready, the drawing changed, a file was refused.
// App to page: a drawing to show, the theme, "save what you have now".
class SketchBridge : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

signals:
    void documentLoaded(const QString& note, const QString& json, bool dark);
    void themeChanged(bool dark);
    void flushRequested();

    // Re-emitted to the app (the page calls the slots).
    void ready();
    void edited(const QString& note, const QString& json);
    void refused(const QString& note, const QString& message);

public slots:
    void pageReady() { emit ready(); }
    void documentEdited(const QString& note, const QString& json) { emit edited(note, json); }
    void documentRefused(const QString& note, const QString& message) { emit refused(note, message); }
};

}  // namespace mossly
