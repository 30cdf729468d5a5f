// Attribute lists and the master/media test shared by both playlist kinds.
#include "PlayList/PlayList.h"

#include <gtest/gtest.h>

using namespace ovalto;

namespace {

std::string entries(const AttributeList& list) {
    std::string text;
    for (const auto& [name, value] : list)
        text += "[" + name + "]=[" + value + "]";
    return text;
}

} // namespace

TEST(ParseAttributeTest, ReadsNamesAndValuesInSourceOrder) {
    struct Case {
        std::string tag;
        std::string expected;
    };
    for (const auto& c : std::vector<Case>{
             {"#EXT-X-KEY:METHOD=NONE", "[METHOD]=[NONE]"},
             {"#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://"
              "k1?a=b,c\",KEYFORMAT=\"com.apple.streamingkeydelivery\"",
              "[METHOD]=[SAMPLE-AES][URI]=[\"skd://"
              "k1?a=b,c\"][KEYFORMAT]=[\"com.apple.streamingkeydelivery\"]"},
             {"#X:A=1, B=2", "[A]=[1][B]=[2]"},
             {"#X:A= 1", "[A]=[ 1]"},
             {"#EXT-X-ENDLIST", ""},
             {"#X:novalue", ""},
             {"#X:A=1,A=2,B=3", "[A]=[2][B]=[3]"},
             {"#X:A=\"x\",,B=2,", "[A]=[\"x\"][B]=[2]"},
             {"#X:A=\"\"", "[A]=[\"\"]"},
             {"#X:A=1:2,B=3", "[A]=[1:2][B]=[3]"},
             {"#X:=5", "[]=[5]"},
             // An unterminated quote takes the rest of the line and ends the list.
             {"#X:A=1,B=\"open,C=3", "[A]=[1][B]=[\"open,C=3]"},
             {"#X:B=\"", "[B]=[\"]"},
         }) {
        EXPECT_EQ(entries(PlayList::parseAttribute(c.tag)), c.expected) << c.tag;
    }
}

TEST(ParseAttributeTest, QuotedValuesWriteBackAsTheyCame) {
    const std::string list = "TYPE=AUDIO,GROUP-ID=\"aud\",NAME=\"en, main\",URI=\"a/en.m3u8\"";
    std::string written;
    for (const auto& [name, value] : PlayList::parseAttribute("#EXT-X-MEDIA:" + list))
        written += (written.empty() ? "" : ",") + name + "=" + value;
    EXPECT_EQ(written, list);
}

TEST(IsMasterTest, AnyExtinfLineMakesAMediaPlaylist) {
    EXPECT_TRUE(PlayList::isMaster(""));
    EXPECT_TRUE(PlayList::isMaster("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\na.m3u8"));
    EXPECT_FALSE(PlayList::isMaster("#EXTM3U\n#EXTINF:4,\na.ts"));
    EXPECT_FALSE(PlayList::isMaster("#EXTM3U\r\n \t#EXTINF:4,\r\na.ts"));
    EXPECT_TRUE(PlayList::isMaster("#EXTM3U\n# #EXTINF:4"));
}
