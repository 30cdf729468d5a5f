// NHK cue-point documents: one self-contained text per cue point at its time key.
#include "TimedText/NHKTTML.h"
#include "ovalto/Ovalto.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <map>

using namespace ovalto;
using test::LogCapture;

namespace {

std::map<std::int64_t, std::string> texts(const TimedText& parser) {
    return {parser.texts.begin(), parser.texts.end()};
}

} // namespace

TEST(NHKTTMLTest, CuePointTexts) {
    using Texts = std::map<std::int64_t, std::string>;
    const std::string open = "<cuepoints lang=\"ja\">";
    const struct {
        const char* what;
        std::string document;
        Texts texts;
    } cases[] = {
        {"entity references resolved, not re-escaped",
         open + "<cuepoint time=\"1.5\"><p>A &amp; B</p></cuepoint></cuepoints>",
         {{150, open + "<cuepoint time=\"1.5\"><p>A & B</p></cuepoint></cuepoints>"}}},
        {"three cue points; markup between them dropped",
         open + "<cuepoint time=\"0\">a</cuepoint><x>lost</x><cuepoint time=\"2.5\">b</cuepoint>"
                "<cuepoint time=\"7\">c</cuepoint></cuepoints>",
         {{0, open + "<cuepoint time=\"0\">a</cuepoint></cuepoints>"},
          {250, open + "<cuepoint time=\"2.5\">b</cuepoint></cuepoints>"},
          {700, open + "<cuepoint time=\"7\">c</cuepoint></cuepoints>"}}},
        {"nested markup with attributes and white space",
         open + "<cuepoint time=\"12.5\">\n <tt xml:lang=\"ja\"><body><p begin=\"0s\" end=\"1s\">x<br/>y</p>"
                "</body></tt>\n</cuepoint></cuepoints>",
         {{1250, open +
                     "<cuepoint time=\"12.5\">\n <tt xml:lang=\"ja\"><body><p begin=\"0s\" end=\"1s\">x<br>"
                     "</br>y</p></body></tt>\n</cuepoint></cuepoints>"}}},
        {"the same time twice: the later wins",
         open + "<cuepoint time=\"3\">a</cuepoint><cuepoint time=\"3.001\">b</cuepoint></cuepoints>",
         {{300, open + "<cuepoint time=\"3.001\">b</cuepoint></cuepoints>"}}},
        {"CDATA kept as a section",
         open + "<cuepoint time=\"1\"><![CDATA[<b>&</b>]]></cuepoint></cuepoints>",
         {{100, open + "<cuepoint time=\"1\"><![CDATA[<b>&</b>]]></cuepoint></cuepoints>"}}},
        {"binary-floating product truncates",
         "<cuepoints><cuepoint time=\"4.35\"/></cuepoints>",
         {{434, "<cuepoints><cuepoint time=\"4.35\"></cuepoint></cuepoints>"}}},
        {"missing, bad and infinite times count as 0",
         "<cuepoints><cuepoint>a</cuepoint><cuepoint time=\"x\">b</cuepoint><cuepoint "
         "time=\"inf\">c</cuepoint>"
         "<cuepoint time=\"nan\">d</cuepoint></cuepoints>",
         {{0, "<cuepoints><cuepoint time=\"nan\">d</cuepoint></cuepoints>"}}},
        {"a cue point before any cuepoints element starts without its tag",
         "<tt><cuepoint time=\"1\">a</cuepoint></tt>",
         {{100, "<cuepoint time=\"1\">a</cuepoint></cuepoints>"}}},
        {"prefixed names are other elements",
         "<n:cuepoints><n:cuepoint time=\"1\">a</n:cuepoint></n:cuepoints>",
         {}},
        {"declared Shift_JIS is decoded",
         "<?xml version=\"1.0\" encoding=\"Shift_JIS\"?><cuepoints><cuepoint time=\"1\">\x8E\x9A\x96\x8B"
         "</cuepoint></cuepoints>",
         {{100, "<cuepoints><cuepoint time=\"1\">\xE5\xAD\x97\xE5\xB9\x95</cuepoint></cuepoints>"}}},
    };
    for (const auto& c : cases) {
        NHKTTML parser;
        EXPECT_TRUE(parser.parse(std::string_view(c.document))) << c.what;
        EXPECT_EQ(texts(parser), c.texts) << c.what;
        EXPECT_TRUE(parser.cues.empty()) << c.what;
    }
}

TEST(NHKTTMLTest, BadDocumentsEndInOneWarningAndKeepWhatWasComplete) {
    std::string laughs = "<?xml version=\"1.0\"?><!DOCTYPE c [<!ENTITY l0 \"haha\">";
    for (int i = 1; i < 10; ++i) {
        laughs += "<!ENTITY l" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j)
            laughs += "&l" + std::to_string(i - 1) + ";";
        laughs += "\">";
    }
    laughs +=
        "]><cuepoints><cuepoint time=\"1\">ok</cuepoint><cuepoint time=\"2\">&l9;</cuepoint></cuepoints>";
    const std::string deep = "<cuepoints><cuepoint time=\"1\">ok</cuepoint><cuepoint time=\"2\">" + [] {
        std::string open, close;
        for (int i = 0; i < 200000; ++i)
            open += "<d>", close += "</d>";
        return open + close;
    }() + "</cuepoint><cuepoint time=\"3\">";
    std::string junk(4096, '\0');
    for (std::size_t i = 0; i < junk.size(); ++i)
        junk[i] = static_cast<char>((i * 7919 + 13) % 251);
    const struct {
        const char* what;
        std::string document;
        std::size_t kept;
    } cases[] = {
        {"billion laughs", laughs, 1},
        {"deep nesting cut off", deep, 2},
        {"binary junk", junk, 0},
        {"not closed", "<cuepoints><cuepoint time=\"1\">a</cuepoint><cuepoint time=\"2\">b", 1},
    };
    for (const auto& c : cases) {
        LogCapture capture;
        NHKTTML parser;
        EXPECT_FALSE(parser.parse(std::string_view(c.document))) << c.what;
        EXPECT_EQ(parser.texts.size(), c.kept) << c.what;
        ASSERT_EQ(capture.lines().size(), 1u) << c.what;
        EXPECT_TRUE(capture.lines()[0].starts_with("[Warning NHKTTML.cpp|parse(with:)|"))
            << capture.lines()[0];
        EXPECT_NE(capture.lines()[0].find("] Optional(\""), std::string::npos) << capture.lines()[0];
    }
}

TEST(NHKTTMLTest, AStartTagCopiedIntoEveryCuePointCannotExhaustMemory) {
    // 1 MB of attribute copied into each of 1,000 cue points would be 1 GB of texts.
    std::string document = "<cuepoints a=\"" + std::string(1u << 20, 'x') + "\">";
    for (int i = 0; i < 1000; ++i)
        document += "<cuepoint time=\"" + std::to_string(i) + "\"/>";
    document += "</cuepoints>";
    LogCapture capture;
    NHKTTML parser;
    EXPECT_FALSE(parser.parse(std::string_view(document)));
    EXPECT_LT(parser.texts.size(), 300u);
    EXPECT_TRUE(capture.contains("The document expands beyond"));
}
