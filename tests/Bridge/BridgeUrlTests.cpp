#include "Bridge/BridgeUrl.h"

#include <gtest/gtest.h>

namespace ovalto::test {
namespace {

struct TargetRow {
    const char* what;
    const char* resource; // nullptr: no target
    const char* target;
};

// Each resource URL maps to a path and back to the same text; anything else has no bridge path.
TEST(BridgeUrlTest, TargetsRoundTrip) {
    const TargetRow rows[] = {
        {"master", "cplp://local/master.m3u8", "/cplp/local/master.m3u8"},
        {"media playlist", "cplp://local/1/800000/media.m3u8", "/cplp/local/1/800000/media.m3u8"},
        {"init section", "rdtp://local/0/0/-1.ts", "/rdtp/local/0/0/-1.ts"},
        {"query and escapes kept", "cplp://local/master.m3u8?a=%2F&b=1", "/cplp/local/master.m3u8?a=%2F&b=1"},
        {"key without path", "ckey://k1", "/ckey/k1"},
        {"key with query only", "ckey://k1?id=7", "/ckey/k1/?id=7"},
        {"fairplay", "skd://asset-7/key", "/skd/asset-7/key"},
    };
    for (const auto& row : rows) {
        auto target = BridgeUrl::target(row.resource);
        ASSERT_TRUE(target) << row.what;
        EXPECT_EQ(*target, row.target) << row.what;
        auto back = BridgeUrl::resource(*target);
        ASSERT_TRUE(back) << row.what;
        EXPECT_EQ(back->absoluteString(), row.resource) << row.what;
    }
    for (const char* other : {"https://local/master.m3u8", "CPLP://local/master.m3u8", "cplp:///master.m3u8",
                              "master.m3u8", "cplpx://local/a", "rdtp://local/0/0/1.ts\r#x"}) {
        EXPECT_FALSE(BridgeUrl::target(other)) << other;
    }
}

TEST(BridgeUrlTest, RejectsTargetsThatNameNoResource) {
    for (const char* target : {"", "/", "/cplp", "/cplp/", "/cplp//master.m3u8", "/http/local/master.m3u8",
                               "cplp/local/master.m3u8", "/favicon.ico", "/cplp/lo cal/master.m3u8",
                               "/cplp/local/master#-T=%2F"}) {
        EXPECT_FALSE(BridgeUrl::resource(target)) << "'" << target << "'";
    }
}

TEST(BridgeUrlTest, MapsAbsoluteResourceUrisOnly) {
    const std::string origin = "http://127.0.0.1:9";
    const std::string playlist = "#EXTM3U\r\n"
                                 "#EXT-X-MAP:URI=\"rdtp://local/0/0/-1.ts\"\r\n"
                                 "#EXT-X-KEY:METHOD=AES-128,URI=\"ckey://k1\",IV=0x1\r\n"
                                 "#EXT-X-SESSION-DATA:DATA-ID=\"x\",XURI=\"rdtp://local/0/0/1.ts\"\r\n"
                                 "#EXTINF:2.0,\r\n"
                                 "rdtp://local/0/0/0.ts\r\n"
                                 "#EXTINF:2.0,\r\n"
                                 "  https://cdn.example/seg1.ts\r\n"
                                 "1/800000/media.m3u8\n"
                                 "#EXT-X-MEDIA:TYPE=AUDIO,URI=\"0/0/media.m3u8\"\n"
                                 "rdtp://local/0/0/2.ts";
    const std::string expected = "#EXTM3U\r\n"
                                 "#EXT-X-MAP:URI=\"http://127.0.0.1:9/rdtp/local/0/0/-1.ts\"\r\n"
                                 "#EXT-X-KEY:METHOD=AES-128,URI=\"http://127.0.0.1:9/ckey/k1\",IV=0x1\r\n"
                                 "#EXT-X-SESSION-DATA:DATA-ID=\"x\",XURI=\"rdtp://local/0/0/1.ts\"\r\n"
                                 "#EXTINF:2.0,\r\n"
                                 "http://127.0.0.1:9/rdtp/local/0/0/0.ts\r\n"
                                 "#EXTINF:2.0,\r\n"
                                 "  https://cdn.example/seg1.ts\r\n"
                                 "1/800000/media.m3u8\n"
                                 "#EXT-X-MEDIA:TYPE=AUDIO,URI=\"0/0/media.m3u8\"\n"
                                 "http://127.0.0.1:9/rdtp/local/0/0/2.ts";
    EXPECT_EQ(BridgeUrl::mapPlaylist(playlist, origin), expected);
}

} // namespace
} // namespace ovalto::test
