#pragma once

// Helpers shared by the resource tests: loading requests whose outcome a test can wait for, an
// error sink and a listener that record what they get, and a small HLS presentation.

#include "PlayList/Presentation.h"
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

inline platform::Url url(const std::string& text) {
    return *platform::Url::parse(text);
}

// A model as parsers would leave it; hosts under .test are never contacted. Stream 0 (video):
// key 800000 with sequence 100, ten segments (the eighth without a URL) and an initialisation
// section; key 500000 without a sequence. Stream 1 (audio): key 0, sequence 0, two segments, no
// initialisation section.
struct SampleModel {
    std::shared_ptr<Presentation> presentation;
    std::shared_ptr<Representation> video = std::make_shared<Representation>();
    std::shared_ptr<Representation> audio = std::make_shared<Representation>();

    explicit SampleModel(std::shared_ptr<Presentation> into = std::make_shared<Presentation>())
        : presentation(std::move(into)) {
        presentation->url.set(url("http://origin.test/live/master.m3u8"));
        video->sequence.set(100);
        video->initialURL.set(url("http://origin.test/live/hd/init.mp4"));
        std::vector<std::shared_ptr<Fragment>> fragments;
        for (int i = 0; i < 10; ++i) {
            fragments.push_back(std::make_shared<Fragment>());
            if (i != 7)
                fragments.back()->url.set(url("http://origin.test/live/hd/seg" + std::to_string(i) + ".ts"));
        }
        video->fragments.set(fragments);
        auto videoStream = std::make_shared<Stream>();
        videoStream->representations.set({{800000, video}, {500000, std::make_shared<Representation>()}});

        audio->sequence.set(0);
        audio->fragments.set({std::make_shared<Fragment>(), std::make_shared<Fragment>()});
        for (const auto& fragment : audio->fragments.get())
            fragment->url.set(url("http://origin.test/live/en/a.aac"));
        auto audioStream = std::make_shared<Stream>();
        audioStream->mediaType.set(MediaType::audio);
        audioStream->representations.set({{0, audio}});
        presentation->streams.set({videoStream, audioStream});
    }
    std::shared_ptr<Fragment> videoFragment(std::size_t i) const { return video->fragments.get().at(i); }
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
