#include "Utils/URLExtension.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>

using namespace ovalto;
using platform::CookieStorage;
using platform::Url;
using platform::UrlRequest;
using platform::UrlSession;
using test::LoopbackServer;

namespace {

Url url(const std::string& text) {
    return *Url::parse(text);
}

UrlRequest request(const std::string& text, double timeout = 60.0) {
    return UrlRequest(url(text), platform::CachePolicy::useProtocolCachePolicy, timeout);
}

// Runs sendSynchronous on a fresh session and returns what it printed too.
std::pair<SendSynchronousResult, std::string> send(const UrlRequest& request) {
    testing::internal::CaptureStdout();
    auto session = UrlSession::create();
    auto result = sendSynchronous(*session, request);
    return {std::move(result), testing::internal::GetCapturedStdout()};
}

class HttpHelpersTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        origin = std::make_unique<LoopbackServer>([](httplib::Server& http) {
            http.Get(R"(/status/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
                response.status = std::stoi(request.matches[1]);
                response.set_content("body", "text/plain");
            });
            http.Get("/probe", [](const httplib::Request& request, httplib::Response& response) {
                if (request.method == "HEAD") ++heads;
                response.set_header("x-echo-token", request.get_header_value("X-Token"));
                response.set_header("content-type", "application/vnd.apple.mpegurl");
                response.set_content("#EXTM3U\n", "application/vnd.apple.mpegurl");
            });
            http.Get("/cookie-setter", [](const httplib::Request& request, httplib::Response& response) {
                if (request.method == "HEAD") ++heads;
                response.set_header("Set-Cookie", "token=abc; Path=/");
            });
        });
    }
    static void TearDownTestSuite() { origin.reset(); }
    void SetUp() override {
        CookieStorage::shared().removeAll();
        heads = 0;
    }
    void TearDown() override { CookieStorage::shared().removeAll(); }

    static inline std::unique_ptr<LoopbackServer> origin;
    static inline std::atomic<int> heads{0};
    LoopbackServer& server = *origin;
};

// Statuses outside 200…299 fail with "<status> error", transport errors pass on unchanged, a
// response that is not HTTP gives nothing, and a session serves one call; each failure prints.
TEST_F(HttpHelpersTest, SendSynchronousOutcomes) {
    for (int status : {199, 200, 299, 300, 404}) {
        SCOPED_TRACE(status);
        const auto [result, printed] = send(request(server.url("/status/" + std::to_string(status)), 10));
        const bool success = status >= 200 && status < 300;
        ASSERT_EQ(result.value.has_value(), success);
        ASSERT_EQ(result.error.has_value(), !success);
        if (success) {
            EXPECT_EQ(result.value->first, "body");
            EXPECT_EQ(result.value->second->statusCode, status);
            EXPECT_EQ(printed, "");
            continue;
        }
        const std::string domain = std::to_string(status) + " error";
        EXPECT_EQ(result.error->domain, domain);
        EXPECT_EQ(result.error->code, 0);
        EXPECT_EQ(result.error->localizedDescription,
                  "The operation couldn’t be completed. (" + domain + " error 0.)");
        EXPECT_EQ(printed, std::to_string(status) + "\n");
    }

    test::SilentListener silent;
    const auto [timedOut, printed] = send(request(silent.baseUrl() + "/never", 1));
    ASSERT_TRUE(timedOut.error);
    EXPECT_EQ(timedOut.error->domain, platform::Error::urlDomain);
    EXPECT_EQ(timedOut.error->code, platform::urlErrorTimedOut);
    EXPECT_EQ(printed, "The request timed out.\n");

    const auto path =
        std::filesystem::temp_directory_path() / ("ovalto-helpers-" + std::to_string(::getpid()));
    std::ofstream(path) << "#EXTM3U\n";
    const auto [file, silentFile] = send(UrlRequest(Url::fileUrl(path.string())));
    std::filesystem::remove(path);
    EXPECT_FALSE(file.value || file.error);
    EXPECT_EQ(silentFile, "");

    auto session = UrlSession::create();
    testing::internal::CaptureStdout();
    EXPECT_TRUE(sendSynchronous(*session, request(server.url("/status/200"))).value);
    const auto second = sendSynchronous(*session, request(server.url("/status/200")));
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(second.error);
    EXPECT_EQ(second.error->code, platform::urlErrorCancelled);
}

TEST_F(HttpHelpersTest, AllHeaderFieldsProbesWithHeadAndIsEmptyOnFailure) {
    const auto fields =
        allHeaderFields(url(server.url("/probe")), std::map<std::string, std::string>{{"X-Token", "t1"}});
    EXPECT_EQ(heads.load(), 1);
    EXPECT_EQ(fields.at("Content-Type"), "application/vnd.apple.mpegurl"); // canonical names
    EXPECT_EQ(fields.at("X-Echo-Token"), "t1");

    test::LogCapture log;
    testing::internal::CaptureStdout();
    int closedPort = 0;
    {
        test::SilentListener gone;
        closedPort = gone.port();
    }
    EXPECT_TRUE(
        allHeaderFields(url("http://127.0.0.1:" + std::to_string(closedPort) + "/"), std::nullopt).empty());
    EXPECT_TRUE(allHeaderFields(url(server.url("/status/500")), std::nullopt).empty());
    EXPECT_TRUE(allHeaderFields(Url::fileUrl("/nonexistent/ovalto"), std::nullopt).empty());
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(log.contains("[Error URLExtension|allHeaderFields|"));
    EXPECT_TRUE(log.contains("Could not connect to the server."));
    EXPECT_TRUE(log.contains("(500 error error 0.)"));
}

TEST_F(HttpHelpersTest, CookiesFromFieldsFromAHeadOrFromTheStore) {
    const Url site = url(server.url("/cookie-setter"));
    const auto given = cookies(site, std::map<std::string, std::string>{{"Set-Cookie", "a=1, b=2; Path=/x"}});
    ASSERT_TRUE(given);
    ASSERT_EQ(given->size(), 2u);
    EXPECT_EQ((*given)[1].path, "/x");
    EXPECT_EQ(heads.load(), 0);

    const auto probed = cookies(site, std::nullopt);
    EXPECT_EQ(heads.load(), 1);
    ASSERT_TRUE(probed);
    ASSERT_EQ(probed->size(), 1u);
    EXPECT_EQ((*probed)[0].value, "abc");

    // Fields without cookies fall back to the store, and to nothing when it is empty too.
    const std::map<std::string, std::string> none{{"Content-Type", "text/plain"}};
    CookieStorage::shared().removeAll();
    EXPECT_FALSE(cookies(site, none));
    CookieStorage::shared().setCookies({*platform::Cookie::make("kept", "1")}, site);
    const auto stored = cookies(site, none);
    ASSERT_TRUE(stored);
    EXPECT_EQ((*stored)[0].name, "kept");
}

TEST(SubUrl, ResolvesPlaylistUris) {
    const struct {
        const char* playlist;
        const char* path;
        const char* expected; // nullptr: no URL
    } cases[] = {
        {"http://h/a/b/index.m3u8?t=1", "\"seg1.ts\"", "http://h/a/b/seg1.ts"},
        {"http://h/a/b.m3u8", "/x/y.m3u8", "http://h/x/y.m3u8"},
        {"http://h/a/b.m3u8", "https://o/z.ts", "https://o/z.ts"},
        {"http://h/a/b.m3u8", "\"\"http://o/z.ts\"", "http://o/z.ts"},
        {"http://h/a/b.m3u8", "1/800000/media.m3u8", "http://h/a/1/800000/media.m3u8"},
        {"http://h/a/b.m3u8?k=v", "/x.ts?s=1", "http://h/x.ts?s=1"},
        // Every occurrence is replaced, a directory of the same name too.
        {"http://h/v.m3u8/v.m3u8", "w.ts", "http://h/w.ts/w.ts"},
        {"http://h/a/b.m3u8", "seg 1.ts", nullptr},
        {"http://h/a/b.m3u8#frag", "s.ts?x=1", "http://h/a/s.ts?x=1#frag"},
        {"http://h", "a.ts", "http://h"},
        // The playlist's name is replaced as it is written, escapes and all.
        {"http://h/a/my%20list.m3u8", "seg1.ts", "http://h/a/seg1.ts"},
        {"http://h/a%20b/c%2Fd.m3u8?t=%41", "seg1.ts", "http://h/a%20b/seg1.ts"},
        // Nothing is normalised: signed names and queries, escapes, dots and case as written.
        {"HTTP://CDN.Example.COM/v/i.m3u8?sig=a%2F", "seg%2f1.ts?sig=a%2fb",
         "HTTP://CDN.Example.COM/v/seg%2f1.ts?sig=a%2fb"},
        {"http://h/a/b/i.m3u8", "../~u/%7E.ts", "http://h/a/b/../~u/%7E.ts"},
        {"http://h/a/./b/i.m3u8", "./s.ts", "http://h/a/./b/./s.ts"},
        {"http://h/a/b/i.m3u8", "https://O.Test/S%2F.ts?k=%2f", "https://O.Test/S%2F.ts?k=%2f"},
        {"http://H/a/b/i.m3u8?s=1", "/x/../y%2f.ts", "http://H/y%2f.ts"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.playlist) + " + " + c.path);
        const auto resolved = subUrl(url(c.playlist), c.path);
        if (!c.expected) {
            EXPECT_FALSE(resolved);
            continue;
        }
        ASSERT_TRUE(resolved);
        EXPECT_EQ(resolved->absoluteString(), c.expected);
    }
}

} // namespace
