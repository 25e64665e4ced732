#pragma once

#include <QString>
#include <memory>
#include <set>
#include <vector>

#include "WebLinkMetadata.h"
#include "WebLinkURL.h"

namespace mossly {

// Finds the addresses of a host name.
class WebLinkHostResolving {
public:
    virtual ~WebLinkHostResolving() = default;
    // Every address of the host, both families, without duplicates; empty when it does not resolve.
    virtual std::vector<WebLinkIPAddress> addresses(const QString& host) const = 0;
};

// The system resolver (getaddrinfo).
class SystemWebLinkHostResolver : public WebLinkHostResolving {
public:
    std::vector<WebLinkIPAddress> addresses(const QString& host) const override;
};

// A URL the policy accepted, with the addresses it was judged by: the only
// ones a fetch may connect to, so that a second DNS answer cannot point the
// request at a private address.
struct ValidatedWebLink {
    WebLinkURL url;
    std::vector<WebLinkIPAddress> addresses;
};

// Decides which links may be fetched at all: public http(s) addresses without
// credentials, on the web's own ports, never a private or local network.
class WebLinkPublicNetworkPolicy {
public:
    explicit WebLinkPublicNetworkPolicy(std::shared_ptr<const WebLinkHostResolving> resolver,
                                        std::set<int> allowedPorts = {80, 443});

    // Fails with `unsafeURL` or `nonPublicAddress`. A name that does not resolve
    // has no public address.
    WebLinkResult<ValidatedWebLink> validate(const QString& url) const;

private:
    std::shared_ptr<const WebLinkHostResolving> resolver_;
    std::set<int> allowedPorts_;
};

}  // namespace mossly
