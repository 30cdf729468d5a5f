#include "platform/ContentKeySession.h"

#include "platform/ContentKeyRequest.h"
#include "platform/DispatchQueue.h"
#include "platform/PersistableContentKeyRequest.h"

namespace ovalto::platform {

struct ContentKeySession::Key {};

std::shared_ptr<ContentKeySession> ContentKeySession::create(ContentKeySystem keySystem) {
    return std::make_shared<ContentKeySession>(Key{}, keySystem);
}

void ContentKeySession::setDelegate(std::weak_ptr<ContentKeySessionDelegate> delegate,
                                    std::shared_ptr<DispatchQueue> queue) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
    queue_ = queue ? std::move(queue) : DispatchQueue::main();
}

template <class Deliver> void ContentKeySession::toDelegate(Deliver deliver) {
    std::weak_ptr<ContentKeySessionDelegate> delegate;
    std::shared_ptr<DispatchQueue> queue;
    {
        std::lock_guard lock(mutex_);
        delegate = delegate_;
        queue = queue_;
    }
    if (!queue) return;
    // The block keeps the session alive until the delegate has had the request.
    queue->async([self = shared_from_this(), delegate = std::move(delegate), deliver = std::move(deliver)] {
        if (auto strong = delegate.lock()) deliver(*strong, *self);
    });
}

void ContentKeySession::processContentKeyRequest(std::any identifier, std::optional<Data> initializationData,
                                                 const Options& /*options*/) {
    auto request = std::make_shared<ContentKeyRequest>(weak_from_this(), std::move(identifier),
                                                       std::move(initializationData), false);
    toDelegate([request](ContentKeySessionDelegate& delegate, ContentKeySession& session) {
        delegate.contentKeySessionDidProvide(session, request);
    });
}

void ContentKeySession::providePersistableRequest(const ContentKeyRequest& original) {
    auto request = std::make_shared<PersistableContentKeyRequest>(weak_from_this(), original.identifier(),
                                                                  original.initializationData());
    toDelegate([request](ContentKeySessionDelegate& delegate, ContentKeySession& session) {
        delegate.contentKeySessionDidProvidePersistable(session, request);
    });
}

} // namespace ovalto::platform
