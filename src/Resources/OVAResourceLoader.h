#pragma once

#include "PlayList/Presentation.h"
#include "Resources/ErrorSink.h"
#include "Utils/Guarded.h"
#include "ovalto/ConfigurationKey.h"
#include "ovalto/PluginListener.h"
#include "platform/ResourceLoaderDelegate.h"

#include <memory>
#include <optional>

namespace ovalto {

// The asset's resource-loader delegate: every playlist, segment and key request of the player
// comes here. It validates the request on the delegate queue, then on the global concurrent queue
// makes a fresh resource for the URL scheme, hands it the settings and the shared presentation,
// and finishes the request from the resource's Result, exactly once.
class OVAResourceLoader : public platform::ResourceLoaderDelegate {
public:
    // `ovaltointernal` receives every error of a loading request; held weakly, since the engine
    // owns the loader.
    explicit OVAResourceLoader(std::weak_ptr<ErrorSink> ovaltointernal);

    // Set by the engine; copied into each resource when its request is dispatched.
    Guarded<std::weak_ptr<PluginListener>> pluginListener;
    Guarded<std::optional<Configurations>> configurations;
    Guarded<std::optional<Headers>> customHeaders;
    // The one model of the stream, shared by every resource.
    const std::shared_ptr<Presentation> presentation;

    bool shouldWaitForLoadingOfRequestedResource(
        platform::AssetResourceLoader& loader,
        const std::shared_ptr<platform::LoadingRequest>& request) override;
    bool shouldWaitForRenewalOfRequestedResource(
        platform::AssetResourceLoader& loader,
        const std::shared_ptr<platform::LoadingRequest>& request) override;

    // True when the request was taken on (it will be finished); false when it was refused
    // because its URL has no scheme (it is left to the platform, and the error is notified).
    bool load(const std::shared_ptr<platform::LoadingRequest>& loadingRequest);

private:
    std::weak_ptr<ErrorSink> ovaltointernal_;
};

} // namespace ovalto
