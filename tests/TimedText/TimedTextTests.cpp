// Side-car subtitles: text encodings, time stamps, the SubRip/WebVTT line rules and NHK cue-point
// documents as they land in the text and cue tables; documents from files and loopback servers,
// too large or unreadable; delivery of texts and cues against a player item whose clock the test
// puts in place (a paused player seeks).
#include "API/OvaltoAccess.h"
#include "TimedText/DocumentReader.h"
#include "TimedText/NHKTTML.h"
#include "TimedText/SubRip.h"
#include "TimedText/TextDecoder.h"
#include "TimedText/TimeKey.h"
#include "Utils/Guarded.h"
#include "ovalto/Ovalto.h"
#include "platform/Asset.h"
#include "platform/Player.h"
#include "platform/PlayerItem.h"
#include "platform/RunLoop.h"
#include "support/HlsOrigin.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <thread>

namespace ovalto {
namespace {

using namespace std::chrono_literals;
using test::LogCapture;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Texts = std::map<std::int64_t, std::string>;
using ExpectedCue = std::tuple<std::int64_t, std::int64_t, std::optional<std::string>, std::string>;
using Cues = std::map<std::int64_t, ExpectedCue>;

Texts texts(const TimedText& parser) {
    return {parser.texts.begin(), parser.texts.end()};
}

// start, end (-1: none), setting and payload of every cue.
Cues cues(const TimedText& parser) {
    Cues out;
    for (const auto& [key, cue] : parser.cues)
        out[key] = {cue->startTimeMs, cue->endTimeMs.value_or(-1), cue->setting, cue->payload};
    return out;
}

// A file holding `contents`, removed with the object.
struct TempFile {
    explicit TempFile(const std::string& contents) { std::ofstream(path, std::ios::binary) << contents; }
    ~TempFile() { std::filesystem::remove(path); }
    platform::Url url() const { return platform::Url::fileUrl(path.string()); }

    static inline int count = 0;
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() /
        ("ovalto-timedtext-" + std::to_string(::getpid()) + "-" + std::to_string(++count));
};

// "字幕 café" in UTF-8.
const std::string jaText = "\xE5\xAD\x97\xE5\xB9\x95 caf\xC3\xA9";

std::string utf16(const std::string& ascii, bool bigEndian) {
    std::string out;
    for (char c : ascii)
        out += bigEndian ? std::string{'\0', c} : std::string{c, '\0'};
    return out;
}

TEST(TextDecoderTest, DetectsTheEncodingAndDropsTheMark) {
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"plain UTF-8", jaText, jaText},
        {"UTF-8 mark", "\xEF\xBB\xBF" + jaText, jaText},
        {"UTF-16 LE mark", "\xFF\xFE" + utf16("1\r\nA", false), "1\r\nA"},
        {"UTF-16 BE mark", "\xFE\xFF" + utf16("1\r\nA", true), "1\r\nA"},
        {"Shift_JIS", "\x8E\x9A\x96\x8B", "\xE5\xAD\x97\xE5\xB9\x95"},
        {"Latin-1 when nothing else fits", "caf\xE9 \xFF", "caf\xC3\xA9 \xC3\xBF"},
        {"overlong UTF-8 is not UTF-8 but half-width kana", "\xC0\xAF", "\xEF\xBE\x80\xEF\xBD\xAF"},
    };
    for (const auto& [what, bytes, text] : cases)
        EXPECT_EQ(TextDecoder::decode(bytes), text) << what;
}

TEST(TimeStampTest, ConvertsFieldsFromTheRightAndTruncates) {
    constexpr auto max = std::numeric_limits<std::int64_t>::max();
    const std::tuple<const char*, const char*, std::int64_t, std::int64_t> cases[] = {
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
    for (const auto& [what, text, scale, expected] : cases)
        EXPECT_EQ(toSeconds(text, scale), expected) << what;
}

TEST(TimeStampTest, KeysOfSecondsTruncateAndRefuseWhatDoesNotFit) {
    for (auto [seconds, key] : {std::pair{1.234, 123}, {4.35, 434}, {1.23, 123}, {-0.019, -1}})
        EXPECT_EQ(timeKey(seconds), key) << seconds;
    for (double seconds :
         {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN(), 1e17})
        EXPECT_EQ(timeKey(seconds), std::nullopt) << seconds;
}

TEST(SubRipTest, LineRules) {
    const std::tuple<const char*, const char*, Texts, Cues> cases[] = {
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
        // WebVTT is read by the same rules (the sample twins are compared by the subtitles command's tests).
        {"WebVTT identifiers that are not numbers and NOTE blocks are text of the cue before",
         "WEBVTT\n\n00:01.000 --> 00:02.000 align:start\nA\n\nNOTE later\n\nintro\n00:03.000 --> "
         "00:04.000\nB\n",
         {{0, ""}, {100, "A\nNOTE later\nintro"}, {200, ""}, {300, "B"}, {400, ""}},
         {{100, {1000, 2000, "align:start", "A\nNOTE later\nintro"}},
          {300, {3000, 4000, std::nullopt, "B"}}}},
    };
    // Every document with LF, CRLF and CR line ends.
    for (const auto& [what, lf, expectedTexts, expectedCues] : cases) {
        std::string crlf, cr;
        for (const char* at = lf; *at; ++at) {
            crlf += *at == '\n' ? std::string("\r\n") : std::string(1, *at);
            cr += *at == '\n' ? '\r' : *at;
        }
        for (const std::string& document : {std::string(lf), crlf, cr}) {
            SubRip parser;
            parser.parse(std::string_view(document));
            EXPECT_EQ(texts(parser), expectedTexts) << what;
            EXPECT_EQ(cues(parser), expectedCues) << what;
        }
    }
}

TEST(NHKTTMLTest, CuePointTexts) {
    const std::string open = "<cuepoints lang=\"ja\">";
    const std::tuple<const char*, std::string, Texts> cases[] = {
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
         "time=\"inf\">c</cuepoint><cuepoint time=\"nan\">d</cuepoint></cuepoints>",
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
    for (const auto& [what, document, expected] : cases) {
        NHKTTML parser;
        EXPECT_TRUE(parser.parse(std::string_view(document))) << what;
        EXPECT_EQ(texts(parser), expected) << what;
        EXPECT_TRUE(parser.cues.empty()) << what;
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
    std::string deep = "<cuepoints><cuepoint time=\"1\">ok</cuepoint><cuepoint time=\"2\">";
    for (int i = 0; i < 200000; ++i)
        deep += "<d>";
    for (int i = 0; i < 200000; ++i)
        deep += "</d>";
    deep += "</cuepoint><cuepoint time=\"3\">";
    std::string junk(4096, '\0');
    for (std::size_t i = 0; i < junk.size(); ++i)
        junk[i] = static_cast<char>((i * 7919 + 13) % 251);
    const std::tuple<const char*, std::string, std::size_t> cases[] = {
        {"billion laughs", laughs, 1},
        {"deep nesting cut off", deep, 2},
        {"binary junk", junk, 0},
        {"not closed", "<cuepoints><cuepoint time=\"1\">a</cuepoint><cuepoint time=\"2\">b", 1},
    };
    for (const auto& [what, document, kept] : cases) {
        LogCapture capture;
        NHKTTML parser;
        EXPECT_FALSE(parser.parse(std::string_view(document))) << what;
        EXPECT_EQ(parser.texts.size(), kept) << what;
        EXPECT_THAT(capture.lines(), ElementsAre(AllOf(StartsWith("[Warning NHKTTML.cpp|parse(with:)|"),
                                                       HasSubstr("] Optional(\""))))
            << what;
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

// The encodings themselves are the decoder's table.
TEST(DocumentTest, FilesAreDecodedBeforeTheyAreParsed) {
    TempFile file("\xFF\xFE" + utf16("1\n00:00:01,000 --> 00:00:02,000\nA\n", false));
    SubRip parser;
    parser.parse(file.url());
    EXPECT_EQ(texts(parser), (Texts{{100, "A"}, {200, ""}}));
}

TEST(DocumentTest, RemoteDocumentsComeWithTheConfiguredHeaders) {
    std::atomic<int> requests{0};
    test::LoopbackServer server([&](httplib::Server& http) {
        http.Get("/subs.srt", [&](const httplib::Request& request, httplib::Response& response) {
            ++requests;
            if (request.get_header_value("X-Token") == "secret")
                response.set_content("00:00:01,000 --> 00:00:02,000\nremote\n", "application/x-subrip");
            else
                response.status = 403;
        });
        http.Get("/cues.ttml", [](const httplib::Request&, httplib::Response& response) {
            response.set_content("<cuepoints><cuepoint time=\"2\">x</cuepoint></cuepoints>",
                                 "application/xml");
        });
    });
    const auto url = *platform::Url::parse(server.url("/subs.srt"));
    SubRip withHeader;
    withHeader.parse(url, {{"X-Token", "secret"}});
    EXPECT_EQ(withHeader.texts.at(100), "remote");

    LogCapture capture;
    SubRip without;
    without.parse(url);
    EXPECT_TRUE(without.texts.empty());
    EXPECT_TRUE(capture.contains("[Error SubRip.cpp|parse(with:)|")) << capture.lines().size();
    EXPECT_TRUE(capture.contains("403"));
    EXPECT_EQ(requests.load(), 2);

    NHKTTML ttml;
    ttml.parse(*platform::Url::parse(server.url("/cues.ttml")));
    EXPECT_EQ(ttml.texts.at(200), "<cuepoints><cuepoint time=\"2\">x</cuepoint></cuepoints>");
}

TEST(DocumentTest, UnreadableDocumentsLogOneLineAndLeaveTheTablesEmpty) {
    const auto logged = [](TimedText&& parser, const platform::Url& url) {
        LogCapture capture;
        parser.parse(url);
        EXPECT_TRUE(parser.texts.empty());
        return capture.lines();
    };
    const auto missing = platform::Url::fileUrl("/nonexistent/ovalto/subs.srt");
    EXPECT_THAT(logged(SubRip(), missing), ElementsAre(StartsWith("[Error SubRip.cpp|parse(with:)|")));
    EXPECT_THAT(logged(NHKTTML(), missing),
                ElementsAre(HasSubstr("] file:///nonexistent/ovalto/subs.srt is not valid.")));
    // A sparse file above the limit is refused without being read.
    TempFile huge("");
    std::filesystem::resize_file(huge.path, DocumentReader::maximumSize + 1);
    EXPECT_THAT(logged(SubRip(), huge.url()), Contains(HasSubstr("is larger than")));
}

TEST(DocumentTest, AFiftyMegabyteLineParses) {
    std::string line(50u << 20, 'x');
    TempFile file("00:00:01,000 --> 00:00:02,000\n" + line + "\n");
    SubRip parser;
    parser.parse(file.url());
    EXPECT_EQ(parser.texts.at(100).size(), line.size());
}

struct Delivery {
    std::string kind; // "text" or "cue"
    std::string value;
    double time = 0; // the time handed with a text
    bool onMainThread = false;
};

class TimedTextDeliveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        origin.publishMedia("tt", 4, 1.0, 500);
        item = platform::PlayerItem::create(
            platform::Asset::create(*platform::Url::parse(origin.url("/tt/media.m3u8"))));
        player = platform::Player::create(item);
        player->setRate(0);
        ASSERT_TRUE(runUntil([&] { return item->status() == platform::PlayerItem::Status::readyToPlay; }));
        engine->playerItem.set(item); // as a preparation would
        const auto record = [this](std::string kind, std::string value, double time) {
            const bool onMain = std::this_thread::get_id() == mainThread;
            deliveries.with([&](auto& all) {
                all.push_back({std::move(kind), std::move(value), time, onMain});
            });
        };
        facade->setOnTimedText([=](const platform::MediaTime& time, const std::string& text) {
            record("text", text, time.seconds());
        });
        facade->setOnTimedTextCue([=](const std::shared_ptr<Cue>& cue) { record("cue", cue->payload, 0); });
    }

    // Drives the main run loop in short slices until `done`; the deadline only guards against a hang.
    static bool runUntil(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            platform::RunLoop::main().runFor(5ms);
        }
        return true;
    }
    void seek(double seconds) {
        std::atomic<bool> finished{false};
        player->seek(platform::MediaTime::makeWithSeconds(seconds, 1000), [&](bool) { finished = true; });
        ASSERT_TRUE(runUntil([&] { return finished.load(); }));
    }
    platform::Url write(const std::string& contents) { return files.emplace_back(contents).url(); }

    // In this order so that the player goes first, then the facade, and the records last.
    const std::thread::id mainThread = std::this_thread::get_id();
    Guarded<std::vector<Delivery>> deliveries;
    std::deque<TempFile> files;
    test::HlsOrigin origin;
    std::shared_ptr<platform::PlayerItem> item;
    std::shared_ptr<Ovalto> facade = Ovalto::create();
    std::shared_ptr<OvaltoInternal> engine = OvaltoAccess::engine(*facade);
    std::shared_ptr<platform::Player> player;
};

TEST_F(TimedTextDeliveryTest, ATickFindsOnlyTheExactHundredth) {
    facade->addTimedTextSource(write("00:00:01,234 --> 00:00:02,000\nA\n"), "application/x-subrip");
    ASSERT_TRUE(runUntil([&] { return engine->timedText.get() != nullptr; }));
    // clock, kind=value delivered
    const std::pair<double, std::vector<std::string>> cases[] = {
        {1.229, {}}, {1.230, {"text=A", "cue=A"}}, {1.234, {"text=A", "cue=A"}}, {1.239, {"text=A", "cue=A"}},
        {1.240, {}}, {2.000, {"text="}}, // the clear mark: a text, but no cue
    };
    for (const auto& [clock, expected] : cases) {
        seek(clock);
        deliveries.set({});
        engine->deliverTimedText();
        std::vector<std::string> got;
        for (const auto& d : deliveries.get()) {
            // The poller ticks too, on the global queue: only this call's deliveries count.
            if (!d.onMainThread) continue;
            got.push_back(d.kind + "=" + d.value);
            if (d.kind == "text") {
                EXPECT_DOUBLE_EQ(d.time, clock);
            }
        }
        EXPECT_EQ(got, expected) << "clock " << clock;
    }
}

TEST_F(TimedTextDeliveryTest, ThePollerDeliversOffTheMainThreadAndANewSourceReplacesTheOld) {
    seek(1.5);
    const std::string replaced = "<cuepoints><cuepoint time=\"1.5\">second</cuepoint></cuepoints>";
    const auto first = write("WEBVTT\n\n00:01.500 --> 00:03.000\nfirst\n"), second = write(replaced);
    facade->addTimedTextSource(first, "text/vtt");
    ASSERT_TRUE(runUntil([&] { return deliveries.get().size() >= 6; }));
    for (const auto& d : deliveries.get()) {
        EXPECT_FALSE(d.onMainThread);
        EXPECT_EQ(d.value, "first");
    }

    facade->addTimedTextSource(first, "text/plain"); // unknown: ignored
    facade->addTimedTextSource(second, "application/nttml+xml");
    ASSERT_TRUE(runUntil([&] {
        const auto all = deliveries.get();
        return std::count_if(all.begin(), all.end(),
                             [&](const Delivery& d) { return d.value == replaced; }) >= 3;
    }));
    // Once the new parser is in place the old entries are gone; the TTML source has no cues.
    deliveries.set({});
    ASSERT_TRUE(runUntil([&] { return deliveries.get().size() >= 3; }));
    for (const auto& d : deliveries.get()) {
        EXPECT_EQ(d.kind, "text");
        EXPECT_EQ(d.value, replaced);
        EXPECT_FALSE(d.onMainThread);
    }

    // A reset stops the poller.
    engine->reset();
    engine->playerItem.set(item);
    platform::RunLoop::main().runFor(50ms);
    deliveries.set({});
    platform::RunLoop::main().runFor(50ms);
    EXPECT_TRUE(deliveries.get().empty());
}

} // namespace
} // namespace ovalto
