#include <gtest/gtest.h>

#include <QBuffer>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include "HTMLRenderPolicy.h"
#include "HtmlPageCommand.h"
#include "QtPrinting.h"

namespace mossly {
namespace {

using namespace Qt::StringLiterals;

struct CommandRun {
    int exitCode;
    QString out;
    QString err;
};

CommandRun run(const QStringList& arguments, const QByteArray& input) {
    QByteArray bytes = input;
    QBuffer in(&bytes);
    in.open(QIODevice::ReadOnly);
    QString out, err;
    QTextStream outStream(&out), errStream(&err);
    const int code = runHtmlPage(arguments, in, outStream, errStream);
    outStream.flush();
    errStream.flush();
    return {code, out, err};
}

TEST(HtmlPageCommand, WritesThePreparedPageOrFragment) {
    const QByteArray page = "<p onclick=x>Hi<script>x</script></p>";
    const CommandRun full = run({}, page);
    EXPECT_EQ(full.exitCode, 0);
    EXPECT_EQ(full.out, HTMLRenderPolicy::prepare(QString::fromUtf8(page)).html + u'\n');
    EXPECT_EQ(full.err, u"");
    EXPECT_EQ(run({u"--fragment"_s}, page).out, u"<p>Hi</p>\n");
    // Bytes that are not UTF-8 are read as replacement characters.
    EXPECT_EQ(run({u"--fragment"_s}, "<b>\xff</b>").out, u"<b>\uFFFD</b>\n");
}

TEST(HtmlPageCommand, JsonHoldsEveryField) {
    const CommandRun result = run({u"--json"_s, u"--fragment"_s}, "<p onclick=x>Hi</p>");
    ASSERT_EQ(result.exitCode, 0);
    const QJsonObject json = QJsonDocument::fromJson(result.out.toUtf8()).object();
    EXPECT_EQ(json.keys(), (QStringList{u"blockedElements"_s, u"bodyAttributes"_s, u"bodyHTML"_s,
                                        u"headHTML"_s, u"html"_s, u"styleSheet"_s}));
    EXPECT_EQ(json[u"bodyHTML"_s].toString(), u"<p>Hi</p>");
    EXPECT_EQ(json[u"blockedElements"_s].toInt(), 1);
    EXPECT_EQ(json[u"styleSheet"_s].toString(), HTMLRenderPolicy::styleSheet());
    const QJsonObject attributes =
        QJsonDocument::fromJson(run({u"--json"_s}, "<body class=c>").out.toUtf8()).object();
    EXPECT_EQ(attributes[u"bodyAttributes"_s].toObject()[u"class"_s].toString(), u"c");
}

TEST(HtmlPageCommand, NoteLocationRelativeToTheCurrentFolderLetsLocalFilesStay) {
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(folder.path()));
    const QByteArray image = "<img src=\"pic.png\">";
    const CommandRun withNote = run({u"--fragment"_s, u"--note"_s, u"note.html"_s}, image);
    const CommandRun withoutNote = run({u"--fragment"_s}, image);
    QDir::setCurrent(previous);
    EXPECT_EQ(withNote.out, u"<img src=\"pic.png\">\n");
    EXPECT_EQ(withoutNote.out, u"<img>\n");
}

TEST(HtmlPageCommand, BadUsageExitsWithTwo) {
    for (const QStringList& arguments : {QStringList{u"--note"_s}, QStringList{u"--bogus"_s},
                                         QStringList{u"page.html"_s}, QStringList{u"--note"_s, u""_s}}) {
        const CommandRun result = run(arguments, "<p>x</p>");
        EXPECT_EQ(result.exitCode, 2) << qPrintable(arguments.join(u' '));
        EXPECT_EQ(result.out, u"");
        EXPECT_EQ(result.err, u"usage: mossly-html-page [--note FILE] [--fragment] [--json] < page.html\n");
    }
}

TEST(HtmlPageCommand, UnreadableInputExitsWithOne) {
    QBuffer closed;
    QString out, err;
    QTextStream outStream(&out), errStream(&err);
    EXPECT_EQ(runHtmlPage({}, closed, outStream, errStream), 1);
    errStream.flush();
    EXPECT_TRUE(err.startsWith(u"Cannot read the HTML from standard input: ")) << qPrintable(err);
    EXPECT_EQ(out, u"");
}

}  // namespace
}  // namespace mossly
