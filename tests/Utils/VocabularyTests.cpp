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

// Bridged errors carry the case's ordinal as their code and come back as the same case.
TEST(OvaltoErrorTest, BridgesWithTheOrdinalAndBack) {
    const auto error = OvaltoError::inputParam("PlayList response is not valid.", 404);
    EXPECT_EQ(error.code(), 404);
    const auto bridged = error.toError();
    EXPECT_EQ(bridged.domain, "Ovalto.OvaltoError");
    EXPECT_EQ(bridged.code, 0);
    EXPECT_EQ(bridged.localizedDescription, "PlayList response is not valid.");
    EXPECT_EQ(OvaltoError::from(bridged), error);
    EXPECT_EQ(OvaltoError::initFailed("x", 1).toError().code, 8);
    EXPECT_EQ(OvaltoError::assetPlayable().toError().code, 11);
    EXPECT_EQ(OvaltoError::assetPlayable().code(), 0x8000);
    EXPECT_FALSE(OvaltoError::from(platform::Error{"NSURLErrorDomain", -1001, "timed out", {}}));
}

TEST(OVALogTest, LineFormatPercentSignsAndThreshold) {
    LogLevelGuard guard;
    Ovalto::logLevel = OVALogLevel::debug;
    {
        LogCapture capture;
        OVALog(OVALogLevel::error, "asset is not playable.", "prepareInternal(keys:)", "/a/b/F", 203);
        OVALog(OVALogLevel::info, "", "prepare(with:customHeaders:)", "NoSlash.cpp", 7);
        OVALog(OVALogLevel::debug, "x", "f", "dir/", 1);
        OVALog(OVALogLevel::warning, "100% %@ %s %n", "f", "F", 1);
        EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                       "[Error F|prepareInternal(keys:)|203] asset is not playable.",
                                       "[Info NoSlash.cpp|prepare(with:customHeaders:)|7] ",
                                       "[Debug unknown|f|1] x",
                                       "[Warning F|f|1] 100% %@ %s %n",
                                   }));
    }
    struct Case {
        OVALogLevel threshold;
        std::vector<std::string> expected;
    };
    for (const auto& c : std::vector<Case>{{OVALogLevel::info, {"Info", "Warning", "Error"}},
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
        {0.0, "0.0"},
        {0.00001, "1e-05"},
        {0.000012345, "1.2345e-05"},
        {9007199254740992.0, "9007199254740992.0"},
        {1e20, "1e+20"},
        {std::numeric_limits<double>::infinity(), "inf"},
        {std::nan(""), "nan"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(describeDecimal(c.value), c.text) << c.text;
}

TEST(MediaTypeTest, HlsTypeValuesMapToMediaTypes) {
    EXPECT_EQ(MediaType::create("closed-captions"), MediaType::text);
    EXPECT_EQ(MediaType::create("Audio"), MediaType::audio);
    EXPECT_EQ(MediaType::create("foo"), MediaType::video);
    EXPECT_FALSE(MediaType::fromRawValue("AUDIO"));
}
