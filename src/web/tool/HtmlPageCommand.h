#pragma once

#include <QIODevice>
#include <QStringList>
#include <QTextStream>

namespace mossly {

// `mossly-html-page [--note FILE] [--fragment] [--json]`: reads HTML on
// standard input and writes the page the app would show for it (with
// --fragment, the cleaned fragment; with --json, every field of the result).
// FILE, relative to the current directory or absolute, is where the note lies:
// its folder is where file references may point. Exit codes: 0 written,
// 1 the input could not be read, 2 usage error.
int runHtmlPage(const QStringList& arguments, QIODevice& in, QTextStream& out, QTextStream& err);

}  // namespace mossly
