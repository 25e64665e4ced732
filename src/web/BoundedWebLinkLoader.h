#pragma once

#include <QStringList>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "WebLinkMetadata.h"
#include "WebLinkPublicNetworkPolicy.h"

namespace mossly {

// What one load may accept.
struct WebLinkLoadLimits {
    qint64 maximumBytes = 0;
    QStringList acceptedMIMETypes;

    static WebLinkLoadLimits page();   // HTML, 2 MiB
    static WebLinkLoadLimits image();  // PNG, JPEG, GIF, WebP, 4 MiB
};

// Performs one bounded GET of a web address. Blocking: call it off the GUI thread.
class WebLinkLoading {
public:
    virtual ~WebLinkLoading() = default;
    virtual WebLinkResult<WebLinkHTTPResponse> load(const QString& url, const WebLinkLoadLimits& limits) const = 0;
};

struct BoundedWebLinkLoaderOptions {
    int redirectLimit = 5;
    std::chrono::milliseconds connectTimeout{5000};
    std::chrono::milliseconds totalTimeout{15000};
    // Tests only: where to really connect for a validated address and port
    // (a local server standing in for a public one).
    std::function<std::pair<QString, int>(const WebLinkIPAddress&, int port)> connectOverride;
};

// GET over libcurl under the public-network policy: the Accept header names
// the accepted types, redirects are followed by hand (each target validated,
// at most `redirectLimit`), the type is checked when the headers arrive and
// the size with every chunk (and against a declared length), and the
// connection goes only to the addresses the policy judged. Proxy settings of
// the environment are ignored: a proxy would make its own choice of address.
class BoundedWebLinkLoader : public WebLinkLoading {
public:
    using Options = BoundedWebLinkLoaderOptions;
    explicit BoundedWebLinkLoader(std::shared_ptr<const WebLinkPublicNetworkPolicy> policy, Options options = {});

    WebLinkResult<WebLinkHTTPResponse> load(const QString& url, const WebLinkLoadLimits& limits) const override;

private:
    std::shared_ptr<const WebLinkPublicNetworkPolicy> policy_;
    Options options_;
};

}  // namespace mossly
