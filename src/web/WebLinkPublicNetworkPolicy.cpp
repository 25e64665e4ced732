#include "WebLinkPublicNetworkPolicy.h"

#include <QStringList>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace mossly {

namespace {

using Code = WebLinkMetadataError::Code;

bool isLocalName(const QString& host) {
    static const QStringList names{QStringLiteral("localhost"), QStringLiteral("localhost.localdomain"),
                                   QStringLiteral("metadata.google.internal")};
    return names.contains(host) || host.endsWith(QStringLiteral(".localhost")) ||
           host.endsWith(QStringLiteral(".local"));
}

}  // namespace

std::vector<WebLinkIPAddress> SystemWebLinkHostResolver::addresses(const QString& host) const {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.toUtf8().constData(), nullptr, &hints, &found) != 0) return {};
    std::vector<WebLinkIPAddress> addresses;
    for (const addrinfo* entry = found; entry; entry = entry->ai_next) {
        std::optional<WebLinkIPAddress> address;
        if (entry->ai_family == AF_INET) {
            WebLinkIPAddress::V4 bytes{};
            std::memcpy(bytes.data(), &reinterpret_cast<const sockaddr_in*>(entry->ai_addr)->sin_addr, 4);
            address = WebLinkIPAddress::v4(bytes);
        } else if (entry->ai_family == AF_INET6) {
            WebLinkIPAddress::V6 bytes{};
            std::memcpy(bytes.data(), &reinterpret_cast<const sockaddr_in6*>(entry->ai_addr)->sin6_addr, 16);
            address = WebLinkIPAddress::v6(bytes);
        }
        if (address && std::find(addresses.begin(), addresses.end(), *address) == addresses.end()) {
            addresses.push_back(*address);
        }
    }
    ::freeaddrinfo(found);
    return addresses;
}

WebLinkPublicNetworkPolicy::WebLinkPublicNetworkPolicy(std::shared_ptr<const WebLinkHostResolving> resolver,
                                                       std::set<int> allowedPorts)
    : resolver_(std::move(resolver)), allowedPorts_(std::move(allowedPorts)) {}

WebLinkResult<ValidatedWebLink> WebLinkPublicNetworkPolicy::validate(const QString& text) const {
    auto url = WebLinkURL::parse(text);
    if (!url) return std::unexpected(url.error());
    if (!allowedPorts_.contains(url->port)) return webLinkFailure(Code::unsafeURL);
    ValidatedWebLink validated{*url, {}};
    if (url->hostIsAddress()) {
        validated.addresses = {std::get<WebLinkIPAddress>(url->host)};
    } else {
        const QString& host = std::get<QString>(url->host);
        if (isLocalName(host)) return webLinkFailure(Code::nonPublicAddress);
        validated.addresses = resolver_->addresses(host);
    }
    // One private address is enough to refuse: the fetch could be sent to it.
    const bool allPublic = std::all_of(validated.addresses.begin(), validated.addresses.end(),
                                       [](const WebLinkIPAddress& address) { return address.isPublic(); });
    if (validated.addresses.empty() || !allPublic) return webLinkFailure(Code::nonPublicAddress);
    return validated;
}

}  // namespace mossly
