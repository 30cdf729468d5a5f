#include "platform/Cookie.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace ovalto::platform;
using namespace std::chrono_literals;

namespace {

Url url(const char* text) {
    return *Url::parse(text);
}

TEST(Cookie, MakeRejectsPropertiesThatMakeNoCookie) {
    const struct {
        const char *name, *value;
        bool valid;
    } cases[] = {
        // A "Cookie" header piece such as " b=2" keeps its blank: the name is taken as given.
        {"id", "v=1", true},  {"id", "", true},     {" b", "2", true},
        {"", "v", false},     {"a=b", "v", false},  {"a;b", "v", false},
        {"a\tb", "v", false}, {"id", "x;y", false}, {"id", "x\r\ny", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Cookie::make(c.name, c.value).has_value(), c.valid)
            << "'" << c.name << "'='" << c.value << "'";
}

TEST(Cookie, SetCookieHeadersAreReadWithEveryAttributeAndForeignDomainsDropped) {
    const auto read = [](std::initializer_list<const char*> values) {
        HeaderFields fields;
        for (const char* value : values)
            fields.addValue(value, "Set-Cookie");
        return Cookie::cookies(fields, url("https://cdn.example.com/live/sub/index.m3u8"));
    };
    const auto cookies =
        read({"session=abc; Domain=.Example.com; Path=/live; Secure; HttpOnly; "
              "Expires=Wed, 21 Oct 2037 07:28:00 GMT",
              "a=1; Domain=other.com", "b=2; Domain=ample.com", "plain=\"quoted\"", "gone=x; Max-Age=0",
              "short=y; Max-Age=60; Expires=Thu, 01 Jan 1970 00:00:00 GMT", "c=3; Domain=cdn.example.com"});
    ASSERT_EQ(cookies.size(), 5u);
    EXPECT_EQ(cookies[0].name, "session");
    EXPECT_EQ(cookies[0].value, "abc");
    EXPECT_EQ(cookies[0].domain, ".example.com");
    EXPECT_EQ(cookies[0].path, "/live");
    EXPECT_TRUE(cookies[0].secure);
    EXPECT_TRUE(cookies[0].httpOnly);
    ASSERT_TRUE(cookies[0].expires);
    EXPECT_EQ(std::chrono::system_clock::to_time_t(*cookies[0].expires), 2139722880);

    // Without attributes: the host only, the directory of the request path, a session cookie.
    EXPECT_EQ(cookies[1].value, "quoted");
    EXPECT_EQ(cookies[1].domain, "cdn.example.com");
    EXPECT_EQ(cookies[1].path, "/live/sub");
    EXPECT_FALSE(cookies[1].expires);
    EXPECT_FALSE(cookies[1].secure);

    EXPECT_LE(*cookies[2].expires, std::chrono::system_clock::now());
    EXPECT_GT(*cookies[3].expires, std::chrono::system_clock::now()); // Max-Age wins over Expires
    EXPECT_EQ(cookies[4].name, "c");
    // Nameless ones are no cookies, and do not spoil the cookie before them.
    for (const auto* nameless : {"novalue", "=x"}) {
        EXPECT_TRUE(read({nameless}).empty()) << nameless;
        const auto after = read({"c=3; Domain=cdn.example.com", nameless});
        ASSERT_EQ(after.size(), 1u) << nameless;
        EXPECT_EQ(after[0].domain, ".cdn.example.com");
    }
    EXPECT_TRUE(read({}).empty());
}

TEST(Cookie, MatchingChecksDomainPathAndSecurity) {
    Cookie hostOnly = *Cookie::make("a", "1", "example.com", "/");
    Cookie domain = *Cookie::make("b", "2", ".example.com", "/video");
    Cookie secure = *Cookie::make("c", "3", "example.com");
    secure.secure = true;
    const struct {
        const Cookie& cookie;
        const char* url;
        bool matches;
    } cases[] = {
        {hostOnly, "http://example.com/x", true},       {hostOnly, "http://EXAMPLE.com", true},
        {hostOnly, "http://a.example.com/x", false},    {hostOnly, "http://badexample.com/x", false},
        {domain, "http://a.example.com/video", true},   {domain, "http://example.com/video/1.ts", true},
        {domain, "http://example.com/videos", false},   {domain, "http://example.com/", false},
        {domain, "http://badexample.com/video", false}, {secure, "https://example.com/", true},
        {secure, "http://example.com/", false},         {secure, "HTTPS://example.com/", true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.cookie.matches(url(c.url)), c.matches) << c.cookie.name << " " << c.url;
}

class CookieStorageTest : public ::testing::Test {
protected:
    void SetUp() override { storage.removeAll(); }
    void TearDown() override { storage.removeAll(); }
    CookieStorage& storage = CookieStorage::shared();
};

TEST_F(CookieStorageTest, StoresReplacesAndExpires) {
    const Url site = url("http://example.com/a/b.m3u8");
    storage.setCookies({*Cookie::make("x", "1"), *Cookie::make("deep", "2", "", "/a")}, site);
    EXPECT_EQ(storage.headerValue(site), "deep=2; x=1");
    // An empty domain was stored as the URL's host, so other hosts do not see it.
    EXPECT_EQ(storage.headerValue(url("http://other.com/a/")), "");
    EXPECT_EQ(storage.cookies(url("http://example.com/")).size(), 1u);

    storage.setCookies({*Cookie::make("x", "new")}, site);
    EXPECT_EQ(storage.headerValue(site), "deep=2; x=new");

    Cookie expired = *Cookie::make("x", "", "example.com");
    expired.expires = std::chrono::system_clock::now() - 1s;
    storage.setCookies({expired}, site);
    EXPECT_EQ(storage.headerValue(site), "deep=2");

    storage.removeAll();
    EXPECT_TRUE(storage.cookies(site).empty());
}

TEST_F(CookieStorageTest, IsSafeFromSeveralThreads) {
    const Url site = url("http://example.com/");
    std::atomic<int> ready{0}; // all start together, so that they meet in the storage
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            ++ready;
            while (ready.load() < 4)
                std::this_thread::yield();
            for (int i = 0; i < 500; ++i) {
                storage.setCookies({*Cookie::make("c" + std::to_string(t), std::to_string(i))}, site);
                (void)storage.headerValue(site);
            }
        });
    }
    threads.clear();
    EXPECT_EQ(storage.cookies(site).size(), 4u);
}

} // namespace
