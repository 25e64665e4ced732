#include "HTMLRenderPolicy.h"

#include <QRegularExpression>
#include <cctype>
#include <limits>

#include "HTMLReferencePolicy.h"
#include "HtmlDocument.h"

namespace mossly {

namespace {

using html::HtmlDocument;

// gumbo keeps source offsets in unsigned int.
constexpr qsizetype parserLimit = std::numeric_limits<unsigned int>::max() - 1;

const std::vector<html::ElementPattern>& activeContent() {
    static const auto patterns = html::parseSelectorList(
        "script, iframe, frame, object, embed, form, input, button, textarea, select, option, base, "
        "link[rel=import]");
    return patterns;
}

const QRegularExpression& remoteStylePattern() {
    // image-set() loads from plain strings, without url().
    static const QRegularExpression pattern(
        QStringLiteral(R"((?i)(url\s*\(\s*['"]?https?:|@import|image-set\s*\([^)]*['"]\s*https?:))"));
    return pattern;
}

// CSS as its parser reads it: "\69 mport" and "ht\74p" are "import" and "http".
QString withoutCssEscapes(const QString& css) {
    QString plain;
    plain.reserve(css.size());
    for (qsizetype i = 0; i < css.size(); ++i) {
        if (css.at(i) != u'\\' || i + 1 == css.size()) {
            plain += css.at(i);
            continue;
        }
        qsizetype end = i + 1;
        while (end < css.size() && end - i <= 6 &&
               isxdigit(css.at(end).unicode() < 128 ? css.at(end).toLatin1() : 'g'))
            ++end;
        if (end == i + 1) {
            plain += css.at(++i);
            continue;
        }
        bool ok = false;
        const uint codePoint = css.mid(i + 1, end - i - 1).toUInt(&ok, 16);
        plain += (codePoint == 0 || codePoint > 0x10FFFF || QChar::isSurrogate(codePoint))
                     ? QString(QChar::ReplacementCharacter)
                     : QString::fromUcs4(reinterpret_cast<const char32_t*>(&codePoint), 1);
        if (end < css.size() && css.at(end).isSpace()) ++end;
        i = end - 1;
    }
    return plain;
}

bool loadsRemoteStyle(const QString& css) {
    if (remoteStylePattern().match(css).hasMatch()) return true;
    return css.contains(u'\\') && remoteStylePattern().match(withoutCssEscapes(css)).hasMatch();
}

// How an attribute refers to other documents.
enum class Reference { none, loaded, navigated, urlList, candidates, animatedValues };

Reference referenceKind(const QByteArray& name) {
    static const QHash<QByteArray, Reference> kinds = {
        {"src", Reference::loaded},
        {"poster", Reference::loaded},
        {"background", Reference::loaded},
        {"data", Reference::loaded},
        {"lowsrc", Reference::loaded},
        {"dynsrc", Reference::loaded},
        {"codebase", Reference::loaded},
        {"manifest", Reference::loaded},
        {"icon", Reference::loaded},
        {"href", Reference::navigated},
        {"xlink:href", Reference::navigated},
        {"action", Reference::navigated},
        {"formaction", Reference::navigated},
        {"cite", Reference::navigated},
        {"longdesc", Reference::navigated},
        {"ping", Reference::urlList},
        {"srcset", Reference::candidates},
        {"imagesrcset", Reference::candidates},
        // SVG animations can set an href to a script URL.
        {"to", Reference::animatedValues},
        {"from", Reference::animatedValues},
        {"by", Reference::animatedValues},
        {"values", Reference::animatedValues},
    };
    return kinds.value(name, Reference::none);
}

bool isEventHandler(const QByteArray& name) {
    return name.size() > 2 && name.startsWith("on") && name != "open";
}

bool refusesAttribute(const HtmlDocument::Attribute& attribute, const HTMLReferencePolicy& references) {
    const QByteArray& name = attribute.name;
    if (name == "srcdoc" || isEventHandler(name)) return true;
    if (name == "style") return loadsRemoteStyle(QString::fromUtf8(attribute.value));
    const Reference kind = referenceKind(name);
    if (kind == Reference::none) return false;
    const QString value = QString::fromUtf8(attribute.value);
    const auto refused = [&](const QString& url, bool navigates) {
        return HTMLReferencePolicy::runsScript(url, navigates) || references.isBlocked(url);
    };
    const auto anyRefused = [&](const QStringList& urls) {
        return std::any_of(urls.begin(), urls.end(), [&](const QString& url) { return refused(url, true); });
    };
    switch (kind) {
        case Reference::none:
            return false;
        case Reference::loaded:
            return refused(value, false);
        case Reference::navigated:
            return refused(value, true);
        case Reference::urlList: {
            static const QRegularExpression whitespace(QStringLiteral("\\s+"));
            return anyRefused(value.split(whitespace, Qt::SkipEmptyParts));
        }
        case Reference::candidates:
            return anyRefused(HTMLReferencePolicy::srcsetURLs(value));
        case Reference::animatedValues: {
            const QStringList values = value.split(u';');
            return std::any_of(values.begin(), values.end(),
                               [](const QString& v) { return HTMLReferencePolicy::runsScript(v, true); });
        }
    }
    return false;
}

int removeMatching(HtmlDocument& document, const std::vector<html::ElementPattern>& patterns) {
    const auto found = document.select(document.root(), patterns);
    for (const GumboNode* element : found) document.remove(element);
    return static_cast<int>(found.size());
}

// Steps 3 to 5 each judge one element on its own, so one walk takes each
// element through them in turn.
int cleanRemainingElements(HtmlDocument& document, const QUrl& noteURL) {
    static const auto styles = html::parseSelectorList("style");
    static const auto policyOverrides = html::parseSelectorList("meta[http-equiv]");
    const HTMLReferencePolicy references(noteURL);
    int removed = 0;
    for (const GumboNode* element : document.elements(document.root())) {
        for (const HtmlDocument::Attribute& attribute : document.attributes(element)) {
            if (!refusesAttribute(attribute, references)) continue;
            document.removeAttribute(attribute.source);
            ++removed;
        }
        if (document.matches(element, styles.front()) && loadsRemoteStyle(document.text(element))) {
            document.remove(element);
            ++removed;
        }
        // The page gets its own policy; the note's is replaced, not blocked, so it is not counted.
        if (document.matches(element, policyOverrides.front())) document.remove(element);
    }
    return removed;
}

QString escapedText(const QString& text) {
    QString escaped;
    escaped.reserve(text.size() + text.size() / 8);
    for (const QChar c : text) {
        if (c == u'&')
            escaped += QLatin1String("&amp;");
        else if (c == u'<')
            escaped += QLatin1String("&lt;");
        else if (c == u'>')
            escaped += QLatin1String("&gt;");
        else
            escaped += c;
    }
    return escaped;
}

HTMLRenderResult assemble(const HtmlDocument& document, int blockedElements) {
    HTMLRenderResult result;
    result.styleSheet = HTMLRenderPolicy::styleSheet();
    result.blockedElements = blockedElements;
    result.headHTML = document.innerHTML(document.head());
    QByteArray bodyStart = "<body";
    if (const GumboNode* body = document.body()) {
        result.bodyHTML = document.innerHTML(body);
        for (const HtmlDocument::Attribute& attribute : document.attributes(body)) {
            result.bodyAttributes.insert(QString::fromUtf8(attribute.name),
                                         QString::fromUtf8(attribute.value));
            bodyStart += ' ' + attribute.name + "=\"";
            html::appendEscapedAttributeValue(bodyStart, attribute.value);
            bodyStart += '"';
        }
    }
    bodyStart += '>';
    result.html = QStringLiteral("<!doctype html><html><head>") + HTMLRenderPolicy::policyElement() +
                  result.styleSheet + result.headHTML + QStringLiteral("</head>") +
                  QString::fromUtf8(bodyStart) + result.bodyHTML + QStringLiteral("</body></html>");
    return result;
}

}  // namespace

const QString& HTMLRenderPolicy::policyElement() {
    static const QString element = QStringLiteral(
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src data: file:; "
        "media-src "
        "file: data:; style-src 'unsafe-inline'; font-src data: file:; connect-src 'none'; frame-src 'none'; "
        "object-src 'none'; form-action 'none'; base-uri 'none'\">");
    return element;
}

const QString& HTMLRenderPolicy::styleSheet() {
    static const QString sheet = QStringLiteral(
        "<style>:root{color-scheme:light dark}body{margin:0;padding:22px 8px;font:17px -apple-system,"
        "BlinkMacSystemFont,sans-serif;line-height:1.55;color:CanvasText;background:transparent}img{max-"
        "width:100%;"
        "height:auto}pre,code{font-family:ui-monospace,SFMono-Regular,monospace}a{color:-apple-system-link}</"
        "style>");
    return sheet;
}

HTMLRenderResult HTMLRenderPolicy::prepare(const QString& source, const QUrl& noteURL) {
    return prepare(source, noteURL, parserLimit);
}

HTMLRenderResult HTMLRenderPolicy::prepare(const QString& source, const QUrl& noteURL,
                                           qsizetype largestSource) {
    QByteArray utf8 = source.toUtf8();
    if (utf8.size() > largestSource) return textPage(source);
    HtmlDocument document(std::move(utf8));
    if (!document.isParsed()) return textPage(source);
    int blocked = removeMatching(document, activeContent());
    blocked += cleanRemainingElements(document, noteURL);
    return assemble(document, blocked);
}

QString HTMLRenderPolicy::prepareFragment(const QString& fragment, const QUrl& noteURL) {
    return prepare(QStringLiteral("<html><body>") + fragment + QStringLiteral("</body></html>"), noteURL)
        .bodyHTML;
}

HTMLRenderResult HTMLRenderPolicy::textPage(const QString& source) {
    HTMLRenderResult result;
    result.bodyHTML = QStringLiteral("<pre>") + escapedText(source) + QStringLiteral("</pre>");
    result.html = QStringLiteral("<!doctype html><html><head></head><body>") + result.bodyHTML +
                  QStringLiteral("</body></html>");
    return result;
}

}  // namespace mossly
