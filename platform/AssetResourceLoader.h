#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>

namespace ovalto::platform {

class DispatchQueue;
class LoadingRequest;
class ResourceLoaderDelegate;

// An asset's link to the object that loads what the asset cannot: it holds the delegate
// (weakly: whoever installs it owns it) and the queue the delegate is called on.
class AssetResourceLoader : public std::enable_shared_from_this<AssetResourceLoader> {
public:
    using Duration = std::chrono::steady_clock::duration;

    static std::shared_ptr<AssetResourceLoader> create();

    void setDelegate(std::weak_ptr<ResourceLoaderDelegate> delegate, std::shared_ptr<DispatchQueue> queue);
    std::shared_ptr<ResourceLoaderDelegate> delegate() const;
    std::shared_ptr<DispatchQueue> delegateQueue() const;

    // Ask for content keys as soon as a media playlist names them, not only before the first
    // segment that needs each.
    bool preloadsEligibleContentKeys() const { return preloadsEligibleContentKeys_; }
    void setPreloadsEligibleContentKeys(bool preload) { preloadsEligibleContentKeys_ = preload; }

    // How long the player waits for a request to be finished before it gives up (60 s).
    Duration loadingTimeout() const;
    void setLoadingTimeout(Duration timeout);

    // Player side: hands `request` to the delegate on its queue. Without a delegate, or when the
    // delegate declines, the request fails at once (error domain Error::loaderDomain).
    void load(const std::shared_ptr<LoadingRequest>& request, bool renewal = false);
    // Player side: gives `request` up and tells the delegate.
    void cancel(const std::shared_ptr<LoadingRequest>& request);

    struct Key;
    explicit AssetResourceLoader(const Key&) {}

private:
    mutable std::mutex mutex_;
    std::weak_ptr<ResourceLoaderDelegate> delegate_;
    std::shared_ptr<DispatchQueue> queue_;
    Duration loadingTimeout_ = std::chrono::seconds(60);
    std::atomic<bool> preloadsEligibleContentKeys_{false};
};

} // namespace ovalto::platform
