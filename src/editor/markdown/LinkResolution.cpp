#include "LinkResolution.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QUrl>
#include <algorithm>

#include "MarkdownText.h"

namespace mossly::markdown {

using namespace Qt::StringLiterals;

namespace {

constexpr QStringView kFootnotePrefix = u"mossly-footnote://";
constexpr QStringView kFootnoteScheme = u"mossly-footnote";
constexpr QStringView kDefinitionHost = u"definition";
constexpr QStringView kReferenceHost = u"reference";

// The label travels percent-encoded, so any label survives as one path segment.
QString footnoteUrl(QStringView host, const QString& label) {
    return kFootnotePrefix.toString() + host.toString() + u'/' +
           QString::fromLatin1(QUrl::toPercentEncoding(label));
}

// "<dest>" or "dest" followed by an optional quoted or parenthesised title.
QString bareDestination(const QString& destination) {
    QString trimmed = destination.trimmed();
    if (trimmed.startsWith(u'<')) {
        const qsizetype close = trimmed.indexOf(u'>');
        return close > 0 ? trimmed.mid(1, close - 1) : trimmed.mid(1);
    }
    static const QRegularExpression title =
        compilePattern(QStringLiteral(R"re([ \t]+(?:"[^"]*"|'[^']*'|\([^)]*\))[ \t]*$)re"));
    const QRegularExpressionMatch match = title.match(trimmed);
    if (match.hasMatch()) trimmed.truncate(match.capturedStart());
    return trimmed;
}

LinkTarget localTarget(const QString& path) {
    const QString cleaned = QDir::cleanPath(path);
    return {QUrl::fromLocalFile(cleaned).toString(QUrl::FullyEncoded), cleaned,
            isNoteFileName(cleaned) ? LinkKind::note : LinkKind::file};
}

}  // namespace

bool isNoteFileName(const QString& fileName) {
    static const QStringList extensions = {u"md"_s, u"markdown"_s, u"html"_s, u"htm"_s, u"tldr"_s};
    return extensions.contains(QFileInfo(fileName).suffix(), Qt::CaseInsensitive);
}

LinkTarget resolveLinkDestination(const QString& destination, const QString& noteDirectory) {
    static const QRegularExpression scheme =
        compilePattern(QStringLiteral(R"re(^[A-Za-z][A-Za-z0-9+.\-]*:)re"));
    const QString bare = bareDestination(destination);
    if (bare.startsWith(kFootnotePrefix)) return {bare, {}, LinkKind::footnote};
    if (scheme.match(bare).hasMatch()) {
        const QUrl url(bare);
        if (url.isLocalFile()) return localTarget(url.toLocalFile());
        return {bare, {}, LinkKind::web};
    }
    // The path part of a relative reference; a fragment or query is not part of the file name.
    QString path = bare;
    const auto cut = std::find_if(path.cbegin(), path.cend(), [](QChar c) { return c == u'?' || c == u'#'; });
    path.truncate(cut - path.cbegin());
    path = QUrl::fromPercentEncoding(path.toUtf8());
    if (path.isEmpty()) return {bare, {}, LinkKind::web};
    if (path.startsWith(u"~/"_s)) return localTarget(QDir::homePath() + path.mid(1));
    if (QDir::isAbsolutePath(path) || noteDirectory.isEmpty()) {
        LinkTarget target = localTarget(path);
        if (!QDir::isAbsolutePath(path)) target.url = bare;  // nothing to resolve against
        return target;
    }
    return localTarget(QDir(noteDirectory).filePath(path));
}

QString footnoteDefinitionUrl(const QString& label) {
    return footnoteUrl(kDefinitionHost, label);
}

QString footnoteReferenceUrl(const QString& label) {
    return footnoteUrl(kReferenceHost, label);
}

std::optional<int> footnoteJumpTarget(const StylePass& pass, const QUrl& url) {
    if (url.scheme() != kFootnoteScheme) return std::nullopt;
    const QString path = url.path(QUrl::FullyEncoded);
    if (!path.startsWith(u'/')) return std::nullopt;
    const QString label = QUrl::fromPercentEncoding(path.mid(1).toLatin1());
    const auto definition =
        std::find_if(pass.footnoteDefinitions.begin(), pass.footnoteDefinitions.end(),
                     [&](const FootnoteDefinition& candidate) { return candidate.label == label; });
    if (definition == pass.footnoteDefinitions.end()) return std::nullopt;
    if (url.host() == kDefinitionHost) return definition->marker.start;
    if (url.host() == kReferenceHost && definition->firstReferenceLocation >= 0) {
        return definition->firstReferenceLocation;
    }
    return std::nullopt;
}

}  // namespace mossly::markdown
