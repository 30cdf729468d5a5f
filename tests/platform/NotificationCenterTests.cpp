#include "platform/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace ovalto::platform;

namespace {

struct Sender {
    int id = 0;
};

TEST(NotificationCenter, FiltersByNameAndObject) {
    auto a = std::make_shared<Sender>();
    auto b = std::make_shared<Sender>();
    std::weak_ptr<const void> dead = std::make_shared<Sender>(); // an observer of it matches nothing
    const struct {
        const char* observedName;
        std::weak_ptr<const void> observedObject;
        const char* postedName;
        std::shared_ptr<Sender> postedObject;
        bool delivered;
    } cases[] = {
        {"ready", {}, "ready", nullptr, true}, {"ready", {}, "ready", a, true},
        {"ready", {}, "stalled", a, false},    {"", {}, "stalled", b, true},
        {"ready", a, "ready", a, true},        {"ready", a, "ready", b, false},
        {"ready", a, "ready", nullptr, false}, {"", a, "anything", a, true},
        {"", a, "anything", b, false},         {"ready", a, "stalled", a, false},
        {"ready", dead, "ready", b, false},    {"ready", dead, "ready", nullptr, false},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        const auto& c = cases[i];
        NotificationCenter center;
        int calls = 0;
        center.addObserver(c.observedName, c.observedObject, [&](const Notification&) { ++calls; });
        center.post(c.postedName, c.postedObject);
        EXPECT_EQ(calls, c.delivered ? 1 : 0);
    }
}

TEST(NotificationCenter, DeliversNameObjectAndUserInfoInOrderOfRegistration) {
    NotificationCenter center;
    auto sender = std::make_shared<Sender>(Sender{42});
    std::vector<int> order;
    center.addObserver("ready", {}, [&](const Notification& n) {
        order.push_back(1);
        EXPECT_EQ(n.name, "ready");
        ASSERT_TRUE(n.objectAs<Sender>());
        EXPECT_EQ(n.objectAs<Sender>()->id, 42);
        EXPECT_EQ(std::any_cast<int>(n.userInfo.at("bitrate")), 800000);
    });
    center.addObserver("ready", {}, [&](const Notification&) { order.push_back(2); });
    center.post("ready", sender, {{"bitrate", 800000}});
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(NotificationCenter, RemovalTakesEffectEvenDuringAPost) {
    NotificationCenter center;
    std::vector<std::string> calls;
    NotificationCenter::Token self = 0, later = 0;
    self = center.addObserver("tick", {}, [&](const Notification&) {
        calls.push_back("self");
        center.removeObserver(self);
        center.removeObserver(later);
    });
    later = center.addObserver("tick", {}, [&](const Notification&) { calls.push_back("later"); });
    auto kept = center.addObserver("tick", {}, [&](const Notification&) { calls.push_back("kept"); });

    center.post("tick");
    center.post("tick");
    EXPECT_EQ(calls, (std::vector<std::string>{"self", "kept", "kept"}));

    center.removeObserver(kept);
    center.removeObserver(kept); // unknown tokens are ignored
    center.post("tick");
    EXPECT_EQ(calls.size(), 3u);
}

TEST(NotificationCenter, PostsAndRegistrationsFromManyThreads) {
    NotificationCenter center;
    std::atomic<int> delivered{0};
    center.addObserver("load", {}, [&](const Notification&) { ++delivered; });
    // All threads start together: one that ran its loop before the next one started would
    // never meet another in the center.
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            ++ready;
            while (ready.load() < 4)
                std::this_thread::yield();
            for (int i = 0; i < 500; ++i) {
                auto token = center.addObserver("other", {}, [](const Notification&) {});
                center.post("load");
                center.removeObserver(token);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(delivered, 2000);
}

} // namespace
