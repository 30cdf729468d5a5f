// Reading side-car documents: text encodings, files, loopback servers, and documents too large
// or unreadable.
#include "TimedText/DocumentReader.h"
#include "TimedText/NHKTTML.h"
#include "TimedText/SubRip.h"
#include "TimedText/TextDecoder.h"
#include "support/LogCapture.h"
#include "support/LoopbackServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>

using namespace ovalto;
using test::LogCapture;
using test::LoopbackServer;

namespace {

// "字幕 café" in UTF-8.
const std::string jaText = "\xE5\xAD\x97\xE5\xB9\x95 caf\xC3\xA9";

std::string utf16(const std::string& ascii, bool bigEndian) {
    std::string out;
    for (char c : ascii) {
        out += bigEndian ? '\0' : c;
        out += bigEndian ? c : '\0';
    }
    return out;
}

class TempFile {
public:
    explicit TempFile(const std::string& contents)
        : path_(std::filesystem::temp_directory_path() /
                ("ovalto-timedtext-" + std::to_string(::getpid()) + "-" + std::to_string(counter_++))) {
        std::ofstream(path_, std::ios::binary) << contents;
    }
    ~TempFile() { std::filesystem::remove(path_); }
    platform::Url url() const { return platform::Url::fileUrl(path_.string()); }

private:
    static inline std::atomic<int> counter_{0};
    std::filesystem::path path_;
};

} // namespace

TEST(TextDecoderTest, DetectsTheEncodingAndDropsTheMark) {
    const struct {
        const char* what;
        std::string bytes;
        std::string text;
    } cases[] = {
        {"plain UTF-8", jaText, jaText},
        {"UTF-8 mark", "\xEF\xBB\xBF" + jaText, jaText},
        {"UTF-16 LE mark", "\xFF\xFE" + utf16("1\r\nA", false), "1\r\nA"},
        {"UTF-16 BE mark", "\xFE\xFF" + utf16("1\r\nA", true), "1\r\nA"},
        {"Shift_JIS", "\x8E\x9A\x96\x8B", "\xE5\xAD\x97\xE5\xB9\x95"},
        {"Latin-1 when nothing else fits", "caf\xE9 \xFF", "caf\xC3\xA9 \xC3\xBF"},
        {"overlong UTF-8 is not UTF-8 but half-width kana", "\xC0\xAF", "\xEF\xBE\x80\xEF\xBD\xAF"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(TextDecoder::decode(c.bytes), c.text) << c.what;
}

TEST(DocumentTest, FilesAreDecodedBeforeTheyAreParsed) {
    TempFile little("\xFF\xFE" + utf16("1\n00:00:01,000 --> 00:00:02,000\nA\n", false));
    SubRip parser;
    parser.parse(little.url());
    ASSERT_EQ(parser.cues.size(), 1u);
    EXPECT_EQ(parser.texts.at(100), "A");
    TempFile shiftJis("00:00:01,000 --> 00:00:02,000\n\x8E\x9A\x96\x8B\n");
    SubRip japanese;
    japanese.parse(shiftJis.url());
    EXPECT_EQ(japanese.texts.at(100), "\xE5\xAD\x97\xE5\xB9\x95");
}

TEST(DocumentTest, RemoteDocumentsComeWithTheConfiguredHeaders) {
    std::atomic<int> requests{0};
    LoopbackServer server([&](httplib::Server& http) {
        http.Get("/subs.srt", [&](const httplib::Request& request, httplib::Response& response) {
            ++requests;
            if (request.get_header_value("X-Token") != "secret") {
                response.status = 403;
                return;
            }
            response.set_content("00:00:01,000 --> 00:00:02,000\nremote\n", "application/x-subrip");
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
    const auto missing = platform::Url::fileUrl("/nonexistent/ovalto/subs.srt");
    {
        LogCapture capture;
        SubRip parser;
        parser.parse(missing);
        EXPECT_TRUE(parser.texts.empty());
        ASSERT_EQ(capture.lines().size(), 1u);
        EXPECT_TRUE(capture.lines()[0].starts_with("[Error SubRip.cpp|parse(with:)|"));
    }
    {
        LogCapture capture;
        NHKTTML parser;
        parser.parse(missing);
        EXPECT_TRUE(parser.texts.empty());
        ASSERT_EQ(capture.lines().size(), 1u);
        EXPECT_NE(capture.lines()[0].find("] file:///nonexistent/ovalto/subs.srt is not valid."),
                  std::string::npos)
            << capture.lines()[0];
    }
    {
        // A sparse file above the limit is refused without being read.
        TempFile huge("");
        std::filesystem::resize_file(huge.url().path(), DocumentReader::maximumSize + 1);
        LogCapture capture;
        SubRip parser;
        parser.parse(huge.url());
        EXPECT_TRUE(parser.texts.empty());
        EXPECT_TRUE(capture.contains("is larger than"));
    }
}

TEST(DocumentTest, AFiftyMegabyteLineParses) {
    std::string line(50u << 20, 'x');
    TempFile file("00:00:01,000 --> 00:00:02,000\n" + line + "\n");
    SubRip parser;
    parser.parse(file.url());
    EXPECT_EQ(parser.texts.at(100).size(), line.size());
}
