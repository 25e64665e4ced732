#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QUrl>
#include <cstdio>
#include <unistd.h>

#include "AppIcon.h"
#include "AppLifecycle.h"
#include "AppSession.h"
#include "Diagnostics.h"
#include "MainWindow.h"
#include "NoteLink.h"
#include "NotesLocation.h"
#include "SingleInstance.h"

using namespace mossly;

namespace {

// The folder from --notes-dir, else from the notes-location configuration.
Result<QString> notesDirectory(const QCommandLineParser& parser, const QCommandLineOption& option) {
    if (parser.isSet(option)) return QDir(parser.value(option)).absolutePath();
    auto resolution = resolveConfiguredNotesDirectory();
    if (!resolution) return fail(resolution.error());
    if (resolution->notice) DiagnosticsCenter::shared().event(*resolution->notice);
    return resolution->directory;
}

// A path, a file:// URL (the desktop entry's %U) or a mossly:// link, as the running app takes it.
QString openRequest(const QString& argument) {
    if (NoteLink::isNoteLink(argument)) return argument;
    const QUrl url(argument);
    return QFileInfo(url.isLocalFile() ? url.toLocalFile() : argument).absoluteFilePath();
}

}  // namespace

int main(int argc, char** argv) {
    // HTML notes are shown in Qt WebEngine, which needs this before the application exists.
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    // Chromium's sandbox cannot start as root; HTML notes are shown with scripts
    // off and every request refused but the note's own files either way.
    if (geteuid() == 0 && qEnvironmentVariableIsEmpty("QTWEBENGINE_DISABLE_SANDBOX")) {
        qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
    }
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Mossly"));
    QApplication::setOrganizationDomain(QStringLiteral("com.bellam.notes"));
    QApplication::setDesktopFileName(QStringLiteral("mossly"));
    QApplication::setWindowIcon(appIcon());

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Mossly: local-first notes"));
    parser.addHelpOption();
    const QCommandLineOption notesDirOption(QStringLiteral("notes-dir"), QStringLiteral("Open the notes in DIR."),
                                            QStringLiteral("DIR"));
    parser.addOption(notesDirOption);
    parser.addPositionalArgument(QStringLiteral("files"),
                                 QStringLiteral("Markdown, HTML or sketch files, or mossly://note/… links, to open."),
                                 QStringLiteral("[FILE|LINK…]"));
    if (!parser.parse(QApplication::arguments())) {  // parse(), not process(): tolerate platform flags
        std::fprintf(stderr, "%s\n", qPrintable(parser.errorText()));
        return 2;
    }
    if (parser.isSet(QStringLiteral("help"))) parser.showHelp();
    // Files and links to open, from the command line, the file manager or a clicked link (the desktop entry's %U).
    QStringList files;
    for (const QString& file : parser.positionalArguments()) files.append(openRequest(file));
    // One Mossly per user: a second launch hands its files to the one running and ends.
    if (SingleInstance::handOver(files)) return 0;

    DiagnosticsCenter& diagnostics = DiagnosticsCenter::shared();
    diagnostics.setLogFile(defaultDiagnosticsLogPath());
    auto directory = notesDirectory(parser, notesDirOption);
    if (!directory) {
        std::fprintf(stderr, "%s\n", qPrintable(directory.error().description()));
        return 1;
    }

    AppSession session(*directory);
    session.lifecycle().handleTerminationSignals();
    MainWindow& window = session.window();
    window.show();
    session.openFiles(files);
    diagnostics.event(QStringLiteral("Application finished launching"));
    return QApplication::exec();
}
