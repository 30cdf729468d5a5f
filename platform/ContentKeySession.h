#pragma once

#include "platform/ContentKeySessionDelegate.h"
#include "platform/Error.h"

#include <any>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace ovalto::platform {

class DispatchQueue;

enum class ContentKeySystem { fairPlayStreaming };

// Obtains content keys apart from any loading request: processContentKeyRequest hands a
// ContentKeyRequest to the delegate on the delegate queue, and the delegate answers it. Whoever
// starts a session keeps it alive until its keys are done; the delegate is held weakly.
class ContentKeySession : public std::enable_shared_from_this<ContentKeySession> {
public:
    using Options = std::map<std::string, std::any>;

    static std::shared_ptr<ContentKeySession> create(ContentKeySystem keySystem);

    ContentKeySystem keySystem() const { return keySystem_; }
    void setDelegate(std::weak_ptr<ContentKeySessionDelegate> delegate, std::shared_ptr<DispatchQueue> queue);

    // Starts a key request for `identifier`; without a delegate nothing happens.
    void processContentKeyRequest(std::any identifier, std::optional<Data> initializationData,
                                  const Options& options = {});

    // For ContentKeyRequest: hands a persistable request for the same key to the delegate.
    void providePersistableRequest(const ContentKeyRequest& original);

    struct Key;
    ContentKeySession(const Key&, ContentKeySystem keySystem)
        : keySystem_(keySystem) {}

private:
    template <class Deliver> void toDelegate(Deliver deliver);

    const ContentKeySystem keySystem_;
    mutable std::mutex mutex_;
    std::weak_ptr<ContentKeySessionDelegate> delegate_;
    std::shared_ptr<DispatchQueue> queue_;
};

} // namespace ovalto::platform
