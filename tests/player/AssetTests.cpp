#include "ItemWatcher.h"
#include "TestDelegate.h"

#include "platform/Asset.h"
#include "platform/Cookie.h"
#include "platform/Player.h"
#include "platform/PlayerItem.h"
#include "support/HlsOrigin.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>

using namespace ovalto::platform;
using ovalto::test::HlsOrigin;
using ovalto::test::ItemWatcher;
using ovalto::test::TestDelegate;

namespace {

struct AssetTest : ::testing::Test {
    std::shared_ptr<HlsOrigin> origin = std::make_shared<HlsOrigin>();

    // Loads "playable" and waits for it (the deadline only guards against a hang).
    static Asset::ValueStatus load(const std::shared_ptr<Asset>& asset) {
        std::atomic<bool> done{false};
        asset->loadValuesAsynchronously({Asset::playableKey}, [&] { done = true; });
        EXPECT_TRUE(ItemWatcher::waitUntil([&] { return done.load(); }));
        return asset->statusOfValue(Asset::playableKey);
    }
    std::shared_ptr<Asset> httpAsset(const std::string& path, AssetOptions options = {}) {
        return Asset::create(*Url::parse(origin->url(path)), std::move(options));
    }
};

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

std::vector<std::string> titles(const MediaSelectionGroup& group) {
    std::vector<std::string> result;
    for (const auto& option : group.options) {
        for (const auto& item : option.commonMetadata) {
            if (item.commonKey == "title" && item.stringValue) result.push_back(*item.stringValue);
        }
    }
    return result;
}

} // namespace

TEST_F(AssetTest, SelectionGroupsHaveOneOptionPerNameInSourceOrder) {
    origin->serve("/sel/master.m3u8", selectionMaster);
    origin->publishMedia("sel/1/800000", 1, 1.0, 10); // the first variant plays its default VIDEO rendition
    auto asset = httpAsset("/sel/master.m3u8");
    EXPECT_FALSE(asset->mediaSelectionGroup(MediaCharacteristic::audible)); // nothing known before loading
    ASSERT_EQ(load(asset).status, KeyValueStatus::loaded);
    ASSERT_TRUE(asset->isPlayable());

    struct Case {
        MediaCharacteristic characteristic;
        std::vector<std::string> titles;
        std::vector<std::string> mediaTypes;
        std::optional<std::string> defaultOption;
    };
    const Case cases[] = {
        {MediaCharacteristic::audible, {"English", "Japanese"}, {"audio", "audio"}, "English"},
        {MediaCharacteristic::legible, {"English", "CC1"}, {"subtitles", "closedCaptions"}, std::nullopt},
        {MediaCharacteristic::visual, {"800000", "2000000"}, {"video", "video"}, "2000000"},
    };
    for (const Case& c : cases) {
        const auto group = asset->mediaSelectionGroup(c.characteristic);
        ASSERT_TRUE(group);
        EXPECT_EQ(titles(*group), c.titles);
        std::vector<std::string> mediaTypes;
        for (const auto& option : group->options)
            mediaTypes.push_back(option.mediaType);
        EXPECT_EQ(mediaTypes, c.mediaTypes);
        EXPECT_EQ(group->defaultOption ? std::optional(group->defaultOption->displayName) : std::nullopt,
                  c.defaultOption);
    }
    EXPECT_EQ(asset->mediaSelectionGroup(MediaCharacteristic::audible)->options[1].extendedLanguageTag, "ja");
}

TEST_F(AssetTest, PresentationWithoutRenditionsHasNoGroups) {
    origin->publishMedia("plain", 2, 1.0, 10);
    auto asset = httpAsset("/plain/media.m3u8");
    ASSERT_EQ(load(asset).status, KeyValueStatus::loaded);
    for (auto characteristic :
         {MediaCharacteristic::audible, MediaCharacteristic::legible, MediaCharacteristic::visual}) {
        EXPECT_FALSE(asset->mediaSelectionGroup(characteristic));
    }
}

TEST_F(AssetTest, PlayableFollowsWhatTheResourceTurnsOutToBe) {
    origin->serve("/clip.mp4", std::string(1000, 'm'));
    origin->serve("/empty.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-ENDLIST\n");
    origin->serve("/garbled.m3u8", "#EXTM3U\nseg.ts\n");
    origin->serve("/orphan.m3u8", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\ngone.m3u8\n");
    auto delegate = std::make_shared<TestDelegate>(origin);
    auto queue = DispatchQueue::serial("test.resource");

    const auto file =
        std::filesystem::temp_directory_path() / ("player-asset-" + std::to_string(::getpid()) + ".m3u8");
    std::ofstream(file) << "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\nseg.ts\n#EXT-X-ENDLIST\n";

    struct Case {
        std::string url;
        bool throughDelegate;
        KeyValueStatus status;
        bool playable;
        std::optional<std::pair<std::string, std::int64_t>> error; // domain, code
    };
    const Case cases[] = {
        {origin->url("/clip.mp4"), false, KeyValueStatus::loaded, true,
         std::nullopt}, // not HLS, but readable
        {origin->url("/missing.m3u8"), false, KeyValueStatus::failed, false, {{httpStatusErrorDomain, 404}}},
        {origin->url("/empty.m3u8"), false, KeyValueStatus::loaded, false, std::nullopt},
        {origin->url("/garbled.m3u8"), false, KeyValueStatus::loaded, false, std::nullopt},
        {origin->url("/orphan.m3u8"), false, KeyValueStatus::failed, false, {{httpStatusErrorDomain, 404}}},
        {Url::fileUrl(file.string()).absoluteString(), false, KeyValueStatus::loaded, true, std::nullopt},
        {"test://media/clip.mp4",
         false,
         KeyValueStatus::failed,
         false,
         {{Error::loaderDomain, loaderErrorNoDelegate}}},
        {"test://media/clip.mp4", true, KeyValueStatus::loaded, false,
         std::nullopt}, // only HLS comes that way
    };
    for (const Case& c : cases) {
        auto asset = Asset::create(*Url::parse(c.url));
        if (c.throughDelegate) asset->resourceLoader()->setDelegate(delegate, queue);
        const auto status = load(asset);
        EXPECT_EQ(status.status, c.status) << c.url;
        EXPECT_EQ(asset->isPlayable(), c.playable) << c.url;
        EXPECT_EQ(status.error ? std::optional(std::pair(status.error->domain, status.error->code))
                               : std::nullopt,
                  c.error)
            << c.url;
    }
    std::filesystem::remove(file);
}

TEST_F(AssetTest, CompletionRunsOnceForEveryCallerAndUnknownKeysFail) {
    origin->publishMedia("twice", 1, 1.0, 10);
    auto asset = httpAsset("/twice/media.m3u8");
    std::atomic<int> calls{0};
    for (int i = 0; i < 3; ++i)
        asset->loadValuesAsynchronously({Asset::playableKey}, [&] { ++calls; });
    ASSERT_TRUE(ItemWatcher::waitUntil([&] { return calls == 3; }));
    asset->loadValuesAsynchronously({Asset::playableKey}, [&] { ++calls; }); // already loaded
    ASSERT_TRUE(ItemWatcher::waitUntil([&] { return calls == 4; }));
    EXPECT_EQ(origin->served().size(), 1u); // loaded once
    EXPECT_EQ(asset->statusOfValue("duration").status, KeyValueStatus::failed);
}

TEST_F(AssetTest, TheAssetsCookiesGoWithEveryRequestOfItsPlayer) {
    origin->publishMedia("cookies", 2, 0.5, 100);
    auto cookie = Cookie::make("session", "abc123", "127.0.0.1");
    ASSERT_TRUE(cookie);
    auto item =
        PlayerItem::create(httpAsset("/cookies/media.m3u8", AssetOptions{std::vector<Cookie>{*cookie}}));
    ItemWatcher watcher(item);
    auto player = Player::create(item);
    player->setRate(8);
    ASSERT_TRUE(watcher.waitFor(playerItemDidPlayToEndTimeNotification));
    const auto served = origin->served();
    ASSERT_EQ(served.size(), 3u);
    for (const auto& request : served) {
        ASSERT_TRUE(request.cookie) << request.path;
        EXPECT_NE(request.cookie->find("session=abc123"), std::string::npos) << request.path;
    }
}
