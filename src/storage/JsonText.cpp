#include "JsonText.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace mossly::JsonText {

QString stringLiteral(const QString& value) {
    QString out;
    out.reserve(value.size() + 2);
    out += u'"';
    for (const QChar c : value) {
        switch (c.unicode()) {
            case u'"': out += QStringLiteral("\\\""); break;
            case u'\\': out += QStringLiteral("\\\\"); break;
            case u'/': out += QStringLiteral("\\/"); break;
            case u'\b': out += QStringLiteral("\\b"); break;
            case u'\f': out += QStringLiteral("\\f"); break;
            case u'\n': out += QStringLiteral("\\n"); break;
            case u'\r': out += QStringLiteral("\\r"); break;
            case u'\t': out += QStringLiteral("\\t"); break;
            default:
                if (c.unicode() < 0x20) {
                    out += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
                } else {
                    out += c;
                }
        }
    }
    out += u'"';
    return out;
}

QString stringArray(const QStringList& values) {
    QString out = QStringLiteral("[");
    for (qsizetype i = 0; i < values.size(); ++i) {
        if (i > 0) out += u',';
        out += stringLiteral(values[i]);
    }
    out += u']';
    return out;
}

std::optional<QString> decodeStringLiteral(const QString& literal) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson((u'[' + literal + u']').toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !document.isArray()) return std::nullopt;
    const QJsonArray array = document.array();
    if (array.size() != 1 || !array.first().isString()) return std::nullopt;
    return array.first().toString();
}

}  // namespace mossly::JsonText
