// A fragment keeps what the playlist said in a few words; what it gives back must be exactly what
// it was made with, and its guarded fields must hold under concurrent requests.
#include "PlayList/Fragment.h"

#include <gtest/gtest.h>

#include <limits>
#include <thread>

using namespace ovalto;
using platform::MediaTime;

// A long VOD holds a hundred thousand of these: the compact fields share the index's padding.
static_assert(sizeof(Fragment) <= 88, "a fragment grew");

namespace {

constexpr auto int64Max = std::numeric_limits<std::int64_t>::max();
constexpr auto int64Min = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t int32Max = std::numeric_limits<std::int32_t>::max();

MediaTime mediaTime(std::int64_t value, std::int32_t timescale = 1000, std::uint32_t flags = MediaTime::valid,
                    std::int64_t epoch = 0) {
    MediaTime t;
    t.value = value;
    t.timescale = timescale;
    t.flags = flags;
    t.epoch = epoch;
    return t;
}

// Field by field: MediaTime's own == compares by value across timescales.
std::string describe(const std::optional<MediaTime>& t) {
    if (!t) return "none";
    return std::to_string(t->value) + "/" + std::to_string(t->timescale) + " flags " +
           std::to_string(t->flags) + " epoch " + std::to_string(t->epoch);
}

} // namespace

TEST(FragmentTest, GivesBackExactlyWhatItWasMadeWith) {
    struct Case {
        const char* what;
        std::optional<MediaTime> start;
        std::optional<MediaTime> duration;
        std::optional<std::int64_t> offset;
        std::optional<std::int64_t> length;
    };
    const std::vector<Case> cases{
        {"nothing", std::nullopt, std::nullopt, std::nullopt, std::nullopt},
        {"a usual segment", mediaTime(120120), mediaTime(6006), 1234, 400000},
        {"zeros are values, not absence", mediaTime(0), mediaTime(0), 0, 0},
        {"a length without an offset", mediaTime(5), std::nullopt, std::nullopt, 7},
        {"negative times", mediaTime(-6006), mediaTime(-500), -1, -2},
        {"the longest duration kept in short form", mediaTime(1), mediaTime(int32Max), 1, 1},
        {"one millisecond past it", mediaTime(1), mediaTime(int32Max + 1), 1, 1},
        {"the most negative short duration", mediaTime(0), mediaTime(-int32Max), std::nullopt, std::nullopt},
        {"one millisecond below it", mediaTime(0), mediaTime(-int32Max - 1), std::nullopt, std::nullopt},
        {"the 64-bit ends", mediaTime(int64Max), mediaTime(1), int64Max, int64Min},
        {"the 64-bit ends the other way", mediaTime(int64Min), mediaTime(1), int64Min, int64Max},
        {"another timescale", mediaTime(540540, 90000), mediaTime(6006, 1000), std::nullopt, std::nullopt},
        {"a rounded sum", mediaTime(18000, 1000, MediaTime::valid | MediaTime::hasBeenRounded),
         mediaTime(6000), std::nullopt, std::nullopt},
        {"an infinite start", mediaTime(0, 0, MediaTime::valid | MediaTime::positiveInfinity),
         mediaTime(6000), std::nullopt, std::nullopt},
        {"an invalid duration", mediaTime(0), MediaTime::invalid(), std::nullopt, std::nullopt},
        {"an epoch", mediaTime(100, 1000, MediaTime::valid, 3), mediaTime(1), std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        const Fragment fragment(c.start, c.duration, nullptr, c.offset, c.length);
        EXPECT_EQ(describe(fragment.start()), describe(c.start)) << c.what;
        EXPECT_EQ(describe(fragment.duration()), describe(c.duration)) << c.what;
        EXPECT_EQ(fragment.offset(), c.offset) << c.what;
        EXPECT_EQ(fragment.length(), c.length) << c.what;
        EXPECT_FALSE(fragment.url.get()) << c.what;
    }
}

TEST(FragmentTest, GuardedFieldsHoldUnderConcurrentRequests) {
    const SubUrlResolver resolver(*platform::Url::parse("http://cdn.test/v/index.m3u8"));
    const FragmentUrl::Source source{&resolver, "seg.ts"};
    Fragment fragment(mediaTime(0), mediaTime(6000), &source, std::nullopt, std::nullopt);
    const auto replacement = *platform::Url::parse("http://edge.test/v/seg.ts");
    constexpr int rounds = 2000;
    EXPECT_EQ(fragment.url.get()->absoluteString(), "http://cdn.test/v/seg.ts");
    fragment.url.set(std::nullopt);

    std::thread writer([&] {
        for (int i = 0; i < rounds; ++i) {
            fragment.url.set(i % 2 ? std::optional(replacement) : std::nullopt);
            fragment.index.set(i);
            // Two entries written in one step are always seen together.
            fragment.attributes.with([&](auto& attributes) {
                attributes["FragmentIndex"] = std::to_string(i);
                attributes["Bitrate"] = std::to_string(i);
            });
            if (i % 100 == 0) fragment.attributes.set({});
        }
    });
    std::thread reader([&] {
        for (int i = 0; i < rounds; ++i) {
            const auto url = fragment.url.get();
            if (url) {
                EXPECT_EQ(url->absoluteString(), replacement.absoluteString());
            }
            const auto index = fragment.index.get();
            if (index) {
                EXPECT_LT(*index, rounds);
            }
            const auto attributes = fragment.attributes.get();
            const auto a = attributes.find("FragmentIndex");
            const auto b = attributes.find("Bitrate");
            ASSERT_EQ(a == attributes.end(), b == attributes.end());
            if (a != attributes.end()) {
                EXPECT_EQ(a->second, b->second);
            }
        }
    });
    writer.join();
    reader.join();
    EXPECT_EQ(fragment.index.get(), rounds - 1);
    EXPECT_EQ(fragment.url.get()->absoluteString(), replacement.absoluteString());
}
