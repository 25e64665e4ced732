#pragma once

#include <QStringList>
#include <QTextStream>
#include <memory>

#include "WebLinkMetadataService.h"

namespace mossly {

// What `mossly-link-preview` needs; tests pass their own resolver and loader.
struct LinkPreviewTools {
    std::shared_ptr<const WebLinkPublicNetworkPolicy> policy;
    std::shared_ptr<WebLinkMetadataService> service;

    static LinkPreviewTools system();  // the real resolver, network and cache
};

// `mossly-link-preview URL`: the link's metadata as one JSON object (the image
// as base64), or the reason on standard error with exit code 1.
// `mossly-link-preview --check URL`: only asks the policy (the host is
// resolved, nothing is fetched): {"allowed":true,"addresses":[…]} or the
// reason with exit code 1. Usage errors exit with 2.
int runLinkPreview(const QStringList& arguments, QTextStream& out, QTextStream& err, const LinkPreviewTools& tools);

}  // namespace mossly
