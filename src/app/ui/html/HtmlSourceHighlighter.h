#pragma once

#include <QSyntaxHighlighter>

namespace mossly {

// Light colouring of HTML source: tags, attribute names, values and comments.
// Colours only; it never changes a character.
class HtmlSourceHighlighter : public QSyntaxHighlighter {
public:
    explicit HtmlSourceHighlighter(QTextDocument* document);

protected:
    void highlightBlock(const QString& text) override;
};

}  // namespace mossly
