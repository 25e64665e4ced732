#include "AppActions.h"

#include <QAction>
#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QClipboard>
#include <QFileDialog>
#include <QGuiApplication>
#include <QMimeData>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QSettings>
#include <QUrl>

#include "AgentCommandInstall.h"
#include "EditCommands.h"
#include "EditorPane.h"
#include "GranolaImportDialog.h"
#include "LinkPreviews.h"
#include "MeetingRecorder.h"
#include "SettingsWindow.h"
#include "LibrarySidebar.h"
#include "MainWindow.h"
#include "MarkdownTextView.h"
#include "NoteStore.h"

namespace mossly {

namespace {

const QString fontSizeKey = QStringLiteral("editor.fontSize");
constexpr qreal defaultFontSize = 12;
constexpr qreal minimumFontSize = 8;
constexpr qreal maximumFontSize = 48;

QAction* addAction(QMenu* menu, const QString& text, const QKeySequence& shortcut = {}) {
    QAction* action = menu->addAction(text);
    action->setShortcut(shortcut);
    return action;
}

// The platform's keys for a standard command, with the one every Linux desktop uses first
// (a platform theme may report another desktop's scheme).
QList<QKeySequence> withKey(QList<QKeySequence> keys, const QKeySequence& linuxKey) {
    keys.removeAll(linuxKey);
    keys.prepend(linuxKey);
    return keys;
}

// Formatting commands act on the focused Markdown editor; without one they are disabled.
MarkdownTextView* focusedMarkdownEditor() { return qobject_cast<MarkdownTextView*>(QApplication::focusWidget()); }

// The pane of the window the user is in: a note window's, else the library window's.
EditorPane* activeEditorPane(MainWindow& window) {
    for (QWidget* widget = QApplication::focusWidget(); widget; widget = widget->parentWidget()) {
        if (auto* pane = qobject_cast<EditorPane*>(widget)) return pane;
    }
    if (QWidget* active = QApplication::activeWindow(); active && active != &window) {
        if (auto* pane = active->findChild<EditorPane*>()) return pane;
    }
    return window.editorPane();
}

void installFormatMenu(MainWindow& window) {
    using markdown::FormattingAction;
    QMenu* format = window.menuBar()->addMenu(QObject::tr("F&ormat"));
    const std::pair<FormattingAction, std::pair<const char*, const char*>> entries[] = {
        {FormattingAction::title, {"Title", "Ctrl+1"}},
        {FormattingAction::heading, {"Heading", "Ctrl+2"}},
        {FormattingAction::subheading, {"Subheading", "Ctrl+3"}},
        {FormattingAction::smallHeading, {"Small Heading", "Ctrl+4"}},
        {FormattingAction::body, {"Body", "Ctrl+0"}},
        {FormattingAction::quote, {"Quote", "Ctrl+'"}},
        {FormattingAction::inlineCode, {"Inline Code", "Ctrl+E"}},
        {FormattingAction::bulletedList, {"Bulleted List", "Ctrl+Shift+8"}},
        {FormattingAction::numberedList, {"Numbered List", "Ctrl+Shift+7"}},
        {FormattingAction::checklist, {"Checklist", "Ctrl+Shift+L"}},
        {FormattingAction::codeBlock, {"Code Block", "Ctrl+Alt+C"}},
    };
    std::vector<QAction*> actions;
    for (const auto& [action, labels] : entries) {
        QAction* item = addAction(format, QObject::tr(labels.first), QKeySequence(QString::fromLatin1(labels.second)));
        QObject::connect(item, &QAction::triggered, &window, [action] {
            if (MarkdownTextView* editor = focusedMarkdownEditor()) editor->applyFormatting(action);
        });
        actions.push_back(item);
        if (action == FormattingAction::body || action == FormattingAction::inlineCode) format->addSeparator();
    }
    const auto update = [actions] {
        const bool enabled = focusedMarkdownEditor() != nullptr;
        for (QAction* action : actions) action->setEnabled(enabled);
    };
    // HTML notes: the source beside the page, or the page alone.
    format->addSeparator();
    QAction* split = addAction(format, QObject::tr("Split Mode"), QKeySequence(QStringLiteral("Ctrl+Alt+S")));
    split->setCheckable(true);
    QObject::connect(split, &QAction::toggled, &window, [&window](bool on) { activeEditorPane(window)->setHtmlSplitMode(on); });
    QObject::connect(qApp, &QApplication::focusChanged, &window, update);
    update();
}

void showImportReport(QWidget* parent, const NoteFileImportReport& report) {
    if (report.failures.empty()) return;
    QStringList lines;
    for (const auto& [file, reason] : report.failures) lines.append(file + QStringLiteral(": ") + reason);
    QMessageBox::warning(parent, QObject::tr("Some files were not imported"),
                         QObject::tr("%n note(s) imported.", nullptr, static_cast<int>(report.imported.size())) +
                             QStringLiteral("\n\n") + lines.join(u'\n'));
}

}  // namespace

void installAppActions(MainWindow& window, NoteStore& store) {
    QMenu* file = window.menuBar()->addMenu(QObject::tr("&File"));
    // A note made while a folder is shown goes into it, so it is in the list the user is looking at.
    const auto createIn = [&window](NoteContentType type) { window.createNoteHere({}, type); };
    QObject::connect(addAction(file, QObject::tr("New Note"), QKeySequence(QStringLiteral("Ctrl+N"))),
                     &QAction::triggered, &store, [createIn] { createIn(NoteContentType::markdown); });
    QObject::connect(addAction(file, QObject::tr("New Sketch"), QKeySequence(QStringLiteral("Shift+Ctrl+N"))),
                     &QAction::triggered, &store, [createIn] { createIn(NoteContentType::sketch); });
    file->addSeparator();
    QObject::connect(addAction(file, QObject::tr("Import Note Files…")), &QAction::triggered, &window,
                     [&window, &store] {
                         const QStringList paths = QFileDialog::getOpenFileNames(
                             &window, QObject::tr("Choose Markdown or HTML notes to import."), QString(),
                             QObject::tr("Notes (*.md *.markdown *.html *.htm *.tldr)"));
                         if (!paths.isEmpty()) store.importNoteFiles(paths);
                     });
    QObject::connect(addAction(file, QObject::tr("Paste as HTML Note"), QKeySequence(QStringLiteral("Ctrl+Alt+V"))),
                     &QAction::triggered, &window, [&window] {
                         if (const QMimeData* data = QGuiApplication::clipboard()->mimeData()) window.pasteAsHtmlNote(*data);
                     });
    QObject::connect(addAction(file, QObject::tr("Import from Granola…")), &QAction::triggered, &window,
                     [&window, &store] {
                         if (auto* open = window.findChild<GranolaImportDialog*>()) {
                             open->raise();
                             return;
                         }
                         const QString url = QSettings().value(QStringLiteral("import.granola.baseURL"),
                                                               QStringLiteral("https://public-api.granola.ai")).toString();
                         auto* dialog = new GranolaImportDialog(store, granolaKeyStore(), url, &window);
                         dialog->setAttribute(Qt::WA_DeleteOnClose);
                         dialog->show();
                     });
    QObject::connect(&store, &NoteStore::importFinished, &window,
                     [&window](const NoteFileImportReport& report) { showImportReport(&window, report); });
    QObject::connect(addAction(file, QObject::tr("Show Notes Folder")), &QAction::triggered, &window,
                     [&window, &store] {
                         if (QDesktopServices::openUrl(QUrl::fromLocalFile(store.directory()))) return;
                         // No file manager answered: the user still learns where the notes are.
                         auto* box = new QMessageBox(QMessageBox::Information, QObject::tr("Show Notes Folder"),
                                                     QObject::tr("No file manager could be started to show the "
                                                                 "notes folder. Your notes are in:\n%1")
                                                         .arg(QDir::toNativeSeparators(store.directory())),
                                                     QMessageBox::Ok, &window);
                         box->setObjectName(QStringLiteral("notesFolderMessage"));
                         box->setTextInteractionFlags(Qt::TextSelectableByMouse);
                         box->setAttribute(Qt::WA_DeleteOnClose);
                         box->open();
                     });
    file->addSeparator();
    // Closes the window the user is in; closing the library window quits, as its close button does.
    QAction* close = addAction(file, QObject::tr("Close Window"));
    // Ctrl+W on every desktop, whatever key scheme the platform theme reports.
    close->setShortcuts(withKey(QKeySequence::keyBindings(QKeySequence::Close), QKeySequence(QStringLiteral("Ctrl+W"))));
    QObject::connect(close, &QAction::triggered, &window,
                     [&window] {
                         QWidget* active = QApplication::activeWindow();
                         (active ? active : &window)->close();
                     }, Qt::QueuedConnection);
    // Quitting is closing the library window: the app's lifecycle then saves first.
    QAction* quit = addAction(file, QObject::tr("Quit"));
    quit->setShortcuts(withKey(QKeySequence::keyBindings(QKeySequence::Quit), QKeySequence(QStringLiteral("Ctrl+Q"))));
    QObject::connect(quit, &QAction::triggered, &window, &QWidget::close, Qt::QueuedConnection);

    QMenu* edit = window.menuBar()->addMenu(QObject::tr("&Edit"));
    installEditCommands(*edit, window);
    QAction* search = addAction(edit, QObject::tr("Search Notes"), QKeySequence(QStringLiteral("Ctrl+F")));
    QObject::connect(search, &QAction::triggered, &window, [&window] { window.sidebar()->focusSearch(); });
    edit->addSeparator();
    QAction* bold = addAction(edit, QObject::tr("Bold"), QKeySequence(QStringLiteral("Ctrl+B")));
    QAction* italic = addAction(edit, QObject::tr("Italic"), QKeySequence(QStringLiteral("Ctrl+I")));
    QObject::connect(bold, &QAction::triggered, &window, [] {
        if (MarkdownTextView* editor = focusedMarkdownEditor()) editor->applyFormatting(markdown::FormattingAction::bold);
    });
    QObject::connect(italic, &QAction::triggered, &window, [] {
        if (MarkdownTextView* editor = focusedMarkdownEditor()) editor->applyFormatting(markdown::FormattingAction::italic);
    });
    const auto updateHandlers = [bold, italic] {
        const bool formatting = focusedMarkdownEditor() != nullptr;
        bold->setEnabled(formatting);
        italic->setEnabled(formatting);
    };
    QObject::connect(qApp, &QApplication::focusChanged, &window, updateHandlers);
    QObject::connect(&store, &NoteStore::selectionChanged, &window, updateHandlers);
    updateHandlers();

    installFormatMenu(window);
    QMenu* view = window.menuBar()->addMenu(QObject::tr("&View"));
    QAction* bigger = addAction(view, QObject::tr("Make Text Bigger"), QKeySequence(QStringLiteral("Ctrl++")));
    bigger->setShortcuts({QKeySequence(QStringLiteral("Ctrl++")), QKeySequence(QStringLiteral("Ctrl+="))});
    QAction* smaller = addAction(view, QObject::tr("Make Text Smaller"), QKeySequence(QStringLiteral("Ctrl+-")));
    // One text size for every window showing notes.
    const auto applySize = [&window](qreal delta) {
        const qreal size = std::clamp(editorFontSize() + delta, minimumFontSize, maximumFontSize);
        QSettings().setValue(fontSizeKey, size);
        for (EditorPane* pane : window.findChildren<EditorPane*>()) pane->setFontPointSize(size);
    };
    view->addSeparator();
    QAction* source = view->addAction(QObject::tr("Show Markdown Source"));
    source->setCheckable(true);
    source->setShortcut(QKeySequence(QStringLiteral("Ctrl+Shift+M")));
    QObject::connect(source, &QAction::toggled, &window, [&window](bool showSource) {
        activeEditorPane(window)->markdownEditor()->setPresentation(showSource ? markdown::Presentation::source
                                                                               : markdown::Presentation::styled);
    });
    QAction* linkPreviews = view->addAction(QObject::tr("Link Previews"));
    linkPreviews->setCheckable(true);
    linkPreviews->setChecked(window.linkPreviews().isEnabled());
    QObject::connect(linkPreviews, &QAction::toggled, &window.linkPreviews(), &LinkPreviews::setEnabled);
    QObject::connect(&window.linkPreviews(), &LinkPreviews::enabledChanged, linkPreviews, &QAction::setChecked);

    edit->addSeparator();
    QAction* settings = addAction(edit, QObject::tr("Settings…"), QKeySequence(QStringLiteral("Ctrl+,")));
    QObject::connect(settings, &QAction::triggered, &window, [&window, &store] {
        if (auto* open = window.findChild<SettingsWindow*>()) {
            open->raise();
            return;
        }
        const QString program = locateAgentCommand(QCoreApplication::applicationFilePath());
        SettingsWindow::Agents agents{
            AgentClientRegistration(AgentClientEnvironment::system(), preferredAgentCommand(program, QDir::homePath())),
            program, QDir::homePath()};
        auto* dialog = new SettingsWindow(
            window.linkPreviews(), [&window](qreal size) { window.editorPane()->setFontPointSize(size); },
            std::move(agents), &window);
        if (MeetingRecorder* recorder = window.meetingRecorder()) dialog->addMeetingsPage(*recorder);
        if (auto history = store.repository().history()) dialog->addHistoryPage(std::move(history));
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->show();
    });

    QObject::connect(bigger, &QAction::triggered, &window, [applySize] { applySize(+1); });
    QObject::connect(smaller, &QAction::triggered, &window, [applySize] { applySize(-1); });
    applySize(0);

    // On Linux new versions come from the package manager, so the updater can never check.
    QMenu* help = window.menuBar()->addMenu(QObject::tr("&Help"));
    QAction* updates = help->addAction(QObject::tr("Check for Updates…"));
    updates->setEnabled(false);
    updates->setStatusTip(QObject::tr("Updates come from your system's package manager."));
    help->addSeparator();
    QObject::connect(help->addAction(QObject::tr("About Mossly")), &QAction::triggered, &window,
                     [&window] { showAboutBox(&window); });
    makeShortcutsApplicationWide(window);
}

void makeShortcutsApplicationWide(MainWindow& window) {
    for (QAction* action : window.menuBar()->findChildren<QAction*>()) {
        if (!action->shortcut().isEmpty()) action->setShortcutContext(Qt::ApplicationShortcut);
    }
}

qreal editorFontSize() { return QSettings().value(fontSizeKey, defaultFontSize).toReal(); }

}  // namespace mossly
