#include "WelcomeNote.h"

#include <QDir>
#include <QFileInfo>
#include <QUrl>

#include "AtomicFile.h"
#include "Diagnostics.h"
#include "NoteStore.h"

namespace mossly {

QString welcomeNoteText(const std::optional<QString>& imageLine) {
    QStringList parts{QStringLiteral("# Welcome to Mossly")};
    if (imageLine) parts.append(*imageLine);
    parts.append(QStringLiteral("High-powered notes in a simple package"));
    parts.append(QStringLiteral("## A few details\n\n- Create a note with **Ctrl+N**\n"
                                "- Start a sketch note with **Shift+Ctrl+N**\n- Search instantly with **Ctrl+F**\n"
                                "- Your words save automatically"));
    parts.append(QStringLiteral("## Advanced tips\n\n1. Drag notes into other notes\n2. Drag or paste images\n"
                                "3. Paste websites for nice previews\n4. Drag in static HTML files\n"
                                "5. Go into split mode and write markup\n6. Import your Apple and Granola notes"));
    parts.append(QString::fromLatin1(manualAddress));
    return parts.join(QStringLiteral("\n\n")) + u'\n';
}

void NoteStore::createWelcomeNoteIfNeeded() {
    const std::optional<QString> url = createNote(welcomeNoteText(std::nullopt), NoteContentType::markdown);
    if (!url || options_.welcomeIconPng.isEmpty()) return;

    // The icon lives in a folder beside the note, "<note name>.assets/".
    auto span = DiagnosticsCenter::shared().span(QStringLiteral("Create welcome note icon"));
    const QFileInfo noteFile(*url);
    const QString assetFolder = noteFile.completeBaseName() + QStringLiteral(".assets");
    const QString assetPath = noteFile.dir().filePath(assetFolder + u'/' + welcomeIconAssetName);
    QDir().mkpath(QFileInfo(assetPath).path());
    if (auto written = AtomicFile::replaceContents(assetPath, options_.welcomeIconPng); !written) {
        span.fail(written.error().description());
        return;
    }
    const QString relative = QString::fromUtf8(QUrl::toPercentEncoding(assetFolder) + '/' +
                                               QUrl::toPercentEncoding(welcomeIconAssetName));
    setBody(*url, welcomeNoteText(QStringLiteral("![Mossly icon](") + relative + u')'));
}

}  // namespace mossly
