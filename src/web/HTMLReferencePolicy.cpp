#include "HTMLReferencePolicy.h"

#include <QDir>
#include <QFileInfo>

namespace mossly {

namespace {

// Longer paths cannot be opened, so a browser loads nothing from them either.
constexpr qsizetype longestPath = 4096;

bool isAsciiAlpha(QChar c) {
    return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
}
bool isAsciiWhitespace(QChar c) {
    return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\f';
}

// The scheme in lower case, or empty for a relative reference.
QString schemeOf(const QString& url) {
    if (url.isEmpty() || !isAsciiAlpha(url.front())) return {};
    for (qsizetype i = 1; i < url.size(); ++i) {
        const QChar c = url.at(i);
        if (c == u':') return url.left(i).toLower();
        if (!isAsciiAlpha(c) && !c.isDigit() && c != u'+' && c != u'-' && c != u'.') return {};
    }
    return {};
}

QString withoutQueryAndFragment(const QString& url) {
    qsizetype end = url.size();
    for (const QChar mark : {u'?', u'#'}) {
        const qsizetype at = url.indexOf(mark);
        if (at >= 0) end = std::min(end, at);
    }
    return url.left(end);
}

QString percentDecoded(const QString& text) {
    return QUrl::fromPercentEncoding(text.toUtf8());
}

bool isLocalHost(const QString& host) {
    const QString name = percentDecoded(host).toLower();
    return name.isEmpty() || name == u"localhost";
}

QString noteFolderOf(const QUrl& noteURL) {
    if (!noteURL.isLocalFile() || !isLocalHost(noteURL.host())) return {};
    const QString file = noteURL.toLocalFile();
    return file.isEmpty() ? QString() : QDir::cleanPath(QFileInfo(file).absolutePath());
}

}  // namespace

QString browserURLText(const QString& value) {
    qsizetype begin = 0;
    qsizetype end = value.size();
    while (begin < end && value.at(begin).unicode() <= 0x20) ++begin;
    while (end > begin && value.at(end - 1).unicode() <= 0x20) --end;
    QString text = value.mid(begin, end - begin);
    text.remove(u'\t').remove(u'\n').remove(u'\r');
    return text;
}

HTMLReferencePolicy::HTMLReferencePolicy(const QUrl& noteURL) : noteFolder_(noteFolderOf(noteURL)) {
    if (!noteFolder_.isEmpty()) folder_ = resolved(noteFolder_);
}

bool HTMLReferencePolicy::runsScript(const QString& value, bool navigates) {
    const QString url = browserURLText(value);
    const QString scheme = schemeOf(url);
    if (scheme == u"javascript" || scheme == u"vbscript") return true;
    if (scheme != u"data") return false;
    // "data: text/html;charset=utf-8;base64,…": the type ends at ";" or ",", white space around it is
    // ignored.
    QString type = url.mid(5);
    type = type.left(type.indexOf(u',')).section(u';', 0, 0).trimmed().toLower();
    static const QStringList documents = {QStringLiteral("text/html"),
                                          QStringLiteral("application/xhtml+xml"), QStringLiteral("text/xml"),
                                          QStringLiteral("application/xml")};
    return documents.contains(type) || (navigates && type == u"image/svg+xml");
}

bool HTMLReferencePolicy::isBlocked(const QString& reference) const {
    const QString url = browserURLText(reference);
    if (url.isEmpty()) return false;  // the note itself
    const QString scheme = schemeOf(url);
    static const QStringList remote = {QStringLiteral("http"), QStringLiteral("https"), QStringLiteral("ftp"),
                                       QStringLiteral("ws"), QStringLiteral("wss")};
    if (remote.contains(scheme)) return true;
    if (!scheme.isEmpty() && scheme != u"file") return false;
    if (scheme.isEmpty() && url.startsWith(u'#')) return false;
    const auto path = filePath(url);
    return !path || !isInsideFolder(*path);
}

// The standardised local path a file URL or a relative reference names;
// nothing when it names a file on another host or cannot be read reliably.
std::optional<QString> HTMLReferencePolicy::filePath(const QString& reference) const {
    const bool fileScheme = !schemeOf(reference).isEmpty();
    // Browsers read "\" as "/" in file URLs.
    QString rest = withoutQueryAndFragment(fileScheme ? reference.mid(5) : reference).replace(u'\\', u'/');
    // "file:name" resolves differently in different browsers.
    if (fileScheme && !rest.startsWith(u'/')) return std::nullopt;
    if (rest.startsWith(u"//")) {
        const qsizetype pathStart = rest.indexOf(u'/', 2);
        if (!isLocalHost(rest.mid(2, pathStart < 0 ? -1 : pathStart - 2))) return std::nullopt;
        rest = pathStart < 0 ? QStringLiteral("/") : rest.mid(pathStart);
    } else if (!rest.startsWith(u'/')) {
        if (noteFolder_.isEmpty()) return std::nullopt;
        rest = noteFolder_ + u'/' + rest;
    }
    // Decoded before ".." is resolved, so "%2e%2e" and "%2f" climb as well.
    const QString decoded = percentDecoded(rest);
    if (decoded.contains(QChar(0)) || decoded.size() > longestPath) return std::nullopt;
    return QDir::cleanPath(decoded);
}

bool HTMLReferencePolicy::isInsideFolder(const QString& path) const {
    if (folder_.isEmpty()) return false;
    const QString real = resolved(path);
    return folder_ == u"/" || real == folder_ || real.startsWith(folder_ + u'/');
}

// The path with every symbolic link resolved, as far as it exists. Folders
// are resolved once, so each further file costs one lstat.
QString HTMLReferencePolicy::resolved(const QString& cleanPath) const {
    if (cleanPath == u"/" || cleanPath.isEmpty()) return QStringLiteral("/");
    if (const auto known = resolvedPaths_.constFind(cleanPath); known != resolvedPaths_.cend()) return *known;
    const qsizetype slash = cleanPath.lastIndexOf(u'/');
    const QString parent = resolved(slash <= 0 ? QStringLiteral("/") : cleanPath.left(slash));
    QString real = (parent == u"/" ? QString() : parent) + cleanPath.mid(slash);
    const QFileInfo file(real);
    if (file.isSymLink()) {
        const QString target = file.canonicalFilePath();
        // A dangling link loads nothing; judged by where it lies.
        if (!target.isEmpty()) real = target;
    }
    resolvedPaths_.insert(cleanPath, real);
    return real;
}

QStringList HTMLReferencePolicy::srcsetURLs(const QString& srcset) {
    QStringList urls;
    qsizetype at = 0;
    const qsizetype size = srcset.size();
    while (at < size) {
        while (at < size && (isAsciiWhitespace(srcset.at(at)) || srcset.at(at) == u',')) ++at;
        const qsizetype start = at;
        while (at < size && !isAsciiWhitespace(srcset.at(at))) ++at;
        QString url = srcset.mid(start, at - start);
        const bool endsCandidate = url.endsWith(u',');
        while (url.endsWith(u',')) url.chop(1);
        if (!url.isEmpty()) urls.append(url);
        if (endsCandidate) continue;
        // Descriptors run to the next comma outside parentheses.
        int depth = 0;
        for (; at < size; ++at) {
            const QChar c = srcset.at(at);
            if (c == u'(')
                ++depth;
            else if (c == u')' && depth > 0)
                --depth;
            else if (c == u',' && depth == 0)
                break;
        }
    }
    return urls;
}

}  // namespace mossly
