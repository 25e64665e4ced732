#pragma once

#include <QString>
#include <chrono>

#include "NoteContentType.h"
#include "NoteDocument.h"

namespace mossly {

// A file's modification time with the file system's full precision.
using FileTime = std::chrono::sys_time<std::chrono::nanoseconds>;

// Seconds since 2001-01-01 00:00:00 UTC, the epoch the search catalog stores.
double secondsSinceReferenceDate(FileTime time);
// ISO 8601 in UTC with milliseconds, as shown to agents.
QString isoTimestamp(FileTime time);

// A note as read from disk.
struct StoredNote {
    QString identifier;  // "Projects/Plan.md": path below the notes folder
    QString url;         // absolute file path
    QString persistedContent;
    NoteDocument document;
    NoteContentType contentType;
    FileTime modifiedAt;
};

// A cheap listing entry.
struct NoteFileMetadata {
    QString identifier;
    NoteContentType contentType;
    FileTime modifiedAt;
    qint64 fileSize;

    bool operator==(const NoteFileMetadata&) const = default;
};

}  // namespace mossly
