// Measures HTML note preparation on generated saved web pages of 1 MB and 10 MB:
// the first preparation, and the cached one (same text, and an equal copy).
// Usage: html_benchmark [WORKDIR]. Prints a Markdown report on stdout.

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTextStream>
#include <algorithm>
#include <functional>

#include "HTMLRenderCache.h"
#include "HTMLRenderPolicy.h"
#include "HtmlParsing.h"

using namespace mossly;

namespace {

double milliseconds(const std::function<void()>& work) {
    QElapsedTimer timer;
    timer.start();
    work();
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

double median(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

// A page as a browser saves it: styles, scripts, trackers, remote and local
// images, inline SVG icons, tables and comments.
QString savedWebPage(qsizetype bytes) {
    QString page = QStringLiteral(
        "<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>Saved page</title>"
        "<meta http-equiv=\"refresh\" content=\"300\"><link rel=\"stylesheet\" "
        "href=\"https://cdn.example.com/site.css\">"
        "<style>body{font-family:Georgia,serif}.post>h2{margin:0}.post img{border:1px solid #ccc}</style>"
        "<style>@import url(https://fonts.example.com/css);</style>"
        "<script src=\"https://cdn.example.com/app.js\"></script></head><body class=\"page\" "
        "onload=\"init()\">");
    for (int n = 0; page.size() < bytes; ++n) {
        const QString i = QString::number(n);
        page += QStringLiteral(
                    "<article class=\"post\" id=\"p%1\"><h2><a href=\"https://example.com/posts/%1\">Post "
                    "number %1</a>"
                    "</h2><p style=\"color:#333;background:url(images/bg.png)\">Lorem ipsum dolor sit amet, "
                    "&amp; "
                    "consectetur <b>adipiscing</b> elit, sed do <i>eiusmod</i> tempor&nbsp;incididunt ut "
                    "labore et dolore "
                    "magna aliqua. <a href=\"post%1.html\" onclick=\"track(%1)\">Read more</a> or "
                    "<a href=\"javascript:share(%1)\">share</a>.</p>"
                    "<img src=\"images/%1.png\" srcset=\"images/%1.png 1x, https://cdn.example.com/%1@2x.png "
                    "2x\" "
                    "alt=\"Figure %1\"><img src=\"https://cdn.example.com/%1.jpg\" width=\"640\">"
                    "<svg viewBox=\"0 0 24 24\" width=\"24\"><path d=\"M12 2L2 7l10 5 10-5-10-5z\"/></svg>"
                    "<script>window.dataLayer.push({post: %1});</script><!-- ad slot %1 -->"
                    "<table><tr><th>Key</th><th>Value</th></tr><tr><td>id</td><td>%1</td></tr></table>"
                    "<iframe src=\"https://ads.example.com/%1\"></iframe></article>\n")
                    .arg(i);
    }
    return page + QStringLiteral("</body></html>");
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    QTemporaryDir scratch;
    const QString work = argc > 1 ? QString::fromLocal8Bit(argv[1]) : scratch.path();
    const QUrl noteURL = QUrl::fromLocalFile(work + QStringLiteral("/Saved page.html"));

    out << "| page | first preparation (median) | per MB | of which parsing | cached, same text | cached, "
           "equal copy | "
           "removed |\n"
        << "|---|---|---|---|---|---|---|\n";
    for (const qsizetype megabytes : {1, 10}) {
        const QString page = savedWebPage(megabytes * 1024 * 1024);
        const double mb = static_cast<double>(page.toUtf8().size()) / (1024.0 * 1024.0);
        std::vector<double> first;
        int removed = 0;
        for (int run = 0; run < (megabytes == 1 ? 9 : 5); ++run)
            first.push_back(
                milliseconds([&] { removed = HTMLRenderPolicy::prepare(page, noteURL).blockedElements; }));
        std::vector<double> parsing;
        const QByteArray utf8 = page.toUtf8();
        for (int run = 0; run < 5; ++run)
            parsing.push_back(milliseconds([&] { html::ParsedHtml parsed(utf8); }));
        HTMLRenderCache cache;
        cache.prepare(page, noteURL);
        const QString copy(page.constData(), page.size());
        std::vector<double> same, equal;
        for (int run = 0; run < 1001; ++run)
            same.push_back(milliseconds([&] { cache.prepare(page, noteURL); }));
        for (int run = 0; run < 11; ++run)
            equal.push_back(milliseconds([&] { cache.prepare(copy, noteURL); }));
        out << QStringLiteral("| %1 MB | %2 ms | %3 ms | %4 ms | %5 ms | %6 ms | %7 |\n")
                   .arg(mb, 0, 'f', 2)
                   .arg(median(first), 0, 'f', 1)
                   .arg(median(first) / mb, 0, 'f', 1)
                   .arg(median(parsing), 0, 'f', 1)
                   .arg(median(same), 0, 'f', 4)
                   .arg(median(equal), 0, 'f', 2)
                   .arg(removed);
        out.flush();
    }
    return 0;
}
