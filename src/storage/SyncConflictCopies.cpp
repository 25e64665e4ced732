#include "SyncConflictCopies.h"

#include <QDateTime>
#include <QRegularExpression>

#include "NoteRepository.h"

namespace mossly {

namespace {

// "Plan.sync-conflict-20261124-093012-ABCDEFG.md"; Syncthing puts the marker
// before the last extension, or at the end of a name without one.
std::optional<SyncConflictCopy> syncthingCopy(const QString& folder, const QString& name) {
    static const QRegularExpression pattern(QStringLiteral(
        R"(^(.*)\.sync-conflict-(\d{4})(\d{2})(\d{2})-(\d{2})(\d{2})(\d{2})-([A-Z0-9]{7})(\.[^.]*)?$)"));
    const QRegularExpressionMatch match = pattern.match(name);
    if (!match.hasMatch() || match.captured(1).isEmpty()) return std::nullopt;
    const QString detail = QStringLiteral("%1-%2-%3 %4:%5:%6, device %7")
                               .arg(match.captured(2), match.captured(3), match.captured(4), match.captured(5),
                                    match.captured(6), match.captured(7), match.captured(8));
    return SyncConflictCopy{folder + match.captured(1) + match.captured(9), QStringLiteral("Syncthing"), detail};
}

// "Plan (conflicted copy 2026-11-24 093012).md" (Nextcloud, also with a user
// name before the date) and "Plan (Ana's conflicted copy 2026-11-24).md" or
// "… (1)).md" (Dropbox).
std::optional<SyncConflictCopy> conflictedCopy(const QString& folder, const QString& name) {
    static const QRegularExpression pattern(
        QStringLiteral(R"(^(.+?) \(([^()]*conflicted copy[^()]*(?:\(\d+\))?)\)(\.[^.]*)?$)"),
        QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression nextcloud(
        QStringLiteral(R"(^conflicted copy (?:.* )?(\d{4}-\d{2}-\d{2}) (\d{2})(\d{2})(\d{2})$)"));
    const QRegularExpressionMatch match = pattern.match(name);
    if (!match.hasMatch()) return std::nullopt;
    const QString inside = match.captured(2);
    const QString original = folder + match.captured(1) + match.captured(3);
    if (const QRegularExpressionMatch stamp = nextcloud.match(inside); stamp.hasMatch()) {
        return SyncConflictCopy{original, QStringLiteral("Nextcloud"),
                                QStringLiteral("%1 %2:%3:%4")
                                    .arg(stamp.captured(1), stamp.captured(2), stamp.captured(3), stamp.captured(4))};
    }
    return SyncConflictCopy{original, QStringLiteral("Dropbox"), inside};
}

}  // namespace

std::optional<SyncConflictCopy> syncConflictCopyOf(const QString& path) {
    const qsizetype slash = path.lastIndexOf(u'/');
    const QStringView nameView = QStringView(path).sliced(slash + 1);
    // Cheap before the patterns, each of which needs one of these: almost no note is a copy,
    // and every listing asks of every note.
    if (!nameView.contains(QLatin1String(".sync-conflict-")) &&
        !nameView.contains(QLatin1String("conflicted copy"), Qt::CaseInsensitive)) {
        return std::nullopt;
    }
    const QString folder = path.left(slash + 1);
    const QString name = nameView.toString();
    if (auto copy = syncthingCopy(folder, name)) return copy;
    return conflictedCopy(folder, name);
}

QString conflictCopyIdentifier(const QString& identifier, const QString& stamp, int counter) {
    const qsizetype dot = identifier.lastIndexOf(u'.');
    const QString base = identifier.left(dot);
    const QString extension = identifier.mid(dot + 1);
    return counter == 1 ? QStringLiteral("%1 (Conflict %2).%3").arg(base, stamp, extension)
                        : QStringLiteral("%1 (Conflict %2)-%3.%4").arg(base, stamp).arg(counter).arg(extension);
}

Result<StoredNote> createConflictCopy(const QString& identifier,
                                      const std::function<Result<StoredNote>(const QString& name)>& createAt) {
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH.mm.ss"));
    for (int counter = 1; counter <= NoteRepository::maximumNameAttempts; ++counter) {
        auto copy = createAt(conflictCopyIdentifier(identifier, stamp, counter));
        if (copy || copy.error().code() != Error::Code::alreadyExists) return copy;
    }
    return fail(Error::alreadyExists(identifier));
}

}  // namespace mossly
