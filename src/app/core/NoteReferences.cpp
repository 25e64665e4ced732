#include "NoteReferences.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QUrl>
#include <algorithm>
#include <optional>
#include <vector>

#include "NoteAssets.h"

namespace mossly {

namespace {

struct Range {
    qsizetype start;
    qsizetype end;
};

// Fenced code blocks: a link written there is an example, not a link.
std::vector<Range> fencedCodeRanges(const QString& text) {
    static const QRegularExpression fence(QStringLiteral("^ {0,3}(`{3,}|~{3,})"));
    std::vector<Range> ranges;
    qsizetype lineStart = 0;
    qsizetype openedAt = -1;  // the open fence's line, while inside one
    QString opener;
    while (lineStart <= text.size()) {
        qsizetype lineEnd = text.indexOf(u'\n', lineStart);
        if (lineEnd < 0) lineEnd = text.size();
        const QString line = text.mid(lineStart, lineEnd - lineStart);
        const QRegularExpressionMatch match = fence.match(line);
        if (match.hasMatch()) {
            const QString marker = match.captured(1);
            if (openedAt < 0) {
                openedAt = lineStart;
                opener = marker;
            } else if (marker.front() == opener.front() && marker.size() >= opener.size()) {
                ranges.push_back({openedAt, lineEnd});
                openedAt = -1;
            }
        }
        lineStart = lineEnd + 1;
    }
    if (openedAt >= 0) ranges.push_back({openedAt, text.size()});
    return ranges;
}

// The new destination when `destination` leads to `oldTarget`, else nothing.
std::optional<QString> rewrittenDestination(const QString& destination, const QString& noteFile,
                                            const QString& oldTarget, const QString& newTarget) {
    static const QRegularExpression scheme(QStringLiteral("^[A-Za-z][A-Za-z0-9+.\\-]*:"));
    QString bare = destination;
    if (bare.startsWith(u'<') && bare.endsWith(u'>')) bare = bare.mid(1, bare.size() - 2);
    if (bare.isEmpty() || scheme.match(bare).hasMatch()) return std::nullopt;
    const auto cut = std::find_if(bare.cbegin(), bare.cend(), [](QChar c) { return c == u'?' || c == u'#'; });
    const qsizetype pathLength = cut - bare.cbegin();
    const QString suffix = bare.mid(pathLength);
    const QString path = QUrl::fromPercentEncoding(bare.left(pathLength).toUtf8());
    if (path.isEmpty()) return std::nullopt;
    const QString resolved =
        QDir::cleanPath(QDir::isAbsolutePath(path) ? path : QFileInfo(noteFile).dir().filePath(path));
    if (resolved != QDir::cleanPath(oldTarget)) return std::nullopt;
    return NoteAssets::markdownDestination(noteFile, newTarget) + suffix;
}

}  // namespace

QString rewriteNoteReferences(const QString& markdown, const QString& noteFile, const QString& oldTarget,
                              const QString& newTarget, int* count) {
    // The destination of "[text](dest …)" and of a definition "[label]: dest".
    static const QRegularExpression link(QStringLiteral(
        R"re(\]\([ \t]*(<[^>\n]*>|[^\s()<>]+)|^ {0,3}\[[^\]\n]+\]:[ \t]*(<[^>\n]*>|\S+))re"),
        QRegularExpression::MultilineOption);
    const std::vector<Range> code = fencedCodeRanges(markdown);
    const auto inCode = [&](qsizetype position) {
        return std::any_of(code.begin(), code.end(), [&](const Range& r) { return position >= r.start && position < r.end; });
    };
    QString result;
    qsizetype copied = 0;
    int changed = 0;
    for (auto it = link.globalMatch(markdown); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        const int group = match.capturedStart(1) >= 0 ? 1 : 2;
        if (inCode(match.capturedStart(group))) continue;
        const auto replacement = rewrittenDestination(match.captured(group), noteFile, oldTarget, newTarget);
        if (!replacement) continue;
        result += markdown.mid(copied, match.capturedStart(group) - copied) + *replacement;
        copied = match.capturedEnd(group);
        ++changed;
    }
    if (count) *count = changed;
    if (changed == 0) return markdown;
    return result + markdown.mid(copied);
}

}  // namespace mossly
