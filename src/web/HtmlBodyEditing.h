#pragma once

#include <QString>
#include <optional>

namespace mossly {

// Puts a body edited in the page back into the note's own text: only what lies
// between the source's <body …> and </body> tags is replaced, so the author's
// head, doctype, body attributes and everything after the body stay byte for
// byte. A source that is a bare fragment (no html, head or body tags) becomes
// the edited body. Absent when the source has no body tags to replace between
// but is more than a fragment: such a note is edited as source only.
std::optional<QString> replacingBodyContent(const QString& source, const QString& editedBody);

}  // namespace mossly
