// The playlist model: fragments keep what the playlist said in a few words, and the presentation
// tree is written by playlist parses while segment requests read it.
#include "PlayList/Fragment.h"
#include "PlayList/Presentation.h"

#include <gtest/gtest.h>

#include <atomic>
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
constexpr auto none = std::nullopt;

MediaTime ms(std::int64_t value, std::int32_t timescale = 1000, std::uint32_t flags = MediaTime::valid,
             std::int64_t epoch = 0) {
    return {value, timescale, flags, epoch};
}

// Field by field: MediaTime's own == compares by value across timescales.
std::optional<std::tuple<std::int64_t, std::int32_t, std::uint32_t, std::int64_t>>
fields(const std::optional<MediaTime>& t) {
    if (!t) return std::nullopt;
    return std::tuple(t->value, t->timescale, t->flags, t->epoch);
}

TEST(FragmentTest, GivesBackExactlyWhatItWasMadeWith) {
    // What, start, duration, byte offset and length.
    for (const auto& [what, start, duration, offset, length] :
         std::initializer_list<std::tuple<const char*, std::optional<MediaTime>, std::optional<MediaTime>,
                                          std::optional<std::int64_t>, std::optional<std::int64_t>>>{
             {"nothing", none, none, none, none},
             {"a usual segment", ms(120120), ms(6006), 1234, 400000},
             {"zeros are values, not absence", ms(0), ms(0), 0, 0},
             {"a length without an offset", ms(5), none, none, 7},
             {"negative times", ms(-6006), ms(-500), -1, -2},
             {"the longest duration kept in short form", ms(1), ms(int32Max), 1, 1},
             {"one millisecond past it", ms(1), ms(int32Max + 1), 1, 1},
             {"the most negative short duration", ms(0), ms(-int32Max), none, none},
             {"one millisecond below it", ms(0), ms(-int32Max - 1), none, none},
             {"the 64-bit ends", ms(int64Max), ms(1), int64Max, int64Min},
             {"the 64-bit ends the other way", ms(int64Min), ms(1), int64Min, int64Max},
             {"another timescale", ms(540540, 90000), ms(6006, 1000), none, none},
             {"a rounded sum", ms(18000, 1000, MediaTime::valid | MediaTime::hasBeenRounded), ms(6000), none,
              none},
             {"an infinite start", ms(0, 0, MediaTime::valid | MediaTime::positiveInfinity), ms(6000), none,
              none},
             {"an invalid duration", ms(0), MediaTime::invalid(), none, none},
             {"an epoch", ms(100, 1000, MediaTime::valid, 3), ms(1), none, none},
         }) {
        const Fragment f(start, duration, nullptr, offset, length);
        EXPECT_EQ(std::tuple(fields(f.start()), fields(f.duration()), f.offset(), f.length(), f.url.get()),
                  std::tuple(fields(start), fields(duration), offset, length, std::nullopt))
            << what;
    }
}

TEST(FragmentTest, GuardedFieldsHoldUnderConcurrentRequests) {
    const SubUrlResolver resolver(*platform::Url::parse("http://cdn.test/v/index.m3u8"));
    const FragmentUrl::Source source{&resolver, "seg.ts"};
    Fragment fragment(ms(0), ms(6000), &source, none, none);
    const auto replacement = platform::Url::parse("http://edge.test/v/seg.ts");
    constexpr int rounds = 2000;
    EXPECT_EQ(fragment.url.get()->absoluteString(), "http://cdn.test/v/seg.ts");
    fragment.url.set(none);

    std::thread writer([&] {
        for (int i = 0; i < rounds; ++i) {
            fragment.url.set(i % 2 ? replacement : none);
            fragment.index.set(i);
            // Two entries written in one step are always seen together.
            fragment.attributes.with([&](auto& attributes) {
                attributes["FragmentIndex"] = attributes["Bitrate"] = std::to_string(i);
            });
            if (i % 100 == 0) fragment.attributes.set({});
        }
    });
    std::thread reader([&] {
        for (int i = 0; i < rounds; ++i) {
            EXPECT_EQ(fragment.url.get().value_or(*replacement), replacement);
            EXPECT_LT(fragment.index.get().value_or(0), rounds);
            const auto attributes = fragment.attributes.get();
            const auto entry = [&](const char* name) {
                return attributes.contains(name) ? attributes.at(name) : "";
            };
            EXPECT_EQ(entry("FragmentIndex"), entry("Bitrate"));
        }
    });
    writer.join();
    reader.join();
    EXPECT_EQ(std::tuple(fragment.index.get(), fragment.url.get()), std::tuple(rounds - 1, replacement));
}

TEST(PresentationModelTest, ResetForgetsSegmentsButKeepsIdentityAndRunningStart) {
    Representation r;
    r.bitrate.set(800000);
    r.url.set(platform::Url::parse("http://h/v.m3u8"));
    r.start.set(MediaTime::make(12000, 1000));
    r.fragments.set({std::make_shared<Fragment>(), std::make_shared<Fragment>()});
    r.keyAttributes.set({{0, AttributeList{{"METHOD", "AES-128"}}}});
    r.mapAttributes.set(AttributeList{{"URI", "\"init.mp4\""}});
    r.reset();
    EXPECT_TRUE(r.fragments.get().empty() && r.keyAttributes.get().empty() && r.mapAttributes.get().empty());
    EXPECT_EQ(std::tuple(r.bitrate.get(), r.url.get(), fields(r.start.get())),
              std::tuple(800000, platform::Url::parse("http://h/v.m3u8"), fields(ms(12000))));
}

TEST(PresentationModelTest, AttributeListKeepsInsertionOrderAndReplacesInPlace) {
    AttributeList list{{"BANDWIDTH", "1"}, {"CODECS", "\"a\""}};
    list.set("RESOLUTION", "1x1");
    list.set("BANDWIDTH", "2");
    std::vector<std::string> entries;
    for (const auto& [name, value] : list)
        entries.push_back(name + "=" + value);
    EXPECT_EQ(entries, (std::vector<std::string>{"BANDWIDTH=2", "CODECS=\"a\"", "RESOLUTION=1x1"}));
    EXPECT_TRUE(list.remove("CODECS"));
    EXPECT_FALSE(list.contains("CODECS"));
}

TEST(PresentationModelTest, ConcurrentReadersSeeWholeSnapshotsWhileAWriterReplacesThem) {
    auto presentation = std::make_shared<Presentation>();
    auto stream = std::make_shared<Stream>();
    auto representation = std::make_shared<Representation>();
    stream->representations.set({{800000, representation}});
    presentation->streams.set({stream});

    std::atomic<bool> done{false};
    std::atomic<long> reads{0};
    auto reader = [&] {
        while (!done.load()) {
            auto s = presentation->stream(0);
            ASSERT_TRUE(s);
            auto r = s->representation(800000);
            ASSERT_TRUE(r);
            auto fragments = r->fragments.get();
            // A published list is always whole: its indices are consecutive from its first.
            for (std::size_t i = 1; i < fragments.size(); ++i)
                ASSERT_EQ(*fragments[i]->index.get(), *fragments[0]->index.get() + static_cast<long>(i));
            presentation->edgeList.with([](const EdgeList& edges) { return edges.size(); });
            reads.fetch_add(1);
        }
    };
    std::thread a(reader), b(reader);
    for (int reload = 0; reload < 200; ++reload) {
        std::vector<std::shared_ptr<Fragment>> fragments;
        for (int i = 0; i < 6; ++i) {
            fragments.push_back(std::make_shared<Fragment>());
            fragments.back()->index.set(reload + i);
        }
        representation->reset();
        representation->sequence.set(reload);
        representation->fragments.set(std::move(fragments));
        presentation->edgeList.set({{reload, "http://edge/"}});
        if (reload % 50 == 0) presentation->streams.set({stream});
    }
    while (reads.load() < 100)
        std::this_thread::yield();
    done = true;
    a.join();
    b.join();
}

} // namespace
