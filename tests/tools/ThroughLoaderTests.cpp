// `ovalto rewrite --through-loader URL`: the answers a player gets from the resource loader.
#include "ThroughLoader.h"
#include "support/TestOrigin.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace ovalto;

namespace {

const char* master = "#EXTM3U\n"
                     "#EXT-X-STREAM-INF:BANDWIDTH=800000\n"
                     "sd/index.m3u8\n";
const char* media = "#EXTM3U\n"
                    "#EXT-X-TARGETDURATION:6\n"
                    "#EXT-X-MEDIA-SEQUENCE:7\n"
                    "#EXT-X-MAP:URI=\"init.mp4\"\n"
                    "#EXTINF:6,\nseg7.ts\n#EXTINF:6,\nseg8.ts\n#EXTINF:6,\nseg9.ts\n#EXTINF:6,\nseg10.ts\n"
                    "#EXT-X-ENDLIST\n";

struct Run {
    int status = -1;
    std::string out;
    std::string err;
};

Run throughLoader(const std::string& url) {
    std::ostringstream out, err;
    Run run;
    run.status = tool::throughLoader(url, false, out, err);
    run.out = out.str();
    run.err = err.str();
    return run;
}

TEST(ThroughLoaderTest, PrintsEachRequestWithItsAnswer) {
    test::TestOrigin origin;
    origin.serve("/live/master.m3u8", master);
    origin.serve("/live/sd/index.m3u8", media);
    const auto run = throughLoader(origin.url("/live/master.m3u8"));
    EXPECT_EQ(run.status, 0) << run.err;

    const auto& out = run.out;
    const std::vector<std::string> inOrder{
        "> cplp://local/master.m3u8\n< data, ",
        "0/800000/media.m3u8",
        "> cplp://local/0/800000/media.m3u8\n< data, ",
        "rdtp://local/0/800000/7.ts",
        "> rdtp://local/0/800000/-1.ts\n< redirect 302 " + origin.url("/live/sd/init.mp4") + "\n",
        "> rdtp://local/0/800000/7.ts\n< redirect 302 " + origin.url("/live/sd/seg7.ts") + "\n",
        "> rdtp://local/0/800000/9.ts\n< redirect 302 " + origin.url("/live/sd/seg9.ts") + "\n",
    };
    std::size_t at = 0;
    for (const auto& text : inOrder) {
        const auto found = out.find(text, at);
        ASSERT_NE(found, std::string::npos) << "missing after offset " << at << ": " << text << "\n" << out;
        at = found + text.size();
    }
    EXPECT_EQ(out.find("rdtp://local/0/800000/10.ts\n<"), std::string::npos) << "three segments only";
}

TEST(ThroughLoaderTest, MasterFailureExitsNonZeroWithTheError) {
    test::TestOrigin origin;
    origin.script("/gone/master.m3u8", {{503}});
    const auto run = throughLoader(origin.url("/gone/master.m3u8"));
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("> cplp://local/master.m3u8\n< error 503: PlayList response is not valid.\n"),
              std::string::npos)
        << run.out;
    EXPECT_EQ(origin.requestCount("/gone/master.m3u8"), 4);
    EXPECT_EQ(throughLoader("not/absolute").status, 2);
}

} // namespace
