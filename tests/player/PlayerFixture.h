#pragma once

#include "platform/Asset.h"
#include "platform/AssetResourceLoader.h"
#include "platform/ContentKey.h"
#include "platform/DispatchQueue.h"
#include "platform/LoadingRequest.h"
#include "platform/NotificationCenter.h"
#include "platform/Player.h"
#include "platform/PlayerItem.h"
#include "platform/ResourceLoaderDelegate.h"
#include "support/HlsOrigin.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <any>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace ovalto::test {

// Polls `done` until it holds; the deadline only guards against a hang.
inline bool waitUntil(const std::function<bool()>& done,
                      std::chrono::seconds deadline = std::chrono::seconds(15)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Records what an item reports, in order: observed changes ("status=readyToPlay",
// "playbackBufferEmpty=true", …) and notifications (by name), each with the clock at that moment.
class ItemWatcher {
public:
    struct Event {
        std::string what;
        double clock = 0;
        std::map<std::string, std::any> userInfo;
    };

    explicit ItemWatcher(std::shared_ptr<platform::PlayerItem> item)
        : item_(std::move(item)) {
        for (const char* path : paths) {
            item_->addObserver(this, path, &context_,
                               [this](const std::string& keyPath, const platform::KeyValueChange& change,
                                      platform::PlayerItem::Context context) {
                                   EXPECT_EQ(context, &context_);
                                   record(keyPath + describe(change.newValue), {});
                               });
        }
        for (const char* name :
             {platform::playerItemDidPlayToEndTimeNotification, platform::playerItemTimeJumpedNotification,
              platform::playerItemFailedToPlayToEndTimeNotification,
              platform::playerItemNewAccessLogEntryNotification,
              platform::playerItemNewErrorLogEntryNotification}) {
            tokens_.push_back(platform::NotificationCenter::defaultCenter().addObserver(
                name, item_,
                [this](const platform::Notification& note) { record(note.name, note.userInfo); }));
        }
    }
    ~ItemWatcher() {
        for (const char* path : paths)
            item_->removeObserver(this, path, &context_);
        for (auto token : tokens_)
            platform::NotificationCenter::defaultCenter().removeObserver(token);
    }

    std::vector<Event> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    bool saw(const std::string& what) const {
        const auto all = events();
        return std::any_of(all.begin(), all.end(), [&](const Event& event) { return event.what == what; });
    }
    bool waitFor(const std::string& what) const {
        return waitUntil([&] { return saw(what); });
    }

private:
    static constexpr const char* paths[] = {"status", "playbackLikelyToKeepUp", "playbackBufferFull",
                                            "playbackBufferEmpty", "loadedTimeRanges"};

    static std::string describe(const std::any& value) {
        using Status = platform::PlayerItem::Status;
        if (const auto* status = std::any_cast<Status>(&value)) {
            return *status == Status::readyToPlay ? "=readyToPlay"
                   : *status == Status::failed    ? "=failed"
                                                  : "=unknown";
        }
        if (const auto* flag = std::any_cast<bool>(&value)) return *flag ? "=true" : "=false";
        return "";
    }
    void record(std::string what, std::map<std::string, std::any> userInfo) {
        const double clock = item_->currentTime().seconds();
        std::lock_guard lock(mutex_);
        events_.push_back({std::move(what), clock, std::move(userInfo)});
    }

    std::shared_ptr<platform::PlayerItem> item_;
    int context_ = 0;
    mutable std::mutex mutex_;
    std::vector<Event> events_;
    std::vector<platform::NotificationCenter::Token> tokens_;
};

// A resource-loader delegate as the library's is shaped: playlists are served from memory (the
// origin's), segments are answered with a redirect and a synthetic 302 to the origin, key
// requests with key bytes. Answers are given from the global queue, as resources do.
class TestDelegate : public platform::ResourceLoaderDelegate,
                     public std::enable_shared_from_this<TestDelegate> {
public:
    explicit TestDelegate(std::shared_ptr<const HlsOrigin> origin)
        : origin_(std::move(origin)) {}

    bool shouldWaitForLoadingOfRequestedResource(
        platform::AssetResourceLoader&, const std::shared_ptr<platform::LoadingRequest>& request) override {
        const platform::Url url = request->request().url;
        const std::string text = url.absoluteString();
        std::lock_guard lock(mutex_);
        requests_.push_back(text);
        if (error_ && text.ends_with(errorSuffix_)) {
            platform::DispatchQueue::global()->async(
                [request, error = *error_] { request->finishLoading(error); });
        } else if (!silentSuffix_.empty() && text.ends_with(silentSuffix_)) {
            silent_.push_back(request); // never answered
        } else {
            platform::DispatchQueue::global()->async(
                [self = shared_from_this(), request, url] { self->answer(*request, url); });
        }
        return true;
    }

    // Requests whose URL ends with `suffix` are finished with `error`.
    void failRequests(std::string suffix, platform::Error error) {
        std::lock_guard lock(mutex_);
        errorSuffix_ = std::move(suffix);
        error_ = std::move(error);
    }
    // Requests whose URL ends with `suffix` are taken on and never finished.
    void ignoreRequests(std::string suffix) {
        std::lock_guard lock(mutex_);
        silentSuffix_ = std::move(suffix);
    }
    std::vector<std::string> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

private:
    void answer(platform::LoadingRequest& request, const platform::Url& url) {
        const std::string path = url.path();
        if (url.scheme() == "skd") {
            // A key stored earlier for the asset: the one kind of answer a test can make alone.
            platform::ContentKey key{std::string(16, 'k'), std::string(16, 'i'), url.host().value_or(""), 0};
            if (auto* information = request.contentInformationRequest())
                information->setContentType(platform::streamingKeyDeliveryPersistentContentKeyType);
            if (auto* data = request.dataRequest()) data->respond(std::get<platform::Data>(key.seal()));
        } else if (path.ends_with(".m3u8")) {
            auto body = origin_->body(path);
            if (!body)
                return request.finishLoading(platform::Error{"TestDelegate", 404, "no playlist " + path, {}});
            request.dataRequest()->respond(*body);
        } else {
            auto target = *platform::Url::parse(origin_->url(path));
            request.setRedirect(
                platform::UrlRequest(target, platform::CachePolicy::reloadIgnoringLocalCacheData, 30));
            request.setResponse(platform::UrlResponse{target, true, 302, {}, {}, -1});
        }
        request.finishLoading();
    }

    const std::shared_ptr<const HlsOrigin> origin_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    std::string errorSuffix_;
    std::optional<platform::Error> error_;
    std::string silentSuffix_;
    std::vector<std::shared_ptr<platform::LoadingRequest>> silent_;
};

// An item, its watcher and its player, made in that order so that the watcher hears everything.
struct Playback {
    std::shared_ptr<platform::PlayerItem> item;
    ItemWatcher watcher{item};
    std::shared_ptr<platform::Player> player;

    Playback(std::shared_ptr<platform::PlayerItem> playerItem, const platform::PlayerSettings& settings,
             double rate)
        : item(std::move(playerItem))
        , player(platform::Player::create(item, settings)) {
        player->setRate(rate);
    }
    bool playToEnd() const { return watcher.waitFor(platform::playerItemDidPlayToEndTimeNotification); }
};

// Presentations of a loopback origin, opened over HTTP or through a TestDelegate, and a player
// with short buffers and retries.
struct PlayerTest : ::testing::Test {
    std::shared_ptr<HlsOrigin> origin = std::make_shared<HlsOrigin>();
    std::shared_ptr<TestDelegate> delegate = std::make_shared<TestDelegate>(origin);
    std::shared_ptr<platform::DispatchQueue> resourceQueue = platform::DispatchQueue::serial("test.resource");
    platform::PlayerSettings settings = [] {
        platform::PlayerSettings s;
        s.minimumBufferDuration = 1.0;
        s.retryDelay = std::chrono::milliseconds(20);
        s.maximumRetryDelay = std::chrono::milliseconds(160);
        s.retryWindow = std::chrono::milliseconds(1000);
        s.tickInterval = std::chrono::milliseconds(5);
        return s;
    }();

    // The presentation at `path` of the origin, over HTTP or as test://media<path> through the delegate.
    std::shared_ptr<platform::Asset> asset(const std::string& path, bool throughDelegate = false,
                                           platform::AssetOptions options = {}) {
        auto url = *platform::Url::parse(throughDelegate ? "test://media" + path : origin->url(path));
        auto asset = platform::Asset::create(url, std::move(options));
        if (throughDelegate) asset->resourceLoader()->setDelegate(delegate, resourceQueue);
        return asset;
    }
    std::shared_ptr<platform::PlayerItem> item(const std::string& path, bool throughDelegate = false) {
        return platform::PlayerItem::create(asset(path, throughDelegate));
    }
    // Loads "playable" and waits for it.
    static platform::Asset::ValueStatus loadPlayable(const std::shared_ptr<platform::Asset>& asset) {
        std::atomic<bool> done{false};
        asset->loadValuesAsynchronously({platform::Asset::playableKey}, [&] { done = true; });
        EXPECT_TRUE(waitUntil([&] { return done.load(); }));
        return asset->statusOfValue(platform::Asset::playableKey);
    }

    // Media requests the origin answered, in order.
    std::vector<HlsOrigin::Exchange> media() const {
        auto served = origin->requests();
        std::erase_if(served, [](const HlsOrigin::Exchange& s) { return !HlsOrigin::isMedia(s.path); });
        return served;
    }
    std::size_t servedCount(const std::string& text) const {
        const auto all = origin->requests();
        return std::count_if(all.begin(), all.end(), [&](const HlsOrigin::Exchange& s) {
            return s.path.find(text) != std::string::npos;
        });
    }
};

} // namespace ovalto::test
