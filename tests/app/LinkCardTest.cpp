#include <gtest/gtest.h>

#include <QAbstractTextDocumentLayout>
#include <QBuffer>
#include <QDesktopServices>
#include <QImage>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBlock>
#include <atomic>

#include "AppTestSupport.h"
#include "LinkPreviews.h"
#include "MarkdownTextView.h"

namespace mossly {
namespace {

// A web that answers every page with a card's worth of metadata, and counts.
class CannedWeb : public WebLinkLoading {
public:
    mutable std::atomic<int> loads{0};
    WebLinkResult<WebLinkHTTPResponse> load(const QString& url, const WebLinkLoadLimits& limits) const override {
        ++loads;
        if (limits.acceptedMIMETypes.contains(QStringLiteral("image/png"))) {
            QImage image(120, 80, QImage::Format_RGB32);
            image.fill(QColor(80, 140, 90));
            QByteArray png;
            QBuffer buffer(&png);
            image.save(&buffer, "PNG");
            return WebLinkHTTPResponse{png, url, QStringLiteral("image/png"), 200};
        }
        return WebLinkHTTPResponse{R"(<title>Tide tables for the north coast</title>
            <meta name="description" content="High and low water for every harbour, a week ahead.">
            <meta property="og:site_name" content="Harbour Office"><meta property="og:image" content="/tide.png">)",
                                   url, QStringLiteral("text/html"), 200};
    }
};

class PublicResolver : public WebLinkHostResolving {
public:
    std::vector<WebLinkIPAddress> addresses(const QString&) const override {
        return {*WebLinkIPAddress::fromText(QStringLiteral("93.184.216.34"))};
    }
};

// Stands in for the browser.
class UrlCatcher : public QObject {
    Q_OBJECT
public:
    QString opened;
public slots:
    void open(const QUrl& url) { opened = url.toString(); }
};

class LinkCardTest : public ::testing::Test {
protected:
    QTemporaryDir cache;
    std::shared_ptr<CannedWeb> web = std::make_shared<CannedWeb>();
    std::unique_ptr<LinkPreviews> previews;
    MarkdownTextView view;
    const QString text = QStringLiteral("# Trip\n\nWhen to sail:\n[Tides](https://harbour.test/tides)\nPack the charts.");

    void SetUp() override {
        WebLinkMetadataService::Options options;
        options.cacheDirectory = cache.path();
        auto policy = std::make_shared<WebLinkPublicNetworkPolicy>(std::make_shared<PublicResolver>());
        previews = std::make_unique<LinkPreviews>(std::make_shared<WebLinkMetadataService>(policy, web, options));
        previews->setEnabled(true);
        view.resize(700, 500);
        view.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    }
    QTextBlock linkBlock() const { return view.document()->findBlockByNumber(3); }
};

TEST_F(LinkCardTest, ALoneLinkGetsACardAboveItsLineWithoutChangingTheText) {
    view.setLinkPreviews(previews.get());
    view.setMarkdown(text, {});
    EXPECT_GT(linkBlock().blockFormat().topMargin(), 40) << "no room was made for the card";
    EXPECT_EQ(view.document()->findBlockByNumber(2).blockFormat().topMargin(), 0);
    QImage before = view.viewport()->grab().toImage();
    ASSERT_TRUE(test::waitUntil([&] { return previews->metadata(QStringLiteral("https://harbour.test/tides")).has_value(); }));
    test::spin(50);
    const QImage after = view.viewport()->grab().toImage();
    EXPECT_NE(before, after) << "the card did not change when its preview arrived";
    EXPECT_EQ(view.markdown(), text);
    if (const QByteArray dir = qgetenv("MOSSLY_SCREENSHOTS"); !dir.isEmpty()) after.save(QString::fromUtf8(dir) + "/link-card.png");

    // Clicking the card opens the page in the browser.
    UrlCatcher catcher;
    QDesktopServices::setUrlHandler(QStringLiteral("https"), &catcher, "open");
    const QPoint inCard(60, static_cast<int>(linkBlock().layout()->position().y() - linkBlock().blockFormat().topMargin()) + 20);
    QTest::mouseClick(view.viewport(), Qt::LeftButton, {}, inCard);
    QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
    EXPECT_EQ(catcher.opened, QStringLiteral("https://harbour.test/tides"));
}

TEST_F(LinkCardTest, PreviewsSwitchedOffMakeNoRequestAndNoRoom) {
    previews->setEnabled(false);
    view.setLinkPreviews(previews.get());
    view.setMarkdown(text, {});
    test::spin(200);
    EXPECT_EQ(linkBlock().blockFormat().topMargin(), 0);
    EXPECT_EQ(web->loads.load(), 0);
    EXPECT_FALSE(QSettings().value(QStringLiteral("editor.linkPreviews")).toBool());
    previews->setEnabled(true);  // and back: the room comes back with the preference
    EXPECT_GT(linkBlock().blockFormat().topMargin(), 40);
}

}  // namespace
}  // namespace mossly

#include "LinkCardTest.moc"
