#include <gtest/gtest.h>

#include "RuntimeLibrary.h"

namespace mossly {
namespace {

TEST(RuntimeLibraryTest, FindsFunctionsInTheLibraryAndInTheLibrariesItLoads) {
    const auto curl = RuntimeLibrary::open(QStringLiteral("libcurl.so.4"), QStringLiteral("libcurl4"));
    ASSERT_TRUE(curl) << curl.error().description().toStdString();
    char* (*version)() = nullptr;
    ASSERT_TRUE(curl->bind(version, "curl_version"));
    EXPECT_TRUE(QByteArray(version()).startsWith("libcurl/"));

    // GObject is not libsecret's own: the key store reaches it through libsecret.
    const auto secret = RuntimeLibrary::open(QStringLiteral("libsecret-1.so.0"), QStringLiteral("libsecret-1-0"));
    ASSERT_TRUE(secret) << secret.error().description().toStdString();
    void (*unref)(void*) = nullptr;
    EXPECT_TRUE(secret->bind(unref, "g_object_unref"));
    EXPECT_NE(unref, nullptr);
}

TEST(RuntimeLibraryTest, AMissingLibraryOrFunctionSaysWhatToInstall) {
    RuntimeLibrary::substitute(QStringLiteral("libcurl.so.4"), QStringLiteral("libcurl-not-installed.so.4"));
    const auto missing = RuntimeLibrary::open(QStringLiteral("libcurl.so.4"), QStringLiteral("libcurl4"));
    RuntimeLibrary::substitute(QStringLiteral("libcurl.so.4"), {});
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().code(), Error::Code::libraryUnavailable);
    EXPECT_TRUE(missing.error().description().contains(QStringLiteral("libcurl-not-installed.so.4")));
    EXPECT_TRUE(missing.error().description().contains(QStringLiteral("Install the package libcurl4")));

    // A failure is not remembered: once the library is back, it opens.
    const auto curl = RuntimeLibrary::open(QStringLiteral("libcurl.so.4"), QStringLiteral("libcurl4"));
    ASSERT_TRUE(curl);
    void (*function)() = nullptr;
    const auto tooOld = curl->bind(function, "curl_function_from_the_future");
    ASSERT_FALSE(tooOld);
    EXPECT_EQ(tooOld.error().code(), Error::Code::libraryUnavailable);
    EXPECT_TRUE(tooOld.error().description().contains(QStringLiteral("curl_function_from_the_future")));
    EXPECT_EQ(function, nullptr);
}

}  // namespace
}  // namespace mossly
