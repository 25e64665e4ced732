#include <gtest/gtest.h>

#include "HtmlBodyEditing.h"

namespace mossly {
namespace {

TEST(HtmlBodyEditing, OnlyTheBodysContentChanges) {
    const QString source = QStringLiteral(
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta http-equiv=\"refresh\" content=\"5\"><title>T</title></head>\n"
        "<BODY class=\"paper\" data-x='1'>\n<p>old</p>\n</BODY>\n<!-- after -->\n</html>\n");
    const auto edited = replacingBodyContent(source, QStringLiteral("<p>new — é</p>"));
    ASSERT_TRUE(edited);
    EXPECT_EQ(*edited, QStringLiteral(
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta http-equiv=\"refresh\" content=\"5\"><title>T</title></head>\n"
        "<BODY class=\"paper\" data-x='1'><p>new — é</p></BODY>\n<!-- after -->\n</html>\n"));
}

TEST(HtmlBodyEditing, AFragmentBecomesTheEditedBodyAndAnythingElseWithoutBodyTagsIsLeftAlone) {
    EXPECT_EQ(replacingBodyContent(QStringLiteral("<p>one</p><p>two</p>"), QStringLiteral("<p>three</p>")),
              QStringLiteral("<p>three</p>"));
    // A head without body tags: which text is "the body" is not clear, so no visual edit.
    EXPECT_FALSE(replacingBodyContent(QStringLiteral("<title>T</title><p>one</p>"), QStringLiteral("x")));
    EXPECT_FALSE(replacingBodyContent(QStringLiteral("<!doctype html><p>one</p>"), QStringLiteral("x")));
    EXPECT_FALSE(replacingBodyContent(QStringLiteral("<html><body><p>unclosed"), QStringLiteral("x")));
}

}  // namespace
}  // namespace mossly
