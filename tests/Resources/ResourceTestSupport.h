#pragma once

// Helpers shared by the resource tests: loading requests whose outcome a test can wait for, an
// error sink and a listener that record what they get, and a small HLS presentation.

#include "Resources/ErrorSink.h"
#include "ovalto/OvaltoError.h"
#include "ovalto/PluginListener.h"
#include "platform/LoadingRequest.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ovalto::test {

// Long enough never to fire on a healthy run, even under the sanitizers; only a hang trips it.
inline constexpr std::chrono::seconds hangGuard{60};

// A loading request as the player would make it, with every finish it receives recorded.
class PlayerRequest {
public:
    explicit PlayerRequest(const std::string& url, platform::LoadingRequest::Parts parts = {})
        : state_(std::make_shared<State>()) {
        auto parsed = platform::Url::parse(url);
        if (!parsed) throw std::invalid_argument("not a URL: " + url);
        request_ = platform::LoadingRequest::create(
            platform::UrlRequest(*parsed), parts, [state = state_](const platform::LoadingOutcome& outcome) {
                std::lock_guard lock(state->mutex);
                state->outcomes.push_back(outcome);
                state->changed.notify_all();
            });
    }

    const std::shared_ptr<platform::LoadingRequest>& request() const { return request_; }

    // The outcome, once the request has been finished; a failed expectation on a hang.
    platform::LoadingOutcome wait() const {
        std::unique_lock lock(state_->mutex);
        if (!state_->changed.wait_for(lock, hangGuard, [&] { return !state_->outcomes.empty(); })) {
            ADD_FAILURE() << request_->request().url.absoluteString() << " was never finished";
            return {};
        }
        return state_->outcomes.front();
    }
    int finishCount() const {
        std::lock_guard lock(state_->mutex);
        return static_cast<int>(state_->outcomes.size());
    }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<platform::LoadingOutcome> outcomes;
    };
    std::shared_ptr<State> state_;
    std::shared_ptr<platform::LoadingRequest> request_;
};

// The OvaltoError an outcome or error carries, if any.
inline std::optional<OvaltoError> ovaltoError(const platform::LoadingOutcome& outcome) {
    if (outcome.kind != platform::LoadingOutcome::Kind::error || !outcome.error) return std::nullopt;
    return OvaltoError::from(*outcome.error);
}

class RecordingSink : public ErrorSink {
public:
    void notify(const platform::Error& error) override {
        std::lock_guard lock(mutex_);
        errors_.push_back(error);
    }
    std::vector<platform::Error> errors() const {
        std::lock_guard lock(mutex_);
        return errors_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<platform::Error> errors_;
};

// A listener whose request hooks a test sets; responses are recorded.
class TestListener : public PluginListener {
public:
    std::function<void(RequestInfo&)> manifestRequest = [](RequestInfo&) {};
    std::function<void(RequestInfo&)> fragmentRequest = [](RequestInfo&) {};

    void prepare(const platform::Url&) override {}
    void conclude() override {}
    void onStartupTime(std::uint64_t) override {}
    void onBuffering(std::uint64_t, std::uint64_t, std::int32_t) override {}
    void onManifestRequest(RequestInfo& requestInfo) override { manifestRequest(requestInfo); }
    void onManifestResponse(ResponseInfo& responseInfo) override {
        std::lock_guard lock(mutex_);
        manifestResponses_.push_back(responseInfo);
    }
    void onFragmentRequest(RequestInfo& requestInfo) override { fragmentRequest(requestInfo); }
    void onFragmentResponse(ResponseInfo&) override {}

    std::vector<ResponseInfo> manifestResponses() const {
        std::lock_guard lock(mutex_);
        return manifestResponses_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<ResponseInfo> manifestResponses_;
};

// One audio rendition and two variants: streams 0 (audio, key 0) and 1 (video, 800000 and
// 2000000) once parsed.
inline constexpr const char* masterPlayList = "#EXTM3U\n"
                                              "#EXT-X-VERSION:4\n"
                                              "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",NAME=\"en\","
                                              "URI=\"audio/en.m3u8\"\n"
                                              "#EXT-X-STREAM-INF:BANDWIDTH=2000000,AUDIO=\"aud\"\n"
                                              "hd/index.m3u8\n"
                                              "#EXT-X-STREAM-INF:BANDWIDTH=800000,AUDIO=\"aud\"\n"
                                              "sd/index.m3u8\n";

// Segments 120 and 121 with an initialisation section.
inline constexpr const char* mediaPlayList = "#EXTM3U\n"
                                             "#EXT-X-VERSION:6\n"
                                             "#EXT-X-TARGETDURATION:6\n"
                                             "#EXT-X-MEDIA-SEQUENCE:120\n"
                                             "#EXT-X-PLAYLIST-TYPE:VOD\n"
                                             "#EXT-X-MAP:URI=\"init.mp4\"\n"
                                             "#EXTINF:6.006,\n"
                                             "seg120.ts\n"
                                             "#EXTINF:5.5,\n"
                                             "seg121.ts\n"
                                             "#EXT-X-ENDLIST\n";

} // namespace ovalto::test
