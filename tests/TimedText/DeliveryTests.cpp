// Delivery of a side-car's texts and cues against a player item whose clock the test puts in
// place (a paused player seeks): exact keys, background threads, sources replaced mid-run.
#include "API/OvaltoAccess.h"
#include "ovalto/Ovalto.h"
#include "platform/Asset.h"
#include "platform/Player.h"
#include "platform/PlayerItem.h"
#include "platform/RunLoop.h"
#include "support/HlsOrigin.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

using namespace ovalto;
using namespace std::chrono_literals;

namespace {

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
        facade = Ovalto::create();
        engine = OvaltoAccess::engine(*facade);
        engine->playerItem.set(item); // as a preparation would
        facade->setOnTimedText([this](const platform::MediaTime& time, const std::string& text) {
            record({"text", text, time.seconds(), std::this_thread::get_id() == mainThread});
        });
        facade->setOnTimedTextCue([this](const std::shared_ptr<Cue>& cue) {
            record({"cue", cue->payload, 0, std::this_thread::get_id() == mainThread});
        });
    }
    void TearDown() override {
        player.reset();
        facade.reset();
        for (const auto& file : files)
            std::filesystem::remove(file);
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

    platform::Url write(const std::string& name, const std::string& contents) {
        auto path = std::filesystem::temp_directory_path() /
                    ("ovalto-delivery-" + std::to_string(::getpid()) + "-" + name);
        std::ofstream(path, std::ios::binary) << contents;
        files.push_back(path);
        return platform::Url::fileUrl(path.string());
    }

    void seek(double seconds) {
        std::atomic<bool> finished{false};
        player->seek(platform::MediaTime::makeWithSeconds(seconds, 1000), [&](bool) { finished = true; });
        ASSERT_TRUE(runUntil([&] { return finished.load(); }));
    }

    void record(Delivery delivery) {
        std::lock_guard lock(mutex);
        deliveries.push_back(std::move(delivery));
    }
    std::vector<Delivery> delivered() {
        std::lock_guard lock(mutex);
        return deliveries;
    }
    void forget() {
        std::lock_guard lock(mutex);
        deliveries.clear();
    }

    test::HlsOrigin origin;
    std::shared_ptr<platform::PlayerItem> item;
    std::shared_ptr<platform::Player> player;
    std::shared_ptr<Ovalto> facade;
    std::shared_ptr<OvaltoInternal> engine;
    const std::thread::id mainThread = std::this_thread::get_id();
    std::vector<std::filesystem::path> files;
    std::mutex mutex;
    std::vector<Delivery> deliveries;
};

} // namespace

TEST_F(TimedTextDeliveryTest, ATickFindsOnlyTheExactHundredth) {
    facade->addTimedTextSource(write("window.srt", "00:00:01,234 --> 00:00:02,000\nA\n"),
                               "application/x-subrip");
    ASSERT_TRUE(runUntil([&] { return engine->timedText.get() != nullptr; }));
    const struct {
        double clock;
        std::vector<std::string> expected; // kind=value
    } cases[] = {
        {1.229, {}}, {1.230, {"text=A", "cue=A"}}, {1.234, {"text=A", "cue=A"}}, {1.239, {"text=A", "cue=A"}},
        {1.240, {}}, {2.000, {"text="}}, // the clear mark: a text, but no cue
    };
    for (const auto& c : cases) {
        seek(c.clock);
        forget();
        engine->deliverTimedText();
        std::vector<std::string> got;
        for (const auto& d : delivered()) {
            // The poller ticks too, on the global queue: only this call's deliveries count.
            if (!d.onMainThread) continue;
            got.push_back(d.kind + "=" + d.value);
            if (d.kind == "text") {
                EXPECT_DOUBLE_EQ(d.time, c.clock);
            }
        }
        EXPECT_EQ(got, c.expected) << "clock " << c.clock;
    }
}

TEST_F(TimedTextDeliveryTest, ThePollerDeliversOffTheMainThreadAndANewSourceReplacesTheOld) {
    seek(1.5);
    const auto first = write("first.vtt", "WEBVTT\n\n00:01.500 --> 00:03.000\nfirst\n");
    const auto second =
        write("second.ttml", "<cuepoints><cuepoint time=\"1.5\">second</cuepoint></cuepoints>");
    facade->addTimedTextSource(first, "text/vtt");
    ASSERT_TRUE(runUntil([&] { return delivered().size() >= 6; }));
    for (const auto& d : delivered()) {
        EXPECT_FALSE(d.onMainThread);
        EXPECT_EQ(d.value, "first");
    }

    facade->addTimedTextSource(first, "text/plain"); // unknown: ignored
    facade->addTimedTextSource(second, "application/nttml+xml");
    const std::string replaced = "<cuepoints><cuepoint time=\"1.5\">second</cuepoint></cuepoints>";
    auto countOf = [&](const std::string& value) {
        auto all = delivered();
        return std::count_if(all.begin(), all.end(), [&](const Delivery& d) { return d.value == value; });
    };
    ASSERT_TRUE(runUntil([&] { return countOf(replaced) >= 3; }));
    // Once the new parser is in place the old entries are gone; the TTML source has no cues.
    forget();
    ASSERT_TRUE(runUntil([&] { return delivered().size() >= 3; }));
    for (const auto& d : delivered()) {
        EXPECT_EQ(d.kind, "text");
        EXPECT_EQ(d.value, replaced);
        EXPECT_FALSE(d.onMainThread);
    }

    // A reset stops the poller.
    engine->reset();
    engine->playerItem.set(item);
    platform::RunLoop::main().runFor(50ms);
    forget();
    platform::RunLoop::main().runFor(50ms);
    EXPECT_TRUE(delivered().empty());
}
