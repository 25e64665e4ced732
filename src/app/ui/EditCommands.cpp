#include "EditCommands.h"

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QMessageBox>
#include <QWebEngineView>

namespace mossly {

namespace {

struct EditCommand {
    const char* label;
    QKeySequence::StandardKey key;
    const char* slot;  // of text widgets and item views
    QWebEnginePage::WebAction pageAction;
};

const EditCommand commands[] = {
    {QT_TRANSLATE_NOOP("EditCommands", "Undo"), QKeySequence::Undo, "undo()", QWebEnginePage::Undo},
    {QT_TRANSLATE_NOOP("EditCommands", "Redo"), QKeySequence::Redo, "redo()", QWebEnginePage::Redo},
    {QT_TRANSLATE_NOOP("EditCommands", "Cut"), QKeySequence::Cut, "cut()", QWebEnginePage::Cut},
    {QT_TRANSLATE_NOOP("EditCommands", "Copy"), QKeySequence::Copy, "copy()", QWebEnginePage::Copy},
    {QT_TRANSLATE_NOOP("EditCommands", "Paste"), QKeySequence::Paste, "paste()", QWebEnginePage::Paste},
    {QT_TRANSLATE_NOOP("EditCommands", "Select All"), QKeySequence::SelectAll, "selectAll()", QWebEnginePage::SelectAll},
};

// The web view that shows the focused widget's page, if the focus is inside one.
QWebEngineView* focusedWebView() {
    for (QWidget* widget = QApplication::focusWidget(); widget; widget = widget->parentWidget()) {
        if (auto* view = qobject_cast<QWebEngineView*>(widget)) return view;
    }
    return nullptr;
}

bool hasSlot(const QObject* object, const char* slot) {
    return object && object->metaObject()->indexOfSlot(slot) >= 0;
}

bool canRun(const EditCommand& command) {
    if (QWebEngineView* view = focusedWebView()) return view->pageAction(command.pageAction)->isEnabled();
    QWidget* focus = QApplication::focusWidget();
    if (!hasSlot(focus, command.slot)) return false;
    // A read-only text shows its words but takes none.
    const QVariant readOnly = focus->property("readOnly");
    const bool changes = command.key == QKeySequence::Undo || command.key == QKeySequence::Redo ||
                         command.key == QKeySequence::Cut || command.key == QKeySequence::Paste;
    return !(changes && readOnly.isValid() && readOnly.toBool());
}

void run(const EditCommand& command) {
    if (QWebEngineView* view = focusedWebView()) {
        view->page()->triggerAction(command.pageAction);
        return;
    }
    QWidget* focus = QApplication::focusWidget();
    if (!hasSlot(focus, command.slot)) return;
    const QByteArray name = QByteArray(command.slot).chopped(2);
    QMetaObject::invokeMethod(focus, name.constData());
}

}  // namespace

void installEditCommands(QMenu& edit, QWidget& window) {
    std::vector<std::pair<QAction*, const EditCommand*>> actions;
    for (const EditCommand& command : commands) {
        QAction* action = edit.addAction(QCoreApplication::translate("EditCommands", command.label));
        action->setShortcuts(QKeySequence::keyBindings(command.key));
        QObject::connect(action, &QAction::triggered, &window, [&command] { run(command); });
        actions.emplace_back(action, &command);
        if (command.key == QKeySequence::Redo || command.key == QKeySequence::Paste) edit.addSeparator();
    }
    const auto update = [actions] {
        for (const auto& [action, command] : actions) action->setEnabled(canRun(*command));
    };
    // Tied to the menu that owns the actions, not to the window: while the window is
    // destroyed, a dialog of it closing moves the focus after the menu (and its actions) are gone.
    QObject::connect(qApp, &QApplication::focusChanged, &edit, update);
    // Opening the menu asks again: Undo's state changes with every keystroke.
    QObject::connect(&edit, &QMenu::aboutToShow, &window, update);
    update();
}

void showAboutBox(QWidget* parent) {
    QMessageBox::about(
        parent, QObject::tr("About Mossly"),
        QObject::tr("<h3>Mossly %1</h3><p>Local-first notes: your notes are plain files in a folder you own.</p>"
                    "<p>Mossly bundles:</p><ul>"
                    "<li><b>tldraw</b> (the sketch canvas), under the tldraw SDK licence, used without a licence "
                    "key on the condition that the \u201CMade with tldraw\u201D watermark stays visible and "
                    "unaltered on every canvas;</li>"
                    "<li><b>React</b> and the other packages of the sketch bundle, under the MIT licence (their "
                    "notices are installed beside the bundle, in <i>sketch.js.LEGAL.txt</i>);</li>"
                    "<li><b>whisper.cpp</b> and <b>ggml</b> (meeting transcription on this computer), under the "
                    "MIT licence.</li></ul>")
            .arg(QStringLiteral(MOSSLY_VERSION)));
}

}  // namespace mossly
