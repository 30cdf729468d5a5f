#pragma once

#include "platform/AssetResourceLoader.h"
#include "platform/DispatchQueue.h"
#include "platform/LoadingRequest.h"
#include "platform/ResourceLoaderDelegate.h"
#include "support/HlsOrigin.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ovalto::test {

// A resource-loader delegate as the library's is shaped: playlists are served from memory (the
// origin's), segments are answered with a redirect and a synthetic 302 to the origin, key
// requests with key bytes. Answers are given from the global queue, as resources do.
class TestDelegate : public platform::ResourceLoaderDelegate,
                     public std::enable_shared_from_this<TestDelegate> {
public:
    explicit TestDelegate(std::shared_ptr<const HlsOrigin> origin)
        : origin_(std::move(origin)) {}

    bool shouldWaitForLoadingOfRequestedResource(
        platform::AssetResourceLoader& loader,
        const std::shared_ptr<platform::LoadingRequest>& request) override {
        const platform::Url url = request->request().url;
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(url.absoluteString());
            const auto queue = loader.delegateQueue();
            onDelegateQueue_ = onDelegateQueue_ && queue && queue->isCurrent();
            if (error_ && url.absoluteString().ends_with(errorSuffix_)) {
                const platform::Error error = *error_;
                platform::DispatchQueue::global()->async([request, error] { request->finishLoading(error); });
                return true;
            }
            if (!silentSuffix_.empty() && url.absoluteString().ends_with(silentSuffix_)) {
                silent_.push_back(request); // never answered
                return true;
            }
        }
        platform::DispatchQueue::global()->async(
            [self = shared_from_this(), request, url] { self->answer(*request, url); });
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
    bool calledOnDelegateQueue() const {
        std::lock_guard lock(mutex_);
        return onDelegateQueue_;
    }

private:
    void answer(platform::LoadingRequest& request, const platform::Url& url) {
        const std::string path = url.path();
        if (url.scheme() == "skd") {
            if (auto* information = request.contentInformationRequest()) {
                information->setContentType(platform::streamingKeyDeliveryContentKeyType);
            }
            if (auto* data = request.dataRequest()) data->respond("key:" + url.host().value_or(""));
            request.finishLoading();
        } else if (path.ends_with(".m3u8")) {
            auto body = origin_->body(path);
            if (!body)
                return request.finishLoading(platform::Error{"TestDelegate", 404, "no playlist " + path, {}});
            request.dataRequest()->respond(*body);
            request.finishLoading();
        } else {
            auto target = *platform::Url::parse(origin_->url(path));
            request.setRedirect(
                platform::UrlRequest(target, platform::CachePolicy::reloadIgnoringLocalCacheData, 30));
            request.setResponse(platform::UrlResponse{target, true, 302, {}, {}, -1});
            request.finishLoading();
        }
    }

    const std::shared_ptr<const HlsOrigin> origin_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    bool onDelegateQueue_ = true;
    std::string errorSuffix_;
    std::optional<platform::Error> error_;
    std::string silentSuffix_;
    std::vector<std::shared_ptr<platform::LoadingRequest>> silent_;
};

} // namespace ovalto::test
