#include <gtest/gtest.h>

#include <QAbstractTextDocumentLayout>
#include <QBuffer>
#include <QDesktopServices>
#include <QImage>
#include <QSettings>
#include <QSignalSpy>
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
    std::atomic<bool> offline{false};
    std::atomic<int> edition{1};
    WebLinkResult<WebLinkHTTPResponse> load(const QString& url, const WebLinkLoadLimits& limits) const override {
        ++loads;
        if (offline) return webLinkFailure(WebLinkMetadataError::Code::invalidResponse);
        if (limits.acceptedMIMETypes.contains(QStringLiteral("image/png"))) {
            QImage image(120, 80, QImage::Format_RGB32);
            image.fill(QColor(80, 140, 90));
            QByteArray png;
            QBuffer buffer(&png);
            image.save(&buffer, "PNG");
            return WebLinkHTTPResponse{png, url, QStringLiteral("image/png"), 200};
        }
        const QByteArray title = edition == 1 ? "Tide tables for the north coast" : "Tide tables, new season";
        return WebLinkHTTPResponse{"<title>" + title + R"(</title>
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
    // One clock for the previews and the service's disk cache, moved by the tests.
    std::atomic<qint64> clockMs{QDateTime(QDate(2026, 3, 1), QTime(9, 0), Qt::UTC).toMSecsSinceEpoch()};
    LinkPreviews::Clock clock = [this] { return QDateTime::fromMSecsSinceEpoch(clockMs.load(), Qt::UTC); };
    void advance(qint64 seconds) { clockMs += seconds * 1000; }

    void SetUp() override {
        WebLinkMetadataService::Options options;
        options.cacheDirectory = cache.path();
        options.now = clock;
        auto policy = std::make_shared<WebLinkPublicNetworkPolicy>(std::make_shared<PublicResolver>());
        previews =
            std::make_unique<LinkPreviews>(std::make_shared<WebLinkMetadataService>(policy, web, options), nullptr, clock);
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

// A link first seen offline is tried again a minute later, then after longer
// and longer waits; once it loads the card is redrawn. A loaded preview is
// fetched again after a day, showing the old one meanwhile.
TEST_F(LinkCardTest, FailedPreviewsAreRetriedWithGrowingWaitsAndLoadedOnesRefreshedDaily) {
    const QString url = QStringLiteral("https://harbour.test/tides");
    QSignalSpy arrived(previews.get(), &LinkPreviews::metadataArrived);
    const auto settle = [&](int loads) {
        test::waitUntil([&] { return previews->metadata(url).has_value() && web->loads.load() >= loads; });
        test::spin(30);
        return previews->metadata(url);
    };
    web->offline = true;
    EXPECT_FALSE(previews->metadata(url));
    EXPECT_FALSE(settle(1)->title) << "offline: the card says the preview is unavailable";
    advance(59);
    EXPECT_FALSE(settle(1)->title);
    EXPECT_EQ(web->loads.load(), 1) << "retried too soon";
    advance(2);
    EXPECT_FALSE(settle(2)->title) << "a minute on, tried again (still offline)";
    advance(61);
    EXPECT_FALSE(settle(2)->title);
    EXPECT_EQ(web->loads.load(), 2) << "the second wait is longer than the first";

    web->offline = false;
    advance(60);
    const int arrivals = static_cast<int>(arrived.size());
    (void)previews->metadata(url);
    ASSERT_TRUE(test::waitUntil([&] { return arrived.size() > arrivals; })) << "the card is not redrawn";
    EXPECT_EQ(previews->metadata(url)->title, QStringLiteral("Tide tables for the north coast"));

    const int loads = web->loads.load();
    web->edition = 2;
    advance(86400 - 10);
    EXPECT_EQ(settle(loads)->title, QStringLiteral("Tide tables for the north coast"));
    EXPECT_EQ(web->loads.load(), loads) << "refreshed before the day was over";
    advance(20);
    EXPECT_EQ(previews->metadata(url)->title, QStringLiteral("Tide tables for the north coast"))
        << "the old preview stays while the new one loads";
    ASSERT_TRUE(test::waitUntil([&] { return previews->metadata(url)->title == QStringLiteral("Tide tables, new season"); }));
}

}  // namespace
}  // namespace mossly

#include "LinkCardTest.moc"
