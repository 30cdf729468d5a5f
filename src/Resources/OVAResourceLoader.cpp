#include "Resources/OVAResourceLoader.h"

#include "Resources/Resource.h"
#include "Resources/ResourceType.h"
#include "ovalto/OVALog.h"
#include "ovalto/OvaltoError.h"
#include "platform/DispatchQueue.h"
#include "platform/LoadingRequest.h"

#include <atomic>

namespace ovalto {

namespace {

constexpr const char* loadFunction = "load(loadingRequest:)";

void notify(const std::weak_ptr<ErrorSink>& sink, const platform::Error& error) {
    if (auto strong = sink.lock()) strong->notify(error);
}

// Finishes one loading request from a resource's Result. Shared by every copy of the completion
// handed to the resource, so that a second call is ignored and a resource that drops its
// completion without calling it still gets the request finished (with an error).
class Finisher {
public:
    Finisher(std::shared_ptr<platform::LoadingRequest> request, std::weak_ptr<ErrorSink> sink)
        : request_(std::move(request))
        , sink_(std::move(sink)) {}
    Finisher(const Finisher&) = delete;
    Finisher& operator=(const Finisher&) = delete;
    ~Finisher() {
        if (!done_.load()) {
            OVALog(OVALogLevel::error, "resource ended without an answer.", loadFunction, __FILE__, __LINE__);
            finish(
                Result::failure(OvaltoError::inputParam("Loading request is not valid.", 0x8301).toError()));
        }
    }

    void finish(const Result& result) {
        if (done_.exchange(true)) {
            OVALog(OVALogLevel::warning, "second completion ignored.", loadFunction, __FILE__, __LINE__);
            return;
        }
        if (const auto* error = result.error()) {
            OVALog(OVALogLevel::error, error->localizedDescription, loadFunction, __FILE__, __LINE__);
            notify(sink_, *error);
            request_->finishLoading(*error);
        } else {
            request_->finishLoading();
        }
    }

private:
    std::shared_ptr<platform::LoadingRequest> request_;
    std::weak_ptr<ErrorSink> sink_;
    std::atomic<bool> done_{false};
};

} // namespace

OVAResourceLoader::OVAResourceLoader(std::weak_ptr<ErrorSink> ovaltointernal)
    : presentation(std::make_shared<Presentation>())
    , ovaltointernal_(std::move(ovaltointernal)) {}

bool OVAResourceLoader::shouldWaitForLoadingOfRequestedResource(
    platform::AssetResourceLoader& /*loader*/, const std::shared_ptr<platform::LoadingRequest>& request) {
    return load(request);
}

bool OVAResourceLoader::shouldWaitForRenewalOfRequestedResource(
    platform::AssetResourceLoader& loader, const std::shared_ptr<platform::LoadingRequest>& request) {
    return shouldWaitForLoadingOfRequestedResource(loader, request);
}

bool OVAResourceLoader::load(const std::shared_ptr<platform::LoadingRequest>& loadingRequest) {
    std::optional<std::string> scheme;
    if (loadingRequest) scheme = loadingRequest->request().url.scheme();
    if (!scheme) {
        OVALog(OVALogLevel::error, "loading request has no url scheme.", loadFunction, __FILE__, __LINE__);
        notify(ovaltointernal_, OvaltoError::inputParam("Loading request is not valid.", 0x8301).toError());
        return false;
    }

    // Settings are taken now, so that a later change does not reach a request already dispatched.
    auto configurations = this->configurations.get();
    auto customHeaders = this->customHeaders.get();
    auto pluginListener = this->pluginListener.get();
    platform::DispatchQueue::global()->async(
        [scheme = std::move(*scheme), loadingRequest, configurations = std::move(configurations),
         customHeaders = std::move(customHeaders), pluginListener = std::move(pluginListener),
         presentation = presentation, sink = ovaltointernal_]() mutable {
            auto finisher = std::make_shared<Finisher>(loadingRequest, sink);
            const auto type = ResourceType::fromRawValue(scheme);
            if (!type) {
                OVALog(OVALogLevel::error, scheme + " is not a resource scheme.", loadFunction, __FILE__,
                       __LINE__);
                finisher->finish(Result::failure(
                    OvaltoError::inputParam("Loading request is not valid.", 0x8301).toError()));
                return;
            }
            auto resource = type->createResouece();
            resource->configurations = std::move(configurations);
            resource->customHeaders = std::move(customHeaders);
            resource->pluginListener = std::move(pluginListener);
            resource->load(loadingRequest, presentation,
                           [finisher = std::move(finisher)](Result result) { finisher->finish(result); });
        });
    return true;
}

} // namespace ovalto
