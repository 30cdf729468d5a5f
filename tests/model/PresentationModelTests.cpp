// The presentation tree is written by playlist parses while segment requests read it.
#include "PlayList/Presentation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace ovalto;

TEST(PresentationModelTest, ResetForgetsSegmentsButKeepsIdentityAndRunningStart) {
    Representation r;
    r.bitrate.set(800000);
    r.url.set(platform::Url::parse("http://h/v.m3u8"));
    r.start.set(platform::MediaTime::make(12000, 1000));
    r.fragments.set({std::make_shared<Fragment>(), std::make_shared<Fragment>()});
    r.keyAttributes.set({{0, AttributeList{{"METHOD", "AES-128"}}}});
    r.mapAttributes.set(AttributeList{{"URI", "\"init.mp4\""}});
    r.reset();
    EXPECT_TRUE(r.fragments.get().empty());
    EXPECT_TRUE(r.keyAttributes.get().empty());
    EXPECT_TRUE(r.mapAttributes.get().empty());
    EXPECT_EQ(r.bitrate.get(), 800000);
    ASSERT_TRUE(r.url.get());
    EXPECT_EQ(r.url.get()->absoluteString(), "http://h/v.m3u8");
    EXPECT_EQ(r.start.get()->value, 12000);
}

TEST(PresentationModelTest, AttributeListKeepsInsertionOrderAndReplacesInPlace) {
    AttributeList list{{"BANDWIDTH", "1"}, {"CODECS", "\"a\""}};
    list.set("RESOLUTION", "1x1");
    list.set("BANDWIDTH", "2");
    std::vector<std::string> names;
    for (const auto& [name, value] : list)
        names.push_back(name + "=" + value);
    EXPECT_EQ(names, (std::vector<std::string>{"BANDWIDTH=2", "CODECS=\"a\"", "RESOLUTION=1x1"}));
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
            auto fragment = std::make_shared<Fragment>();
            fragment->index.set(reload + i);
            fragments.push_back(fragment);
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
