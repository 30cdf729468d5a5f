#pragma once

#include "Resources/Result.h"
#include "ovalto/ConfigurationKey.h"
#include "ovalto/PluginListener.h"

#include <functional>
#include <memory>
#include <optional>

namespace ovalto {

namespace platform {
class LoadingRequest;
}
class Presentation;

// Answers one kind of loading request. One object serves one request: the loader makes it, sets
// the three settings, calls load once, and finishes the request from the Result. Resources live
// in shared_ptrs because an asynchronous one keeps itself alive until it has completed.
class Resource {
public:
    using Completion = std::function<void(Result)>;

    virtual ~Resource() = default;

    std::optional<Configurations> configurations;
    std::optional<Headers> customHeaders;
    std::weak_ptr<PluginListener> pluginListener;

    // Answers `loadingRequest` (data, or redirect and response) and then calls `completion`
    // exactly once, on any thread. It never finishes the request itself.
    virtual void load(const std::shared_ptr<platform::LoadingRequest>& loadingRequest,
                      const std::shared_ptr<Presentation>& presentation, Completion completion) = 0;
};

} // namespace ovalto
