#include "NoteLink.h"

#include <QUrl>

#include "NotePathPolicy.h"

namespace mossly::NoteLink {

namespace {
const QString scheme = QStringLiteral("mossly");
}

bool isNoteLink(const QString& text) {
    return text.startsWith(scheme + u':', Qt::CaseInsensitive);
}

Result<QString> identifier(const QString& link) {
    const QUrl url(link, QUrl::StrictMode);
    const auto notALink = [&link] {
        return fail(
            Error::invalidArgument(u'\u201C' + link + QStringLiteral("\u201D is not a link to a note.")));
    };
    if (!url.isValid() || url.scheme() != scheme || url.host() != u"note" || url.port() != -1 ||
        !url.userInfo().isEmpty() || url.hasQuery() || url.hasFragment() || !url.path().startsWith(u'/')) {
        return notALink();
    }
    return NotePathPolicy().validated(url.path(QUrl::FullyDecoded).mid(1));
}

}  // namespace mossly::NoteLink
