#pragma once

#include "NoteStore.h"

namespace mossly {

// Builds the app's Note from a note as read from disk (title and excerpt derived here).
Note noteFromStored(const StoredNote& stored);

}  // namespace mossly
