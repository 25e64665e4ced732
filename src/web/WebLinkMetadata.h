#pragma once

#include <QByteArray>
#include <QString>
#include <array>
#include <expected>
#include <optional>
#include <variant>

namespace mossly {

// What a link card shows for a web address.
struct WebLinkMetadata {
    QString url;  // the link as written
    std::optional<QString> title;
    std::optional<QString> summary;  // the page's description
    QString siteName;                // never empty: the page's site name, else the host
    std::optional<QByteArray> thumbnailData;

    bool operator==(const WebLinkMetadata&) const = default;
};

// Why a link was not fetched; each case carries the text shown to the user.
class WebLinkMetadataError {
public:
    enum class Code {
        unsafeURL,
        nonPublicAddress,
        redirectLimit,
        invalidResponse,
        unsupportedContentType,
        responseTooLarge,
    };

    WebLinkMetadataError(Code code) : code_(code) {}  // NOLINT: a code is an error
    Code code() const { return code_; }
    QString description() const;
    bool operator==(const WebLinkMetadataError&) const = default;

private:
    Code code_;
};

template <typename T>
using WebLinkResult = std::expected<T, WebLinkMetadataError>;

inline std::unexpected<WebLinkMetadataError> webLinkFailure(WebLinkMetadataError::Code code) {
    return std::unexpected(WebLinkMetadataError(code));
}

// One bounded HTTP response.
struct WebLinkHTTPResponse {
    QByteArray data;
    QString finalURL;  // after redirects
    std::optional<QString> mimeType;
    int statusCode = 0;
};

// An IPv4 or IPv6 address, as bytes in network order.
class WebLinkIPAddress {
public:
    using V4 = std::array<unsigned char, 4>;
    using V6 = std::array<unsigned char, 16>;

    static WebLinkIPAddress v4(V4 bytes) { return WebLinkIPAddress(bytes); }
    static WebLinkIPAddress v6(V6 bytes) { return WebLinkIPAddress(bytes); }
    // "192.0.2.1" or "2001:db8::1" (no brackets, no zone); nothing for anything else.
    static std::optional<WebLinkIPAddress> fromText(const QString& text);

    bool isV4() const { return std::holds_alternative<V4>(bytes_); }
    const V4& v4Bytes() const { return std::get<V4>(bytes_); }
    const V6& v6Bytes() const { return std::get<V6>(bytes_); }
    // Whether the address belongs to the public internet (see the policy for the classes).
    bool isPublic() const;
    QString toString() const;

    bool operator==(const WebLinkIPAddress&) const = default;

private:
    explicit WebLinkIPAddress(std::variant<V4, V6> bytes) : bytes_(bytes) {}
    std::variant<V4, V6> bytes_;
};

}  // namespace mossly
