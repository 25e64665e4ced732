#include "HtmlSourceHighlighter.h"

#include <QColor>
#include <QRegularExpression>

namespace mossly {

namespace {

enum State { inText = -1, inComment = 1 };

QTextCharFormat coloured(const QColor& colour) {
    QTextCharFormat format;
    format.setForeground(colour);
    return format;
}

}  // namespace

HtmlSourceHighlighter::HtmlSourceHighlighter(QTextDocument* document) : QSyntaxHighlighter(document) {}

void HtmlSourceHighlighter::highlightBlock(const QString& text) {
    // Inside a tag (on this line): its name, attribute names and quoted values.
    static const QRegularExpression tag(QStringLiteral("<(/?[A-Za-z][^\\s/>]*)([^<>]*)(/?>)?"));
    static const QRegularExpression attribute(QStringLiteral("([A-Za-z_:][-\\w:.]*)\\s*(=\\s*(\"[^\"]*\"?|'[^']*'?|[^\\s>]+))?"));
    static const QTextCharFormat tagFormat = coloured(QColor(0x8e, 0x44, 0xad));
    static const QTextCharFormat attributeFormat = coloured(QColor(0xc8, 0x5a, 0x00));
    static const QTextCharFormat valueFormat = coloured(QColor(0x00, 0x6e, 0xe6));
    static const QTextCharFormat commentFormat = coloured(QColor(0x80, 0x80, 0x80));

    for (auto it = tag.globalMatch(text); it.hasNext();) {
        const auto match = it.next();
        setFormat(static_cast<int>(match.capturedStart()), static_cast<int>(match.capturedLength(1)) + 1, tagFormat);
        if (match.capturedLength(3) > 0) {
            setFormat(static_cast<int>(match.capturedStart(3)), static_cast<int>(match.capturedLength(3)), tagFormat);
        }
        const QString inside = match.captured(2);
        const auto offset = static_cast<int>(match.capturedStart(2));
        for (auto attributes = attribute.globalMatch(inside); attributes.hasNext();) {
            const auto found = attributes.next();
            setFormat(offset + static_cast<int>(found.capturedStart(1)), static_cast<int>(found.capturedLength(1)),
                      attributeFormat);
            if (found.capturedLength(3) > 0) {
                setFormat(offset + static_cast<int>(found.capturedStart(3)), static_cast<int>(found.capturedLength(3)),
                          valueFormat);
            }
        }
    }
    // Comments may span lines: the block state carries an open comment to the next line.
    setCurrentBlockState(inText);
    qsizetype start = previousBlockState() == inComment ? 0 : text.indexOf(QStringLiteral("<!--"));
    while (start >= 0) {
        const qsizetype end = text.indexOf(QStringLiteral("-->"), start);
        const qsizetype length = end < 0 ? text.size() - start : end - start + 3;
        setFormat(static_cast<int>(start), static_cast<int>(length), commentFormat);
        if (end < 0) {
            setCurrentBlockState(inComment);
            break;
        }
        start = text.indexOf(QStringLiteral("<!--"), start + length);
    }
}

}  // namespace mossly
