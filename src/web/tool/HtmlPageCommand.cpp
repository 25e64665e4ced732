#include "HtmlPageCommand.h"

#include <QFileInfo>
#include <QUrl>
#include <optional>

#include "HTMLRenderPolicy.h"
#include "JsonWriter.h"

namespace mossly {

namespace {

constexpr int failure = 1;
constexpr int usageError = 2;

struct Options {
    QString notePath;
    bool fragment = false;
    bool json = false;
};

std::optional<Options> parseOptions(const QStringList& arguments) {
    Options options;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments.at(i);
        if (argument == u"--fragment") {
            options.fragment = true;
        } else if (argument == u"--json") {
            options.json = true;
        } else if (argument == u"--note" && i + 1 < arguments.size() && !arguments.at(i + 1).isEmpty()) {
            options.notePath = arguments.at(++i);
        } else {
            return std::nullopt;
        }
    }
    return options;
}

QString resultJson(const HTMLRenderResult& result) {
    JsonObjectWriter attributes;
    for (auto it = result.bodyAttributes.cbegin(); it != result.bodyAttributes.cend(); ++it)
        attributes.add(it.key(), it.value());
    return JsonObjectWriter()
        .add(QStringLiteral("html"), result.html)
        .add(QStringLiteral("headHTML"), result.headHTML)
        .add(QStringLiteral("bodyHTML"), result.bodyHTML)
        .addRaw(QStringLiteral("bodyAttributes"), attributes.text())
        .add(QStringLiteral("styleSheet"), result.styleSheet)
        .add(QStringLiteral("blockedElements"), qint64(result.blockedElements))
        .text();
}

}  // namespace

int runHtmlPage(const QStringList& arguments, QIODevice& in, QTextStream& out, QTextStream& err) {
    if (arguments.contains(QStringLiteral("--help")) || arguments.contains(QStringLiteral("-h"))) {
        out << "Usage: mossly-html-page [--note FILE] [--fragment] [--json] < page.html\n\n"
               "Reads HTML on standard input and writes the page Mossly would display: scripts, frames, forms,\n"
               "event handlers and remote references removed, a strict Content-Security-Policy added.\n\n"
               "  --note FILE   where the note lies; only files in its folder may be shown (else none)\n"
               "  --fragment    write only the cleaned fragment, not the whole page\n"
               "  --json        write html, headHTML, bodyHTML, bodyAttributes, styleSheet, blockedElements\n\n"
               "Exit codes: 0 written, 1 standard input could not be read, 2 usage error.\n";
        out.flush();
        return 0;
    }
    const auto options = parseOptions(arguments);
    if (!options) {
        err << "usage: mossly-html-page [--note FILE] [--fragment] [--json] < page.html\n";
        return usageError;
    }
    if (!in.isReadable()) {
        err << "Cannot read the HTML from standard input: " << in.errorString() << '\n';
        return failure;
    }
    const QString source = QString::fromUtf8(in.readAll());
    const QUrl noteURL = options->notePath.isEmpty()
                             ? QUrl()
                             : QUrl::fromLocalFile(QFileInfo(options->notePath).absoluteFilePath());
    if (options->fragment && !options->json) {
        out << HTMLRenderPolicy::prepareFragment(source, noteURL) << '\n';
        return 0;
    }
    const QString page = options->fragment
                             ? QStringLiteral("<html><body>") + source + QStringLiteral("</body></html>")
                             : source;
    const HTMLRenderResult result = HTMLRenderPolicy::prepare(page, noteURL);
    out << (options->json ? resultJson(result) : result.html) << '\n';
    return 0;
}

}  // namespace mossly
