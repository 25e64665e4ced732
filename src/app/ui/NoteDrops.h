#pragma once

#include <QStringList>
#include <optional>

class QMimeData;

namespace mossly {

// Note files among what is dropped or pasted: local Markdown, HTML and sketch files.
QStringList noteFilesIn(const QMimeData& data);

// An HTML note made from what is pasted: the clipboard's HTML as a page of its
// own, or its text when that is a whole HTML document. Absent when there is none.
std::optional<QString> htmlNoteFrom(const QMimeData& data);

}  // namespace mossly
