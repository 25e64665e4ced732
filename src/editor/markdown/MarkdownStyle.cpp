#include "MarkdownStyle.h"

#include <algorithm>

namespace mossly::markdown {

namespace {

template <typename T>
void overrideWith(std::optional<T>& earlier, const std::optional<T>& later) {
    if (later) earlier = later;
}

}  // namespace

bool ParagraphAttributes::empty() const {
    return !firstLineIndent && !headIndent && !lineSpacing && !paragraphSpacing && !minimumLineHeight &&
           !alignment;
}

void StyleAttributes::mergeFrom(const StyleAttributes& later) {
    hidden = hidden || later.hidden;
    hideParagraph = hideParagraph || later.hideParagraph;
    bold = bold || later.bold;
    italic = italic || later.italic;
    strikethrough = strikethrough || later.strikethrough;
    overrideWith(font, later.font);
    overrideWith(pointSize, later.pointSize);
    overrideWith(colour, later.colour);
    overrideWith(background, later.background);
    overrideWith(baselineOffset, later.baselineOffset);
    overrideWith(link, later.link);
    overrideWith(paragraph.firstLineIndent, later.paragraph.firstLineIndent);
    overrideWith(paragraph.headIndent, later.paragraph.headIndent);
    overrideWith(paragraph.lineSpacing, later.paragraph.lineSpacing);
    overrideWith(paragraph.paragraphSpacing, later.paragraph.paragraphSpacing);
    overrideWith(paragraph.minimumLineHeight, later.paragraph.minimumLineHeight);
    overrideWith(paragraph.alignment, later.paragraph.alignment);
}

StyleAttributes StylePass::attributesAt(int position) const {
    const auto it = std::upper_bound(runs.begin(), runs.end(), position,
                                     [](int value, const StyleRun& run) { return value < run.start; });
    if (it == runs.begin()) return {};
    const StyleRun& run = *std::prev(it);
    return position < run.end() ? run.attributes : StyleAttributes{};
}

}  // namespace mossly::markdown
