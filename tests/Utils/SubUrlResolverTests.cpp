// Resolving the segment URIs of a playlist: the shortcut for plain relative names must build
// exactly the URL that parsing the resolved text builds (the texts are in the subUrl table).
#include "Utils/URLExtension.h"

#include <gtest/gtest.h>

using namespace ovalto;

namespace {

struct Parts {
    std::string text;
    std::optional<std::string> scheme, host, query, fragment;
    std::optional<int> port;
    std::string path, lastPathComponent;
    bool operator==(const Parts&) const = default;
};

Parts partsOf(const platform::Url& url) {
    return {url.absoluteString(), url.scheme(), url.host(), url.query(),
            url.fragment(),       url.port(),   url.path(), url.lastPathComponent()};
}

} // namespace

TEST(SubUrlResolverTest, BuildsWhatAParseOfItsTextBuilds) {
    const char* playlists[] = {
        "https://cdn.example.com/vod/show/720p/index.m3u8",
        "http://u:p@h:8080/a/b/index.m3u8?t=1&x=/y",
        "http://h/v.m3u8/v.m3u8",    // the name twice: every occurrence is replaced
        "http://h/a/b.m3u8#frag",    // a fragment stays
        "http://h/a%20b/c%2Fd.m3u8", // an escaped name
        "HTTP://CDN.Example.COM/A/./b/../v%2f/i.m3u8?sig=x%2F", // written as the application wrote it
        "http://h",                                             // no path
        "file:///tmp/p/playlist.m3u8",
    };
    const char* paths[] = {
        "seg_1.ts",
        "\"seg_1.ts\"",
        "seg-1.m4s?sig=a/b?c&d=e",
        "sub/dir/seg.ts",
        "a:b@c!$&'()*+,;=~.ts",
        "",
        "../up.ts",
        "./here.ts",
        "a/./b.ts",
        "seg%201.ts",
        "seg%2f1.ts?sig=a%2fb",
        "seg%2F1.ts?sig=a%2Fb%",
        "~u/%7e.ts",
        "seg 1.ts",
        "seg#1.ts",
        "Seg.TS",
        "..",
        "x/",
        "ü.ts",
        "https://Other.test/a%2f.ts?s=1",
        "/root/x.ts",
    };
    for (const char* playlist : playlists) {
        const auto base = platform::Url::parse(playlist);
        ASSERT_TRUE(base) << playlist;
        const SubUrlResolver resolve(*base);
        for (const char* path : paths) {
            SCOPED_TRACE(std::string(playlist) + " + " + path);
            const auto resolved = resolve(path);
            if (!resolved) continue;
            const auto parsed = platform::Url::parse(resolved->absoluteString());
            ASSERT_TRUE(parsed);
            EXPECT_EQ(partsOf(*resolved), partsOf(*parsed));
        }
    }
}

TEST(SubUrlResolverTest, ReplacingTheLastSegmentTakesOnlyPlainRelativeReferences) {
    const auto base = *platform::Url::parse("http://h/a/b/index.m3u8?t=1#f");
    EXPECT_EQ(base.replacingLastPathSegment("c/d.ts?x=1")->absoluteString(), "http://h/a/b/c/d.ts?x=1");
    EXPECT_EQ(base.replacingLastPathSegment("c/d.ts?x=1")->query(), "x=1");
    EXPECT_EQ(base.replacingLastPathSegment("")->absoluteString(), "http://h/a/b/");
    EXPECT_EQ(base.replacingLastPathSegment("../s%2f1.ts?sig=a%2Fb")->absoluteString(),
              "http://h/a/b/../s%2f1.ts?sig=a%2Fb");
    for (const char* reference : {"/abs.ts", "sp ace", "pct%4", "pct%zz1", "fr#ag", "ü"})
        EXPECT_FALSE(base.replacingLastPathSegment(reference)) << reference;
    EXPECT_FALSE(platform::Url::parse("http://h")->replacingLastPathSegment("a.ts"));
    EXPECT_FALSE(platform::Url::parse("a/b.m3u8")->replacingLastPathSegment("c.ts"));
}
