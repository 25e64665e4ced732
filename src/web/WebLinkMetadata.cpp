#include "WebLinkMetadata.h"

#include <arpa/inet.h>

#include <algorithm>

namespace mossly {

QString WebLinkMetadataError::description() const {
    switch (code_) {
    case Code::unsafeURL:
        return QStringLiteral("Only public HTTP and HTTPS URLs without credentials can be previewed.");
    case Code::nonPublicAddress:
        return QStringLiteral("The link resolves to a non-public network address.");
    case Code::redirectLimit:
        return QStringLiteral("The link redirected too many times.");
    case Code::invalidResponse:
        return QStringLiteral("The server returned an invalid response.");
    case Code::unsupportedContentType:
        return QStringLiteral("The server did not return supported content.");
    case Code::responseTooLarge:
        return QStringLiteral("The preview response exceeded the size limit.");
    }
    return {};
}

std::optional<WebLinkIPAddress> WebLinkIPAddress::fromText(const QString& text) {
    const QByteArray ascii = text.toLatin1();
    V4 v4bytes{};
    if (::inet_pton(AF_INET, ascii.constData(), v4bytes.data()) == 1) return v4(v4bytes);
    V6 v6bytes{};
    if (::inet_pton(AF_INET6, ascii.constData(), v6bytes.data()) == 1) return v6(v6bytes);
    return std::nullopt;
}

namespace {

bool isPublicV4(const WebLinkIPAddress::V4& address) {
    const int a = address[0], b = address[1], c = address[2];
    if (a == 0 || a == 10 || a == 127 || a >= 224) return false;
    if (a == 100 && b >= 64 && b <= 127) return false;
    if (a == 169 && b == 254) return false;
    if (a == 172 && b >= 16 && b <= 31) return false;
    if (a == 192 && (b == 168 || b == 0)) return false;  // the whole 192.0 block, a deliberately wide cut
    if (a == 198 && (b == 18 || b == 19)) return false;
    if (a == 198 && b == 51 && c == 100) return false;
    if (a == 203 && b == 0 && c == 113) return false;
    return true;
}

bool isPublicV6(const WebLinkIPAddress::V6& address) {
    const bool leadingZeros = std::all_of(address.begin(), address.begin() + 10, [](unsigned char x) { return !x; });
    if (leadingZeros && address[10] == 0xff && address[11] == 0xff) {
        return isPublicV4({address[12], address[13], address[14], address[15]});  // IPv4-mapped
    }
    const bool allZero = std::all_of(address.begin(), address.end(), [](unsigned char x) { return !x; });
    if (allZero) return false;
    const bool loopback = std::all_of(address.begin(), address.end() - 1, [](unsigned char x) { return !x; }) &&
                          address[15] == 1;
    if (loopback) return false;
    if ((address[0] & 0xfe) == 0xfc) return false;                     // unique local
    if (address[0] == 0xff) return false;                              // multicast
    if (address[0] == 0xfe && address[1] >= 0x80 && address[1] <= 0xbf) return false;  // link local
    return true;
}

}  // namespace

bool WebLinkIPAddress::isPublic() const { return isV4() ? isPublicV4(v4Bytes()) : isPublicV6(v6Bytes()); }

QString WebLinkIPAddress::toString() const {
    char text[INET6_ADDRSTRLEN] = {};
    if (isV4()) {
        ::inet_ntop(AF_INET, v4Bytes().data(), text, sizeof text);
    } else {
        ::inet_ntop(AF_INET6, v6Bytes().data(), text, sizeof text);
    }
    return QString::fromLatin1(text);
}

}  // namespace mossly
