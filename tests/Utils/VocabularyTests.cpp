// The shared vocabulary: error codes and texts, log line format and threshold, media types.
#include "ovalto/ConfigurationKey.h"
#include "ovalto/OVALog.h"
#include "ovalto/Ovalto.h"
#include "ovalto/OvaltoError.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace ovalto;
using ovalto::test::LogCapture;

namespace {

struct LogLevelGuard {
    OVALogLevel saved = Ovalto::logLevel.load();
    ~LogLevelGuard() { Ovalto::logLevel = saved; }
};

} // namespace

TEST(OvaltoErrorTest, PayloadCasesCarryMessageAndCodeAndBridgeWithTheirOrdinal) {
    auto error = OvaltoError::inputParam("PlayList response is not valid.", 404);
    EXPECT_EQ(error.code(), 404);
    EXPECT_EQ(error.errorDescription(), "PlayList response is not valid.");
    EXPECT_FALSE(error.failureReason());

    auto bridged = error.toError();
    EXPECT_EQ(bridged.domain, "Ovalto.OvaltoError");
    EXPECT_EQ(bridged.code, 0);
    EXPECT_EQ(bridged.localizedDescription, "PlayList response is not valid.");
    ASSERT_TRUE(OvaltoError::from(bridged));
    EXPECT_EQ(*OvaltoError::from(bridged), error);

    EXPECT_EQ(OvaltoError::initFailed("x", 1).toError().code, 8);
    EXPECT_FALSE(OvaltoError::from(platform::Error{"NSURLErrorDomain", -1001, "timed out", {}}));
}

TEST(OvaltoErrorTest, PayloadlessCasesReportTheCommonCode) {
    EXPECT_EQ(OvaltoError::assetPlayable().code(), 0x8000);
    EXPECT_EQ(OvaltoError::assetPlayable().errorDescription(), "asset is not playable");
    EXPECT_EQ(OvaltoError::assetPlayable().toError().code, 11);
}

TEST(OVALogTest, LineFormatAndFileName) {
    LogLevelGuard guard;
    Ovalto::logLevel = OVALogLevel::debug;
    LogCapture capture;
    OVALog(OVALogLevel::error, "asset is not playable.", "prepareInternal(keys:)", "/a/b/F", 203);
    OVALog(OVALogLevel::info, "", "prepare(with:customHeaders:)", "NoSlash.cpp", 7);
    OVALog(OVALogLevel::debug, "x", "f", "dir/", 1);
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "[Error F|prepareInternal(keys:)|203] asset is not playable.");
    EXPECT_EQ(lines[1], "[Info NoSlash.cpp|prepare(with:customHeaders:)|7] ");
    EXPECT_EQ(lines[2], "[Debug unknown|f|1] x");
}

TEST(OVALogTest, PercentSignsAreWrittenLiterally) {
    LogLevelGuard guard;
    Ovalto::logLevel = OVALogLevel::debug;
    LogCapture capture;
    OVALog(OVALogLevel::warning, "100% %@ %s %n", "f", "F", 1);
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0], "[Warning F|f|1] 100% %@ %s %n");
}

TEST(OVALogTest, ThresholdDropsLowerLevels) {
    LogLevelGuard guard;
    struct Case {
        OVALogLevel threshold;
        std::vector<std::string> expected;
    };
    for (const auto& c : std::vector<Case>{{OVALogLevel::debug, {"Debug", "Info", "Warning", "Error"}},
                                           {OVALogLevel::warning, {"Warning", "Error"}},
                                           {OVALogLevel::silent, {}}}) {
        Ovalto::logLevel = c.threshold;
        LogCapture capture;
        for (auto level : {OVALogLevel::debug, OVALogLevel::info, OVALogLevel::warning, OVALogLevel::error})
            OVALog(level, "m", "f", "F", 1);
        std::vector<std::string> levels;
        for (const auto& line : capture.lines())
            levels.push_back(line.substr(1, line.find(' ') - 1));
        EXPECT_EQ(levels, c.expected) << "threshold " << displayName(c.threshold);
    }
}

TEST(OVALogTest, DecimalsAreWrittenInTheirShortestForm) {
    const struct {
        double value;
        const char* text;
    } cases[] = {
        {2.02, "2.02"},
        {2500000.0, "2500000.0"},
        {0.1 + 0.2, "0.30000000000000004"},
        {-0.5, "-0.5"},
        {0.0, "0.0"},
        {100.0, "100.0"},
        {1234.5678, "1234.5678"},
        {0.0001, "0.0001"},
        {0.00001, "1e-05"},
        {0.000012345, "1.2345e-05"},
        {9007199254740992.0, "9007199254740992.0"},
        {1e20, "1e+20"},
        {-1.5e300, "-1.5e+300"},
        {5e-324, "5e-324"},
        {std::numeric_limits<double>::infinity(), "inf"},
        {std::nan(""), "nan"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(describeDecimal(c.value), c.text) << c.text;
}

TEST(MediaTypeTest, HlsTypeValuesMapToMediaTypes) {
    EXPECT_EQ(MediaType::create("SUBTITLES"), MediaType::text);
    EXPECT_EQ(MediaType::create("closed-captions"), MediaType::text);
    EXPECT_EQ(MediaType::create("Audio"), MediaType::audio);
    EXPECT_EQ(MediaType::create("VIDEO"), MediaType::video);
    EXPECT_EQ(MediaType::create("foo"), MediaType::video);
    EXPECT_EQ(MediaType::fromRawValue("audio"), MediaType::audio);
    EXPECT_FALSE(MediaType::fromRawValue("AUDIO"));
    EXPECT_EQ(MediaType(MediaType::text).rawValue(), "text");
}

TEST(MimeTypeTest, ExactStringsOnly) {
    EXPECT_EQ(MimeType::fromString("application/nttml+xml"), MimeType::nhkttml);
    EXPECT_EQ(MimeType::fromString("application/xml+nttml"), MimeType::nhkttml);
    EXPECT_EQ(MimeType::fromString("application/x-subrip"), MimeType::srt);
    EXPECT_EQ(MimeType::fromString("text/vtt"), MimeType::vtt);
    EXPECT_FALSE(MimeType::fromString("TEXT/VTT"));
    EXPECT_FALSE(MimeType::fromString("text/plain"));
}

TEST(ConfigurationTest, ValuesOfAnotherTypeCountAsAbsent) {
    Configurations configurations{{ConfigurationKey::scheme, std::string("https")},
                                  {ConfigurationKey::httpHeaders, std::string("not a map")}};
    EXPECT_EQ(configurationValue<std::string>(configurations, ConfigurationKey::scheme), "https");
    EXPECT_FALSE(configurationValue<Headers>(configurations, ConfigurationKey::httpHeaders));
    EXPECT_FALSE(configurationValue<std::string>(configurations, ConfigurationKey::contentUrl));
}
