#pragma once

#include <QString>

#include "Error.h"

namespace mossly {

// Decides whether a caller-supplied note identifier ("Projects/Plan.md")
// names a note file inside the notes folder. Every identifier that comes from
// outside the repository passes through here first.
class NotePathPolicy {
public:
    bool accepts(QStringView identifier) const;
    // The identifier unchanged when acceptable, else `invalidIdentifier`.
    Result<QString> validated(const QString& identifier) const;
    // The absolute file path of the identifier inside `directory`; fails unless
    // the cleaned path stays strictly below the cleaned directory.
    Result<QString> url(const QString& identifier, const QString& directory) const;
};

}  // namespace mossly
