#pragma once

#include <memory>

namespace ovalto::platform {

class ContentKeySession;
class ContentKeyRequest;
class PersistableContentKeyRequest;

// Receives a content-key session's requests, on the queue given with the delegate.
class ContentKeySessionDelegate {
public:
    virtual ~ContentKeySessionDelegate() = default;

    // A key is wanted for the request's identifier.
    virtual void contentKeySessionDidProvide(ContentKeySession& session,
                                             const std::shared_ptr<ContentKeyRequest>& keyRequest) = 0;
    // The persistable request that respondByRequestingPersistableContentKeyRequest() asked for.
    virtual void contentKeySessionDidProvidePersistable(
        ContentKeySession& session, const std::shared_ptr<PersistableContentKeyRequest>& keyRequest) = 0;
};

} // namespace ovalto::platform
