#pragma once

#include "GranolaNote.h"
#include "NoteDocument.h"

namespace mossly {

// A Granola meeting as a Mossly meeting note: the same summary and transcript
// blocks (with their markers) and `meeting-` front matter as the recorder's
// own notes, so imported meetings read, search and summarise alike.
struct RenderedGranolaNote {
    QString title;
    QString body;
    NoteFrontMatterFields fields;
};

RenderedGranolaNote renderGranolaNote(const GranolaNote& note);

}  // namespace mossly
