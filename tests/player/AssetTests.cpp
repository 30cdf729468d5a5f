#include "PlayerFixture.h"

#include "platform/Cookie.h"

#include <filesystem>
#include <fstream>

using namespace ovalto::platform;
using ovalto::test::Playback;
using ovalto::test::waitUntil;
using AssetTest = ovalto::test::PlayerTest;

namespace {

const char* const selectionMaster = R"(#EXTM3U
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="lo",NAME="English",LANGUAGE="en",DEFAULT=YES,URI="a/en-lo.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="lo",NAME="Japanese",LANGUAGE="ja",URI="a/ja-lo.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="hi",NAME="English",LANGUAGE="en",DEFAULT=YES,URI="a/en-hi.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="hi",NAME="Japanese",LANGUAGE="ja",URI="a/ja-hi.m3u8"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",NAME="English",LANGUAGE="en",URI="s/en.m3u8"
#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID="cc",NAME="CC1",INSTREAM-ID="CC1"
#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID="800000",NAME="800000",DEFAULT=NO,URI="1/800000/media.m3u8"
#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID="800000",NAME="2000000",DEFAULT=YES,URI="1/800000/media.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=800000,AUDIO="lo",VIDEO="800000",SUBTITLES="subs",CLOSED-CAPTIONS="cc"
v/800000.m3u8
#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID="2000000",NAME="800000",DEFAULT=NO,URI="1/800000/media.m3u8"
#EXT-X-MEDIA:TYPE=VIDEO,GROUP-ID="2000000",NAME="2000000",DEFAULT=YES,URI="1/2000000/media.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=2000000,AUDIO="hi",VIDEO="2000000"
v/2000000.m3u8
)";

} // namespace

TEST_F(AssetTest, SelectionGroupsHaveOneOptionPerNameInSourceOrder) {
    origin->serve("/sel/master.m3u8", selectionMaster);
    origin->publishMedia("sel/1/800000", 1, 1.0, 10); // the first variant plays its default VIDEO rendition
    auto selection = asset("/sel/master.m3u8");
    EXPECT_FALSE(
        selection->mediaSelectionGroup(MediaCharacteristic::audible)); // nothing known before loading
    ASSERT_EQ(loadPlayable(selection).status, KeyValueStatus::loaded);
    ASSERT_TRUE(selection->isPlayable());

    struct Case {
        MediaCharacteristic characteristic;
        std::vector<std::string> titles, mediaTypes;
        std::optional<std::string> defaultOption;
    };
    const Case cases[] = {
        {MediaCharacteristic::audible, {"English", "Japanese"}, {"audio", "audio"}, "English"},
        {MediaCharacteristic::legible, {"English", "CC1"}, {"subtitles", "closedCaptions"}, std::nullopt},
        {MediaCharacteristic::visual, {"800000", "2000000"}, {"video", "video"}, "2000000"},
    };
    for (const Case& c : cases) {
        const auto group = selection->mediaSelectionGroup(c.characteristic);
        ASSERT_TRUE(group);
        std::vector<std::string> titles, mediaTypes;
        for (const auto& option : group->options) {
            mediaTypes.push_back(option.mediaType);
            for (const auto& item : option.commonMetadata) {
                if (item.commonKey == "title" && item.stringValue) titles.push_back(*item.stringValue);
            }
        }
        EXPECT_EQ(titles, c.titles);
        EXPECT_EQ(mediaTypes, c.mediaTypes);
        EXPECT_EQ(group->defaultOption ? std::optional(group->defaultOption->displayName) : std::nullopt,
                  c.defaultOption);
    }
    EXPECT_EQ(selection->mediaSelectionGroup(MediaCharacteristic::audible)->options[1].extendedLanguageTag,
              "ja");

    // A media playlist alone has no renditions to choose from.
    origin->publishMedia("plain", 2, 1.0, 10);
    auto plain = asset("/plain/media.m3u8");
    ASSERT_EQ(loadPlayable(plain).status, KeyValueStatus::loaded);
    for (auto characteristic :
         {MediaCharacteristic::audible, MediaCharacteristic::legible, MediaCharacteristic::visual}) {
        EXPECT_FALSE(plain->mediaSelectionGroup(characteristic));
    }
}

TEST_F(AssetTest, PlayableFollowsWhatTheResourceTurnsOutToBe) {
    origin->serve("/clip.mp4", std::string(1000, 'm'));
    origin->serve("/empty.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-ENDLIST\n");
    origin->serve("/garbled.m3u8", "#EXTM3U\nseg.ts\n");
    origin->serve("/orphan.m3u8", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\ngone.m3u8\n");
    delegate->failRequests("/err.m3u8", Error{"OvaltoError", 0x8400, "PlayList is not received.", {}});
    delegate->ignoreRequests("/silent.m3u8");
    const auto file =
        std::filesystem::temp_directory_path() / ("player-asset-" + std::to_string(::getpid()) + ".m3u8");
    std::ofstream(file) << "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\nseg.ts\n#EXT-X-ENDLIST\n";

    using ErrorId = std::optional<std::pair<std::string, std::int64_t>>; // domain, code
    struct Case {
        std::shared_ptr<Asset> asset;
        KeyValueStatus status;
        bool playable;
        ErrorId error;
    };
    auto timingOut = asset("/silent.m3u8", true);
    timingOut->resourceLoader()->setLoadingTimeout(std::chrono::milliseconds(100));
    const Case cases[] = {
        {asset("/clip.mp4"), KeyValueStatus::loaded, true, std::nullopt}, // not HLS, but readable
        {asset("/missing.m3u8"), KeyValueStatus::failed, false, {{httpStatusErrorDomain, 404}}},
        {asset("/empty.m3u8"), KeyValueStatus::loaded, false, std::nullopt},
        {asset("/garbled.m3u8"), KeyValueStatus::loaded, false, std::nullopt},
        {asset("/orphan.m3u8"), KeyValueStatus::failed, false, {{httpStatusErrorDomain, 404}}},
        {Asset::create(Url::fileUrl(file.string())), KeyValueStatus::loaded, true, std::nullopt},
        {Asset::create(*Url::parse("test://media/clip.mp4")),
         KeyValueStatus::failed,
         false,
         {{Error::loaderDomain, loaderErrorNoDelegate}}},
        {asset("/clip.mp4", true), KeyValueStatus::loaded, false, std::nullopt}, // only HLS comes that way
        {asset("/err.m3u8", true), KeyValueStatus::failed, false, {{"OvaltoError", 0x8400}}},
        {timingOut, KeyValueStatus::failed, false, {{Error::urlDomain, urlErrorTimedOut}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.asset->url().absoluteString());
        const auto status = loadPlayable(c.asset);
        EXPECT_EQ(status.status, c.status);
        EXPECT_EQ(c.asset->isPlayable(), c.playable);
        EXPECT_EQ(status.error ? ErrorId({status.error->domain, status.error->code}) : std::nullopt, c.error);
    }
    std::filesystem::remove(file);
}

TEST_F(AssetTest, CompletionRunsOnceForEveryCallerAndUnknownKeysFail) {
    origin->publishMedia("twice", 1, 1.0, 10);
    auto twice = asset("/twice/media.m3u8");
    std::atomic<int> calls{0};
    for (int i = 0; i < 3; ++i)
        twice->loadValuesAsynchronously({Asset::playableKey}, [&] { ++calls; });
    ASSERT_TRUE(waitUntil([&] { return calls == 3; }));
    twice->loadValuesAsynchronously({Asset::playableKey}, [&] { ++calls; }); // already loaded
    ASSERT_TRUE(waitUntil([&] { return calls == 4; }));
    EXPECT_EQ(origin->requests().size(), 1u); // loaded once
    EXPECT_EQ(twice->statusOfValue("duration").status, KeyValueStatus::failed);
}

TEST_F(AssetTest, TheAssetsCookiesGoWithEveryRequestOfItsPlayer) {
    origin->publishMedia("cookies", 2, 0.5, 100);
    auto cookie = Cookie::make("session", "abc123", "127.0.0.1");
    ASSERT_TRUE(cookie);
    Playback playback(PlayerItem::create(asset("/cookies/media.m3u8", false, {std::vector<Cookie>{*cookie}})),
                      settings, 8);
    ASSERT_TRUE(playback.playToEnd());
    const auto served = origin->requests();
    ASSERT_EQ(served.size(), 3u);
    for (const auto& request : served) {
        ASSERT_TRUE(request.cookie) << request.path;
        EXPECT_NE(request.cookie->find("session=abc123"), std::string::npos) << request.path;
    }
}
