#include "platform/Url.h"

#include <gtest/gtest.h>

#include <string>

using ovalto::platform::Url;

namespace {

Url url(const char* text) {
    auto parsed = Url::parse(text);
    EXPECT_TRUE(parsed) << text;
    return parsed.value_or(*Url::parse("x:"));
}

TEST(UrlParse, AcceptsReferencesAndRejectsMalformedText) {
    const struct {
        const char* text;
        bool valid;
    } cases[] = {
        {"http://h/a/b.m3u8?t=1#f", true},
        {"https://[::1]:8443/x", true},
        {"relative/path.ts", true},
        {"/host/relative", true},
        {"?only=query", true},
        {"", false},
        {"http://h/a b", false},
        {" http://h/", false},
        {"http://h/\t", false},
        {"http://h/\x7f", false},
        {"http://h/caf\xc3\xa9", false},
        {"http://h/<x>", false},
        {"http://[::1/", false},
        {"ht tp://h", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Url::parse(c.text).has_value(), c.valid) << c.text;
}

TEST(UrlComponents, AreTakenFromTheParsedUri) {
    const struct {
        const char* text;
        std::optional<std::string> scheme, host;
        std::optional<int> port;
        std::string path;
        std::optional<std::string> query, fragment;
        std::string last;
    } cases[] = {
        {"http://h:81/a/b%20c.m3u8?x=1&y#frag", "http", "h", 81, "/a/b c.m3u8", "x=1&y", "frag", "b c.m3u8"},
        {"https://h", "https", "h", std::nullopt, "", std::nullopt, std::nullopt, ""},
        {"https://h/", "https", "h", std::nullopt, "/", std::nullopt, std::nullopt, "/"},
        {"http://h/dir/", "http", "h", std::nullopt, "/dir/", std::nullopt, std::nullopt, "dir"},
        {"http://h/p?", "http", "h", std::nullopt, "/p", "", std::nullopt, "p"},
        {"http://[::1]:8080/v", "http", "::1", 8080, "/v", std::nullopt, std::nullopt, "v"},
        {"file:///tmp/x.ts", "file", std::nullopt, std::nullopt, "/tmp/x.ts", std::nullopt, std::nullopt,
         "x.ts"},
        {"../seg/1.ts", std::nullopt, std::nullopt, std::nullopt, "../seg/1.ts", std::nullopt, std::nullopt,
         "1.ts"},
        {"/abs", std::nullopt, std::nullopt, std::nullopt, "/abs", std::nullopt, std::nullopt, "abs"},
        {"skd://k1", "skd", "k1", std::nullopt, "", std::nullopt, std::nullopt, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const Url u = url(c.text);
        EXPECT_EQ(u.scheme(), c.scheme);
        EXPECT_EQ(u.host(), c.host);
        EXPECT_EQ(u.port(), c.port);
        EXPECT_EQ(u.path(), c.path);
        EXPECT_EQ(u.query(), c.query);
        EXPECT_EQ(u.fragment(), c.fragment);
        EXPECT_EQ(u.lastPathComponent(), c.last);
        EXPECT_EQ(u.isFileUrl(), c.scheme == "file");
    }
}

// A CDN that signs a path or query compares the bytes it handed out: nothing of what was written
// may change on the way, neither by a parse nor by the parts a resolution copies.
TEST(UrlAsWritten, ParsingKeepsEveryByte) {
    const char* texts[] = {
        "http://cdn.test/v/seg%2f1.ts?sig=a%2fb",
        "http://cdn.test/v/seg%2F1.ts?sig=a%2Fb&exp=1",
        "http://cdn.test/%7euser/~user/a.ts",
        "HTTP://CDN.Example.COM:8080/A/./b/../C.ts?Q=1#F",
        "http://cdn.test/a/../../b.ts",
        "http://[::1]:80/x",
        "http://[FE80::1]/x",
        "CPLP://local/master.m3u8",
    };
    for (const char* text : texts) {
        const Url parsed = url(text);
        EXPECT_EQ(parsed.absoluteString(), text);
        // A parse of the text gives the same value again.
        EXPECT_EQ(url(parsed.absoluteString().c_str()), parsed) << text;
    }
    const Url signed_ = url("HTTP://CDN.Example.COM:8080/v/seg%2f1.ts?sig=a%2fb#t");
    EXPECT_EQ(signed_.scheme(), "HTTP");
    EXPECT_EQ(signed_.host(), "CDN.Example.COM");
    EXPECT_EQ(signed_.query(), "sig=a%2fb");
    EXPECT_EQ(signed_.path(), "/v/seg/1.ts");
    EXPECT_EQ(signed_.encodedLastPathComponent(), "seg%2f1.ts");
    EXPECT_TRUE(signed_.hasScheme("http"));
    EXPECT_FALSE(signed_.hasScheme("https"));
}

TEST(UrlResolution, FollowsTheRfcAndCopiesPartsAsWritten) {
    const Url rfc = url("http://a/b/c/d;p?q");
    const Url cdn = url("HTTPS://CDN.Example.com/v%2fx/~a/index.m3u8?sig=a%2Fb");
    const struct {
        const Url& base;
        const char* reference;
        const char* expected;
    } cases[] = {
        {rfc, "g", "http://a/b/c/g"},
        {rfc, "./g", "http://a/b/c/g"},
        {rfc, "g/", "http://a/b/c/g/"},
        {rfc, "/g", "http://a/g"},
        {rfc, "//g", "http://g"},
        {rfc, "?y", "http://a/b/c/d;p?y"},
        {rfc, "g?y", "http://a/b/c/g?y"},
        {rfc, "#s", "http://a/b/c/d;p?q#s"},
        {rfc, "..", "http://a/b/"},
        {rfc, "../../g", "http://a/g"},
        {rfc, "../../../g", "http://a/g"},
        {rfc, "https://o/z.ts", "https://o/z.ts"},
        {cdn, "seg%2f1.ts?sig=a%2fb", "HTTPS://CDN.Example.com/v%2fx/~a/seg%2f1.ts?sig=a%2fb"},
        {cdn, "../%7Eb/s.ts", "HTTPS://CDN.Example.com/v%2fx/%7Eb/s.ts"},
        {cdn, "/Top/s.ts?X=%2F", "HTTPS://CDN.Example.com/Top/s.ts?X=%2F"},
        {cdn, "?sig=b%2f", "HTTPS://CDN.Example.com/v%2fx/~a/index.m3u8?sig=b%2f"},
        {cdn, "//Other.COM/s.ts", "HTTPS://Other.COM/s.ts"},
        {url("http://[FE80::1]:8/a/b"), "c", "http://[FE80::1]:8/a/c"},
    };
    for (const auto& c : cases) {
        auto resolved = Url::parse(c.reference, c.base);
        ASSERT_TRUE(resolved) << c.reference;
        EXPECT_EQ(resolved->absoluteString(), c.expected) << c.reference;
    }
    EXPECT_FALSE(Url::parse("a b", rfc));
    EXPECT_FALSE(Url::parse("g", url("relative/base")));
}

TEST(UrlPathEditing, DeletesAndAppendsComponents) {
    const struct {
        const char* base;
        const char* expected;
    } deleting[] = {
        {"http://h/a/b.m3u8?t=1#f", "http://h/a/"},
        {"http://h/a/b/", "http://h/a/"},
        {"http://h/a", "http://h/"},
        {"http://h/", "http://h/"},
        {"HTTP://H/A%2f/./b.m3u8?s=%2F", "HTTP://H/A%2f/./"},
    };
    for (const auto& c : deleting) {
        const Url directory = url(c.base).deletingLastPathComponent();
        EXPECT_EQ(directory.absoluteString(), c.expected);
        EXPECT_FALSE(directory.query()) << c.base;
        EXPECT_FALSE(directory.fragment()) << c.base;
        EXPECT_EQ(directory.path(), url(c.expected).path()) << c.base;
    }

    const struct {
        const char* base;
        const char* component;
        const char* expected;
    } appending[] = {
        {"http://h/p", "a.m3u8?x=1", "http://h/p/a.m3u8?x=1"},
        {"http://h/p/", "a.m3u8", "http://h/p/a.m3u8"},
        {"http://h/p/", "/a.m3u8", "http://h/p/a.m3u8"},
        {"http://h", "a", "http://h/a"},
        {"http://h/p?k=v", "a", "http://h/p/a?k=v"},
        {"http://h/p?k=v", "a?x", "http://h/p/a?x"},
        {"http://h:8/p?k=v#f", "a?x#y", "http://h:8/p/a?x#y"},
        {"http://h/p#f", "a", "http://h/p/a#f"},
        {"http://h/p", "a b", "http://h/p/a%20b"},
        {"http://h/p", "x/y", "http://h/p/x/y"},
        {"HTTP://H/P%2f", "s%2F1.ts?sig=a%2fb", "HTTP://H/P%2f/s%2F1.ts?sig=a%2fb"},
    };
    for (const auto& c : appending) {
        const Url appended = url(c.base).appendingPathComponent(c.component);
        EXPECT_EQ(appended.absoluteString(), c.expected) << c.component;
        // Built without a second parse: its parts must be what a parse of its text finds.
        const Url parsed = url(c.expected);
        EXPECT_EQ(appended.scheme(), parsed.scheme()) << c.component;
        EXPECT_EQ(appended.host(), parsed.host()) << c.component;
        EXPECT_EQ(appended.port(), parsed.port()) << c.component;
        EXPECT_EQ(appended.path(), parsed.path()) << c.component;
        EXPECT_EQ(appended.query(), parsed.query()) << c.component;
        EXPECT_EQ(appended.fragment(), parsed.fragment()) << c.component;
    }
    // An escape that is not one leaves the URL unchanged, as a text that does not parse would.
    EXPECT_EQ(url("http://h/p").appendingPathComponent("a%zz").absoluteString(), "http://h/p");
}

TEST(UrlFile, EncodesLocalPaths) {
    const Url file = Url::fileUrl("/tmp/a b#c.m3u8");
    EXPECT_TRUE(file.isFileUrl());
    EXPECT_EQ(file.absoluteString(), "file:///tmp/a%20b%23c.m3u8");
    EXPECT_EQ(file.path(), "/tmp/a b#c.m3u8");
    EXPECT_EQ(file.lastPathComponent(), "a b#c.m3u8");
    EXPECT_FALSE(file.fragment());

    const Url relative = Url::fileUrl("rel.txt");
    EXPECT_TRUE(relative.path().starts_with("/"));
    EXPECT_EQ(relative.lastPathComponent(), "rel.txt");
}

} // namespace
