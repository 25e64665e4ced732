#include "AgentCommandInstall.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <cerrno>

namespace mossly {

namespace {
QString linkFor(const QString& home) { return home + QStringLiteral("/.local/bin/mossly-agent"); }
}  // namespace

QString locateAgentCommand(const QString& besideProgram) {
    const QDir folder = QFileInfo(besideProgram).dir();
    for (const QString& candidate : {folder.filePath(QStringLiteral("mossly-agent")),
                                     folder.filePath(QStringLiteral("../agent/mossly-agent"))}) {
        if (QFileInfo(candidate).isExecutable()) return QFileInfo(candidate).canonicalFilePath();
    }
    return QStandardPaths::findExecutable(QStringLiteral("mossly-agent"));
}

Result<AgentCommandInstall> installAgentCommand(const QString& program, const QString& home, const QString& path) {
    const QString link = linkFor(home);
    if (program.isEmpty() || !QFileInfo(program).isExecutable()) return fail(Error::notFound(QStringLiteral("mossly-agent")));
    if (!QDir().mkpath(QFileInfo(link).path())) return fail(Error::system(EACCES, QFileInfo(link).path()));
    const QFileInfo existing(link);
    if (existing.exists() || existing.isSymLink()) {
        // Only our own link is replaced; a real program of the user's is left alone.
        if (!existing.isSymLink()) return fail(Error::alreadyExists(link));
        QFile::remove(link);
    }
    if (!QFile::link(program, link)) return fail(Error::system(EACCES, link));
    const QStringList folders = path.split(u':', Qt::SkipEmptyParts);
    const QString binFolder = QFileInfo(link).path();
    const bool onPath = std::any_of(folders.begin(), folders.end(), [&](const QString& folder) {
        return QDir::cleanPath(folder) == QDir::cleanPath(binFolder);
    });
    return AgentCommandInstall{link, onPath};
}

QString preferredAgentCommand(const QString& program, const QString& home) {
    const QFileInfo link(linkFor(home));
    return link.isSymLink() && QFileInfo(link.symLinkTarget()).isExecutable() ? link.filePath() : program;
}

}  // namespace mossly
