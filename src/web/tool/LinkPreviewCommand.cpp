#include "LinkPreviewCommand.h"

#include "JsonWriter.h"

namespace mossly {

namespace {

constexpr int failure = 1;
constexpr int usageError = 2;

QString jsonString(const QString& text) { return JsonObjectWriter().add(QStringLiteral("s"), text).text().mid(5).chopped(1); }

QString metadataJson(const WebLinkMetadata& metadata) {
    JsonObjectWriter json;
    json.add(QStringLiteral("url"), metadata.url)
        .add(QStringLiteral("title"), metadata.title)
        .add(QStringLiteral("summary"), metadata.summary)
        .add(QStringLiteral("siteName"), metadata.siteName);
    if (metadata.thumbnailData) {
        json.add(QStringLiteral("thumbnailData"), QString::fromLatin1(metadata.thumbnailData->toBase64()));
    } else {
        json.addNull(QStringLiteral("thumbnailData"));
    }
    return json.text();
}

}  // namespace

LinkPreviewTools LinkPreviewTools::system() {
    auto policy = std::make_shared<const WebLinkPublicNetworkPolicy>(std::make_shared<SystemWebLinkHostResolver>());
    auto loader = std::make_shared<const BoundedWebLinkLoader>(policy);
    return {policy, std::make_shared<WebLinkMetadataService>(policy, loader)};
}

int runLinkPreview(const QStringList& arguments, QTextStream& out, QTextStream& err, const LinkPreviewTools& tools) {
    if (arguments.contains(QStringLiteral("--help")) || arguments.contains(QStringLiteral("-h"))) {
        out << "Usage: mossly-link-preview [--check] URL\n\n"
               "Prints the link preview Mossly would show for URL as JSON: url, title, summary, siteName and\n"
               "thumbnailData (base64). Only public http and https addresses are fetched.\n\n"
               "  --check    only resolve the host and apply the public-network policy; fetch nothing\n\n"
               "Exit codes: 0 success, 1 refused or failed (the reason on standard error), 2 usage error.\n";
        out.flush();
        return 0;
    }
    QStringList rest = arguments;
    const bool check = rest.removeAll(QStringLiteral("--check")) > 0;
    if (rest.size() != 1 || rest.front().startsWith(QStringLiteral("--"))) {
        err << "usage: mossly-link-preview [--check] URL\n";
        return usageError;
    }
    const QString url = rest.front();
    if (check) {
        auto validated = tools.policy->validate(url);
        if (!validated) {
            err << validated.error().description() << '\n';
            return failure;
        }
        QStringList addresses;
        for (const WebLinkIPAddress& address : validated->addresses) addresses.append(jsonString(address.toString()));
        out << JsonObjectWriter().add(QStringLiteral("allowed"), true).addRaw(QStringLiteral("addresses"), jsonArray(addresses)).text()
            << '\n';
        return 0;
    }
    auto metadata = tools.service->fetch(url);
    if (!metadata) {
        err << metadata.error().description() << '\n';
        return failure;
    }
    out << metadataJson(*metadata) << '\n';
    return 0;
}

}  // namespace mossly
