#include "HTMLRenderCache.h"

#include <openssl/evp.h>

#include <QDir>
#include <QFileInfo>
#include <QMutexLocker>
#include <QtEndian>
#include <cstdlib>
#include <memory>

#include "HTMLRenderPolicy.h"

namespace mossly {

namespace {

// The folder relative references resolve against; a marker when there is none,
// so that no folder path can collide with it.
QString folderKey(const QUrl& noteURL) {
    if (noteURL.isEmpty()) return QStringLiteral("none:");
    if (!noteURL.isLocalFile())
        return QStringLiteral("url:") + noteURL.adjusted(QUrl::RemoveFilename).toString();
    return QStringLiteral("file:") + noteURL.host() + u'|' +
           QDir::cleanPath(QFileInfo(noteURL.toLocalFile()).absolutePath());
}

// OpenSSL's SHA-256 uses the processor's SHA instructions: several times
// faster than QCryptographicHash on the megabytes of a saved web page.
class Sha256 {
  public:
    Sha256() : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
        if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) std::abort();
    }
    void addLengthPrefixed(const void* data, qsizetype bytes) {
        const quint64 length = qToLittleEndian(static_cast<quint64>(bytes));
        add(&length, sizeof length);
        add(data, static_cast<size_t>(bytes));
    }
    QString hex() {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (EVP_DigestFinal_ex(context_.get(), digest, &length) != 1) std::abort();
        return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(digest), length).toHex());
    }

  private:
    // Fails only when the library cannot allocate a few bytes.
    void add(const void* data, size_t bytes) {
        if (EVP_DigestUpdate(context_.get(), data, bytes) != 1) std::abort();
    }
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_;
};

QString keyFor(const QString& source, const QString& folder) {
    Sha256 hash;
    hash.addLengthPrefixed(source.constData(), source.size() * qsizetype(sizeof(QChar)));
    hash.addLengthPrefixed(folder.constData(), folder.size() * qsizetype(sizeof(QChar)));
    return hash.hex();
}

qsizetype costOf(const HTMLRenderResult& result, const QString& source) {
    qsizetype chars = result.html.size() + result.headHTML.size() + result.bodyHTML.size() + source.size();
    for (auto it = result.bodyAttributes.cbegin(); it != result.bodyAttributes.cend(); ++it)
        chars += it.key().size() + it.value().size();
    return chars * qsizetype(sizeof(QChar));
}

}  // namespace

HTMLRenderCache::HTMLRenderCache(qsizetype maxBytes) : entries_(maxBytes) {}

HTMLRenderCache& HTMLRenderCache::shared() {
    static HTMLRenderCache cache;
    return cache;
}

QString HTMLRenderCache::cacheKey(const QString& source, const QUrl& noteURL) {
    return keyFor(source, folderKey(noteURL));
}

// While an entry holds a copy of the text, the buffer cannot change (Qt copies
// on write) nor be freed and reused, so the same address means the same text.
const HTMLRenderCache::Entry* HTMLRenderCache::entryForBuffer(const QString& source,
                                                              const QString& folder) const {
    const auto key = keysByBuffer_.constFind(source.constData());
    if (key == keysByBuffer_.cend()) return nullptr;
    const Entry* entry = entries_.object(*key);
    if (!entry || entry->source.constData() != source.constData() || entry->source.size() != source.size() ||
        entry->folder != folder)
        return nullptr;
    return entry;
}

HTMLRenderResult HTMLRenderCache::prepare(const QString& source, const QUrl& noteURL) {
    const QString folder = folderKey(noteURL);
    {
        QMutexLocker lock(&mutex_);
        if (const Entry* entry = entryForBuffer(source, folder)) return entry->result;
    }
    const QString key = keyFor(source, folder);
    {
        QMutexLocker lock(&mutex_);
        if (const Entry* entry = entries_.object(key)) return entry->result;
    }
    HTMLRenderResult result = HTMLRenderPolicy::prepare(source, noteURL);
    QMutexLocker lock(&mutex_);
    const qsizetype cost = costOf(result, source);
    if (entries_.insert(key, new Entry{result, source, folder}, cost) && !source.isEmpty()) {
        if (keysByBuffer_.size() > 2 * entries_.size() + 16)
            keysByBuffer_.clear();  // drop evicted entries' addresses
        keysByBuffer_.insert(source.constData(), key);
    }
    return result;
}

qsizetype HTMLRenderCache::count() const {
    QMutexLocker lock(&mutex_);
    return entries_.size();
}

void HTMLRenderCache::clear() {
    QMutexLocker lock(&mutex_);
    entries_.clear();
    keysByBuffer_.clear();
}

}  // namespace mossly
