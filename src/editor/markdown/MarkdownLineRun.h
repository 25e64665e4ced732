#pragma once

#include <QHash>
#include <QString>

#include "MarkdownBlocks.h"
#include "MarkdownStyle.h"

// The styled pass over a run of whole lines cut out of a note, for the incremental
// styler. A run that starts below the title is styled as body text, and what a run
// cannot see (footnote and link definitions elsewhere) comes from the whole note.
namespace mossly::markdown {

struct LineRunContext {
    bool startsAtTitle = true;
    // The note's footnotes, which the run's references resolve to.
    const FootnoteContext* footnotes = nullptr;
    // normalised label -> destination; set when the run holds no link definition.
    const QHash<QString, QString>* linkDefinitions = nullptr;
};

struct StyledLineRun {
    StylePass pass;
    QHash<QString, QString> linkDefinitions;  // the ones the run defines, first of each label
};

// `text` must be valid UTF-16 (see withValidUtf16).
StyledLineRun styleLineRun(const QString& text, double baseSize, const QString& noteDirectory,
                           const QString& noteFilePath, const LineRunContext& context);

}  // namespace mossly::markdown
