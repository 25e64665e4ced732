#pragma once

#include <QString>
#include <optional>
#include <variant>

#include "WebLinkMetadata.h"

namespace mossly {

// A web address taken apart the way a browser reads it, so that the network
// policy judges the host the browser (and libcurl) would actually contact:
// "0x7f.1", "2130706433", "017700000001" and "127.1" are all 127.0.0.1,
// percent-encoded and international names are decoded, trailing dots go.
struct WebLinkURL {
    QString text;    // the address as given
    QString scheme;  // lower case
    bool hasCredentials = false;
    // A domain in lower-case ASCII without a trailing dot, or an address.
    std::variant<QString, WebLinkIPAddress> host;
    int port = 0;  // the scheme's default when none is written

    // Fails with `unsafeURL` for anything a browser would not open as an http(s) URL.
    static WebLinkResult<WebLinkURL> parse(const QString& text);

    bool hostIsAddress() const { return std::holds_alternative<WebLinkIPAddress>(host); }
    // The host as written in a URL: a name, a dotted IPv4 address or a bracketed IPv6 one.
    QString hostForURL() const;
};

// The host of an address the parser refused, for display: the authority
// without user name, password or port. Nothing when the host cannot be told
// apart from credentials with certainty (a password holding "/", "?" or "#").
std::optional<QString> hostTextWithoutCredentials(const QString& text);

// The browser's IPv4 number parser on a host that ends in a number; nothing
// when the host is a name. Exposed for tests.
std::optional<WebLinkResult<WebLinkIPAddress>> parseBrowserIPv4(const QString& host);

}  // namespace mossly
