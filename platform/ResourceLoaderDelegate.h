#pragma once

#include <memory>

namespace ovalto::platform {

class AssetResourceLoader;
class LoadingRequest;

// The object an asset asks for every resource whose URL scheme it cannot load itself. Both calls
// arrive on the delegate queue given to AssetResourceLoader::setDelegate. Returning true takes
// the request on: the delegate (or whoever it hands the request to) then finishes it exactly
// once, from any thread. Returning false declines it, and the asset fails it at once.
class ResourceLoaderDelegate {
public:
    virtual ~ResourceLoaderDelegate() = default;

    virtual bool shouldWaitForLoadingOfRequestedResource(AssetResourceLoader& loader,
                                                         const std::shared_ptr<LoadingRequest>& request) = 0;
    // A key the player holds has to be renewed; by default handled like a first request.
    virtual bool shouldWaitForRenewalOfRequestedResource(AssetResourceLoader& loader,
                                                         const std::shared_ptr<LoadingRequest>& request) {
        return shouldWaitForLoadingOfRequestedResource(loader, request);
    }
    // The player gave a request up (it timed out or is no longer needed); finishing it later is
    // harmless.
    virtual void didCancelLoadingRequest(AssetResourceLoader& /*loader*/,
                                         const std::shared_ptr<LoadingRequest>& /*request*/) {}
};

} // namespace ovalto::platform
