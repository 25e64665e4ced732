#pragma once

#include <QString>
#include <QUrl>

#include "HTMLRenderResult.h"

namespace mossly {

// Prepares an HTML note for the web view. The note's markup is never trusted:
// scripts, frames, plugins, forms, remote loads, event handlers, script URLs
// and files outside the note's folder are removed, and the page carries a
// Content-Security-Policy that allows no script and no network at all.
// Preparation never fails: text that cannot be parsed is shown as text.
// Stateless and thread-safe; it reads the file system only to resolve
// symbolic links of referenced files.
class HTMLRenderPolicy {
  public:
    // `noteURL`: the note's file URL, which relative references resolve
    // against; empty when the note has no location (file references are then
    // all blocked).
    static HTMLRenderResult prepare(const QString& source, const QUrl& noteURL = {});
    // The same, showing sources of more than `largestSource` UTF-8 bytes as
    // text (the parser counts positions in 32 bits).
    static HTMLRenderResult prepare(const QString& source, const QUrl& noteURL, qsizetype largestSource);

    // The cleaned body of "<html><body>" + `fragment` + "</body></html>".
    static QString prepareFragment(const QString& fragment, const QUrl& noteURL = {});

    // The page shown for a source that cannot be parsed: the text, escaped, in <pre>.
    static HTMLRenderResult textPage(const QString& source);

    static const QString& policyElement();  // the Content-Security-Policy <meta>
    static const QString& styleSheet();     // the base <style>
};

}  // namespace mossly
