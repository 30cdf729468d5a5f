// Time stamps and the SubRip/WebVTT line rules: what lands in the text and cue tables.
#include "TimedText/SubRip.h"
#include "TimedText/TimeKey.h"
#include "TimedText/WebVTT.h"

#include <gtest/gtest.h>

#include <fstream>
#include <limits>
#include <map>
#include <sstream>

using namespace ovalto;

namespace {

struct ExpectedCue {
    std::int64_t start;
    std::int64_t end;
    std::optional<std::string> setting;
    std::string payload;
    bool operator==(const ExpectedCue&) const = default;
};

std::map<std::int64_t, std::string> texts(const TimedText& parser) {
    return {parser.texts.begin(), parser.texts.end()};
}

std::map<std::int64_t, ExpectedCue> cues(const TimedText& parser) {
    std::map<std::int64_t, ExpectedCue> out;
    for (const auto& [key, cue] : parser.cues)
        out[key] = {cue->startTimeMs, cue->endTimeMs.value_or(-1), cue->setting, cue->payload};
    return out;
}

std::string sampleDocument(const char* name) {
    std::ifstream file(std::string(OVALTO_SAMPLE_DIR) + "/sidecar/" + name, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace

TEST(TimeStampTest, ConvertsFieldsFromTheRightAndTruncates) {
    constexpr auto max = std::numeric_limits<std::int64_t>::max();
    const struct {
        const char* what;
        const char* text;
        std::int64_t scale;
        std::int64_t expected;
    } cases[] = {
        {"hours, minutes, comma", "01:02:03,456", 1000, 3'723'456},
        {"minutes and a full stop", "02:03.456", 1000, 123'456},
        {"seconds without a fraction", "00:10", 1000, 10'000},
        {"product truncated, not rounded", "00:00:01,001", 1000, 1000},
        {"digits beyond the scale dropped", "00:00:01,2345", 1000, 1234},
        {"empty", "", 1000, 0},
        {"unparsable hours add nothing", "aa:01:02,5", 1000, 62'500},
        {"unparsable minutes add nothing", "01:x:05", 1000, 3'605'000},
        {"no blanks inside the minutes", "01: 2:05", 1000, 3'605'000},
        {"seconds trimmed", "1: 3.5 ", 1000, 63'500},
        {"fields left of the hours ignored", "7:01:02:03,5", 1000, 3'723'500},
        {"negative seconds", "-1.5", 1000, -1500},
        {"not a number adds nothing", "nan", 1000, 0},
        {"huge hours clamp", "99999999999999999:00:00", 1000, max},
        {"infinite seconds clamp", "inf", 1000, max},
        {"hundredths", "00:00:04.35", 100, 434},
    };
    for (const auto& c : cases)
        EXPECT_EQ(toSeconds(c.text, c.scale), c.expected) << c.what;
}

TEST(TimeStampTest, KeysOfSecondsTruncateAndRefuseWhatDoesNotFit) {
    EXPECT_EQ(timeKey(1.234), 123);
    EXPECT_EQ(timeKey(4.35), 434);
    EXPECT_EQ(timeKey(1.23), 123);
    EXPECT_EQ(timeKey(-0.019), -1);
    EXPECT_EQ(timeKey(std::numeric_limits<double>::infinity()), std::nullopt);
    EXPECT_EQ(timeKey(std::numeric_limits<double>::quiet_NaN()), std::nullopt);
    EXPECT_EQ(timeKey(1e17), std::nullopt);
}

TEST(SubRipTest, LineRules) {
    using Texts = std::map<std::int64_t, std::string>;
    using Cues = std::map<std::int64_t, ExpectedCue>;
    const struct {
        const char* what;
        const char* document;
        Texts texts;
        Cues cues;
    } cases[] = {
        {"one block",
         "1\n00:00:01,000 --> 00:00:04,000\nHello\nWorld\n\n",
         {{100, "Hello\nWorld"}, {400, ""}},
         {{100, {1000, 4000, std::nullopt, "Hello\nWorld"}}}},
        {"a line of digits is skipped like a sequence number",
         "00:00:01,000 --> 00:00:02,000\nIn\n2019\n3.14\n",
         {{100, "In"}, {200, ""}},
         {{100, {1000, 2000, std::nullopt, "In"}}}},
        {"a sequence number with a trailing space is text of the cue before",
         "1\n00:00:01,000 --> 00:00:02,000\nA\n\n2 \n00:00:03,000 --> 00:00:04,000\nB\n",
         {{100, "A\n2 "}, {200, ""}, {300, "B"}, {400, ""}},
         {{100, {1000, 2000, std::nullopt, "A\n2 "}}, {300, {3000, 4000, std::nullopt, "B"}}}},
        {"touching cues replace the clear mark",
         "00:00:01,000 --> 00:00:02,000\nA\n00:00:02,000 --> 00:00:03,000\nB\n",
         {{100, "A"}, {200, "B"}, {300, ""}},
         {{100, {1000, 2000, std::nullopt, "A"}}, {200, {2000, 3000, std::nullopt, "B"}}}},
        {"equal starts: the later cue wins, the texts append",
         "00:00:01,000 --> 00:00:02,000\nA\n00:00:01,000 --> 00:00:03,000\nB\n",
         {{100, "A\nB"}, {200, ""}, {300, ""}},
         {{100, {1000, 3000, std::nullopt, "B"}}}},
        {"start equal to end: the clear mark overwrites the text",
         "00:00:01,000 --> 00:00:01,000\nA\n",
         {{100, ""}},
         {{100, {1000, 1000, std::nullopt, "A"}}}},
        {"settings are the fourth word on",
         "00:00:01,000 --> 00:00:02,000 X1:100 X2:200\nA\n",
         {{100, "A"}, {200, ""}},
         {{100, {1000, 2000, "X1:100 X2:200", "A"}}}},
        {"words before the start shift the setting onto the end time",
         "7 00:00:01,000 --> 00:00:02,000\nA\n",
         {{100, "A"}, {200, ""}},
         {{100, {1000, 2000, "00:00:02,000", "A"}}}},
        {"two spaces make an empty start word",
         "00:00:01,000  --> 00:00:02,000\nA\n",
         {{0, "A"}, {200, ""}},
         {{0, {0, 2000, "00:00:02,000", "A"}}}},
        {"an arrow as first or last word is text",
         "00:00:01,000 --> 00:00:02,000\n--> x\nx -->\n",
         {{100, "--> x\nx -->"}, {200, ""}},
         {{100, {1000, 2000, std::nullopt, "--> x\nx -->"}}}},
        {"text before the first timing line leaves only a clear mark",
         "WEBVTT\nKind: captions\n",
         {{0, ""}},
         {}},
        {"unicode line separators split lines",
         "00:00:01,000 --> 00:00:02,000\xE2\x80\xA8"
         "A\xC2\x85"
         "B",
         {{100, "A\nB"}, {200, ""}},
         {{100, {1000, 2000, std::nullopt, "A\nB"}}}},
        {"a cut-off separator is text",
         "00:00:01,000 --> 00:00:02,000\nA\xE2\x80",
         {{100, "A\xE2\x80"}, {200, ""}},
         {{100, {1000, 2000, std::nullopt, "A\xE2\x80"}}}},
    };
    // Every document with LF, CRLF and CR line ends.
    for (const auto& c : cases) {
        std::string crlf, cr;
        for (const char* at = c.document; *at; ++at) {
            crlf += *at == '\n' ? std::string("\r\n") : std::string(1, *at);
            cr += *at == '\n' ? '\r' : *at;
        }
        for (const std::string& document : {std::string(c.document), crlf, cr}) {
            SubRip parser;
            parser.parse(std::string_view(document));
            EXPECT_EQ(texts(parser), c.texts) << c.what;
            EXPECT_EQ(cues(parser), c.cues) << c.what;
        }
    }
}

TEST(SubRipTest, WebVTTBesideItsSubRipTwin) {
    SubRip srt;
    srt.parse(std::string_view(sampleDocument("subtitles.srt")));
    WebVTT vtt;
    vtt.parse(std::string_view(sampleDocument("subtitles.vtt")));
    ASSERT_EQ(srt.cues.size(), 6u);
    EXPECT_EQ(texts(vtt), texts(srt));
    EXPECT_EQ(cues(vtt), cues(srt));
    EXPECT_EQ(srt.texts.at(200), "Cue 2: the pattern at 2 seconds");
    EXPECT_EQ(srt.texts.at(1100), "");

    // Identifiers that are not numbers and NOTE blocks are text of the cue before.
    WebVTT notes;
    notes.parse(std::string_view("WEBVTT\n\n00:01.000 --> 00:02.000 align:start\nA\n\nNOTE later\n\nintro\n"
                                 "00:03.000 --> 00:04.000\nB\n"));
    EXPECT_EQ(texts(notes), (std::map<std::int64_t, std::string>{
                                {0, ""}, {100, "A\nNOTE later\nintro"}, {200, ""}, {300, "B"}, {400, ""}}));
    EXPECT_EQ(notes.cues.at(100)->setting, "align:start");
}
