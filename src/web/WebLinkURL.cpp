#include "WebLinkURL.h"

#include <QByteArray>
#include <algorithm>
#include <QStringList>
#include <QUrl>

namespace mossly {

namespace {

using Code = WebLinkMetadataError::Code;

// One part of a dotted IPv4 host: decimal, 0x-hex or 0-octal, as browsers read it.
std::optional<quint64> parseIPv4Number(QString part) {
    int radix = 10;
    if (part.size() >= 2 && (part.startsWith(u"0x") || part.startsWith(u"0X"))) {
        radix = 16;
        part = part.mid(2);
    } else if (part.size() >= 2 && part.startsWith(u'0')) {
        radix = 8;
        part = part.mid(1);
    }
    if (part.isEmpty()) return 0;
    if (part.size() > 20) return std::nullopt;  // far beyond any address
    bool ok = false;
    const quint64 value = part.toULongLong(&ok, radix);
    for (const QChar c : part) {  // toULongLong accepts signs and spaces; browsers do not
        const bool digit = radix == 16 ? isxdigit(c.unicode()) : (c >= u'0' && c < QChar(u'0' + radix));
        if (c.unicode() > 0x7f || !digit) return std::nullopt;
    }
    return ok ? std::optional(value) : std::nullopt;
}

bool endsInANumber(const QString& host) {
    QStringList parts = host.split(u'.');
    if (parts.last().isEmpty()) {
        if (parts.size() == 1) return false;
        parts.removeLast();
    }
    const QString& last = parts.last();
    if (!last.isEmpty() && std::all_of(last.begin(), last.end(), [](QChar c) { return c >= u'0' && c <= u'9'; })) {
        return true;
    }
    return (last.startsWith(u"0x") || last.startsWith(u"0X")) && parseIPv4Number(last).has_value();
}

bool isForbiddenDomainCharacter(QChar c) {
    static const QString forbidden = QStringLiteral(" #%/:<>?@[\\]^|");
    return c.unicode() <= 0x20 || c.unicode() == 0x7f || forbidden.contains(c);
}

int defaultPort(const QString& scheme) { return scheme == u"https" ? 443 : 80; }

}  // namespace

std::optional<WebLinkResult<WebLinkIPAddress>> parseBrowserIPv4(const QString& host) {
    if (!endsInANumber(host)) return std::nullopt;
    const auto failure = webLinkFailure(Code::unsafeURL);
    QStringList parts = host.split(u'.');
    if (parts.last().isEmpty() && parts.size() > 1) parts.removeLast();
    if (parts.size() > 4) return failure;
    std::vector<quint64> numbers;
    for (const QString& part : parts) {
        if (part.isEmpty()) return failure;
        const auto number = parseIPv4Number(part);
        if (!number) return failure;
        numbers.push_back(*number);
    }
    for (size_t i = 0; i + 1 < numbers.size(); ++i) {
        if (numbers[i] > 255) return failure;
    }
    const quint64 limit = quint64{1} << (8 * (5 - numbers.size()));
    if (numbers.back() >= limit) return failure;
    quint64 value = numbers.back();
    for (size_t i = 0; i + 1 < numbers.size(); ++i) value += numbers[i] << (8 * (3 - i));
    return WebLinkIPAddress::v4({static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
                                 static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)});
}

WebLinkResult<WebLinkURL> WebLinkURL::parse(const QString& input) {
    const auto unsafe = webLinkFailure(Code::unsafeURL);
    WebLinkURL url;
    url.text = input;
    // Browsers drop surrounding spaces and controls, and tabs and newlines anywhere.
    QString text = input.trimmed();
    text.remove(u'\t').remove(u'\n').remove(u'\r');

    const qsizetype colon = text.indexOf(u':');
    if (colon <= 0) return unsafe;
    url.scheme = text.left(colon).toLower();
    if (url.scheme != u"http" && url.scheme != u"https") return unsafe;
    qsizetype at = colon + 1;
    while (at < text.size() && (text[at] == u'/' || text[at] == u'\\')) ++at;  // "http:\\\\host" too
    qsizetype end = at;
    while (end < text.size() && !QStringLiteral("/\\?#").contains(text[end])) ++end;
    QString authority = text.mid(at, end - at);

    const qsizetype atSign = authority.lastIndexOf(u'@');
    if (atSign >= 0) {
        url.hasCredentials = atSign > 0 && authority.left(atSign) != u":";
        if (url.hasCredentials) return unsafe;
        authority = authority.mid(atSign + 1);
    }

    QString hostText = authority;
    QString portText;
    if (authority.startsWith(u'[')) {
        const qsizetype close = authority.indexOf(u']');
        if (close < 0) return unsafe;
        hostText = authority.left(close + 1);
        const QString rest = authority.mid(close + 1);
        if (!rest.isEmpty()) {
            if (!rest.startsWith(u':')) return unsafe;
            portText = rest.mid(1);
        }
    } else if (const qsizetype portColon = authority.lastIndexOf(u':'); portColon >= 0) {
        hostText = authority.left(portColon);
        portText = authority.mid(portColon + 1);
    }
    url.port = defaultPort(url.scheme);
    if (!portText.isEmpty()) {
        bool ok = false;
        const int port = portText.toInt(&ok);
        const bool digits = std::all_of(portText.begin(), portText.end(), [](QChar c) { return c.isDigit(); });
        if (!ok || !digits || port > 65535) return unsafe;
        url.port = port;
    }
    if (hostText.isEmpty()) return unsafe;

    if (hostText.startsWith(u'[')) {
        // Zone identifiers ("%25eth0") are not part of a web address.
        const auto address = WebLinkIPAddress::fromText(hostText.mid(1, hostText.size() - 2));
        if (!address || address->isV4()) return unsafe;
        url.host = *address;
        return url;
    }

    const QString decoded = QString::fromUtf8(QByteArray::fromPercentEncoding(hostText.toUtf8()));
    // International names become their ASCII form, case-folded, as a browser sends them.
    const QString ascii = QString::fromLatin1(QUrl::toAce(decoded)).toLower();
    if (ascii.isEmpty() || std::any_of(ascii.begin(), ascii.end(), isForbiddenDomainCharacter)) return unsafe;
    if (auto address = parseBrowserIPv4(ascii)) {
        if (!*address) return unsafe;
        url.host = **address;
        return url;
    }
    QString domain = ascii;
    while (domain.endsWith(u'.')) domain.chop(1);
    if (domain.isEmpty()) return unsafe;
    url.host = domain;
    return url;
}

std::optional<QString> hostTextWithoutCredentials(const QString& input) {
    QString text = input.trimmed();
    text.remove(u'\t').remove(u'\n').remove(u'\r');
    qsizetype at = 0;
    const qsizetype colon = text.indexOf(u':');
    const auto isSchemeCharacter = [](QChar c) {
        return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c == u'+' ||
               c == u'-' || c == u'.';
    };
    if (colon > 0 && std::all_of(text.begin(), text.begin() + colon, isSchemeCharacter)) at = colon + 1;
    while (at < text.size() && (text[at] == u'/' || text[at] == u'\\')) ++at;
    qsizetype end = at;
    while (end < text.size() && !QStringLiteral("/\\?#").contains(text[end])) ++end;
    // An "@" further on may end a password that holds one of the characters that ended the authority.
    if (text.indexOf(u'@', end) >= 0) return std::nullopt;
    QString host = text.mid(at, end - at);
    host = host.mid(host.lastIndexOf(u'@') + 1);
    if (host.startsWith(u'[')) {
        const qsizetype close = host.indexOf(u']');
        if (close < 0) return std::nullopt;
        host.truncate(close + 1);
    } else if (const qsizetype portColon = host.indexOf(u':'); portColon >= 0) {
        host.truncate(portColon);
    }
    host = host.trimmed();
    if (host.isEmpty()) return std::nullopt;
    return host;
}

QString WebLinkURL::hostForURL() const {
    if (const auto* domain = std::get_if<QString>(&host)) return *domain;
    const auto& address = std::get<WebLinkIPAddress>(host);
    return address.isV4() ? address.toString() : u'[' + address.toString() + u']';
}

}  // namespace mossly
