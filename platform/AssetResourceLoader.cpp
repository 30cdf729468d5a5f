#include "platform/AssetResourceLoader.h"

#include "platform/DispatchQueue.h"
#include "platform/LoadingRequest.h"
#include "platform/ResourceLoaderDelegate.h"

namespace ovalto::platform {

struct AssetResourceLoader::Key {};

std::shared_ptr<AssetResourceLoader> AssetResourceLoader::create() {
    return std::make_shared<AssetResourceLoader>(Key{});
}

void AssetResourceLoader::setDelegate(std::weak_ptr<ResourceLoaderDelegate> delegate,
                                      std::shared_ptr<DispatchQueue> queue) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
    queue_ = std::move(queue);
}

std::shared_ptr<ResourceLoaderDelegate> AssetResourceLoader::delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}

std::shared_ptr<DispatchQueue> AssetResourceLoader::delegateQueue() const {
    std::lock_guard lock(mutex_);
    return queue_;
}

AssetResourceLoader::Duration AssetResourceLoader::loadingTimeout() const {
    std::lock_guard lock(mutex_);
    return loadingTimeout_;
}

void AssetResourceLoader::setLoadingTimeout(Duration timeout) {
    std::lock_guard lock(mutex_);
    loadingTimeout_ = timeout;
}

void AssetResourceLoader::load(const std::shared_ptr<LoadingRequest>& request, bool renewal) {
    std::weak_ptr<ResourceLoaderDelegate> delegate;
    std::shared_ptr<DispatchQueue> queue;
    {
        std::lock_guard lock(mutex_);
        delegate = delegate_;
        queue = queue_;
    }
    const Error declined{Error::loaderDomain,
                         loaderErrorNoDelegate,
                         "No resource loader delegate took the request for " +
                             request->request().url.absoluteString() + ".",
                         {}};
    if (!queue || delegate.expired()) {
        request->failIfPending(declined);
        return;
    }
    queue->async([self = shared_from_this(), delegate = std::move(delegate), request, renewal, declined] {
        bool accepted = false;
        if (auto strong = delegate.lock()) {
            accepted = renewal ? strong->shouldWaitForRenewalOfRequestedResource(*self, request)
                               : strong->shouldWaitForLoadingOfRequestedResource(*self, request);
        }
        // A delegate may answer and still say false; then the answer stands.
        if (!accepted) request->failIfPending(declined);
    });
}

void AssetResourceLoader::cancel(const std::shared_ptr<LoadingRequest>& request) {
    if (request->isFinished() || request->isCancelled()) return;
    request->cancel();
    std::weak_ptr<ResourceLoaderDelegate> delegate;
    std::shared_ptr<DispatchQueue> queue;
    {
        std::lock_guard lock(mutex_);
        delegate = delegate_;
        queue = queue_;
    }
    if (!queue) return;
    queue->async([self = shared_from_this(), delegate = std::move(delegate), request] {
        if (auto strong = delegate.lock()) strong->didCancelLoadingRequest(*self, request);
    });
}

} // namespace ovalto::platform
