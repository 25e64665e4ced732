#pragma once

#include <QHash>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <optional>

namespace mossly {

// Judges the URLs an HTML note refers to. Values are read the way a browser
// reads them: leading and trailing C0 controls and spaces are ignored, tabs and
// line breaks anywhere, and schemes in any case. One instance serves one
// preparation (it remembers resolved folders); not thread-safe.
class HTMLReferencePolicy {
  public:
    // `noteURL`: the note's file URL; empty when the note has no location, and
    // then every file reference is blocked, as nothing lies inside its folder.
    explicit HTMLReferencePolicy(const QUrl& noteURL);

    // Script that would run when the URL is opened or loaded: "javascript:",
    // "vbscript:", and data URLs of HTML or XML documents; SVG documents too
    // when `navigates` (a link or a form target rather than an image).
    static bool runsScript(const QString& value, bool navigates);

    // A remote load (http, https, ftp, ws, wss), a file outside the note's
    // folder after "..", percent-escapes and symbolic links are resolved, or a
    // file on another host.
    bool isBlocked(const QString& reference) const;

    // The URLs of a srcset value: candidates are separated by commas, each URL
    // ends at white space (data URLs keep their commas).
    static QStringList srcsetURLs(const QString& srcset);

    // The folder references must stay in, resolved; empty when there is none.
    const QString& folder() const { return folder_; }

  private:
    std::optional<QString> filePath(const QString& reference) const;
    bool isInsideFolder(const QString& path) const;
    QString resolved(const QString& cleanPath) const;

    QString noteFolder_;  // as the note's URL names it
    QString folder_;      // the same, symbolic links resolved
    mutable QHash<QString, QString> resolvedPaths_;
};

// What a browser makes of a URL attribute before parsing it.
QString browserURLText(const QString& value);

}  // namespace mossly
