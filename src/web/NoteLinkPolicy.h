#pragma once

#include <QString>
#include <QUrl>
#include <expected>
#include <variant>

namespace mossly {

// A link clicked in a note. Notes are often saved web pages, so a link may
// point at anything the page's author chose: a script, an executable, a
// launcher file. Nothing local is ever handed to the desktop to open; the most
// a link to a file can do is show the folder it lies in.
struct OpenNoteLink {
    QString path;  // a note file: opened in the app
};
struct OpenWebLink {
    QUrl url;  // http, https or mailto: the browser or mail program
};
struct ShowFolderLink {
    QUrl folder;  // the folder holding a local file that is not a note (a folder cannot run)
};
using NoteLinkAction = std::variant<OpenNoteLink, OpenWebLink, ShowFolderLink>;

class NoteLinkRefusal {
public:
    enum class Code {
        unsupportedScheme,   // neither a web link nor a local file
        outsideNotesFolder,  // a file outside the notes folder, or a relative path with nothing to resolve it against
        missingFile,
    };

    NoteLinkRefusal(Code code) : code_(code) {}  // NOLINT: a code is a refusal
    Code code() const { return code_; }
    QString description() const;
    bool operator==(const NoteLinkRefusal&) const = default;

private:
    Code code_;
};

// What following `url` from a note does. `notesFolder`: the library's folder;
// a local file that is not a note is shown only when it lies inside it after
// symbolic links are resolved. Reads the file system (a few stats); GUI-free.
std::expected<NoteLinkAction, NoteLinkRefusal> noteLinkAction(const QUrl& url, const QString& notesFolder);

}  // namespace mossly
