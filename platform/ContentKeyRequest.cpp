#include "platform/ContentKeyRequest.h"

#include "platform/ContentKeySession.h"
#include "platform/DispatchQueue.h"
#include "platform/KeyExchange.h"
#include "platform/LoadingRequest.h"

#include <algorithm>
#include <vector>

namespace ovalto::platform {

namespace {
constexpr int protocolVersion = 1;
}

ContentKeyRequest::ContentKeyRequest(std::weak_ptr<ContentKeySession> session, std::any identifier,
                                     std::optional<Data> initializationData, bool persistable)
    : session_(std::move(session))
    , identifier_(std::move(identifier))
    , initializationData_(std::move(initializationData))
    , persistable_(persistable) {}

void ContentKeyRequest::respondByRequestingPersistableContentKeyRequest() {
    if (auto session = session_.lock()) session->providePersistableRequest(*this);
}

void ContentKeyRequest::makeStreamingContentKeyRequestData(const Data& appCertificate,
                                                           const Data& contentIdentifier,
                                                           const Options& options,
                                                           RequestDataCompletion completion) {
    std::optional<Error> refused;
    if (auto versions = options.find(contentKeyRequestProtocolVersionsKey); versions != options.end()) {
        const auto* list = std::any_cast<std::vector<int>>(&versions->second);
        if (!list || std::find(list->begin(), list->end(), protocolVersion) == list->end()) {
            refused = Error{Error::loaderDomain,
                            loaderErrorInvalidKeyResponse,
                            "The key system speaks key-request protocol version 1 only.",
                            {}};
        }
    }
    // Made off the caller's thread, as a key system's secure module answers asynchronously.
    DispatchQueue::global()->async([self = shared_from_this(), appCertificate, contentIdentifier, refused,
                                    completion = std::move(completion)] {
        if (refused) return completion(std::nullopt, refused);
        auto request = KeyExchange::makeRequest(appCertificate, contentIdentifier, self->persistable_);
        if (auto* error = std::get_if<Error>(&request)) return completion(std::nullopt, *error);
        auto& made = std::get<KeyExchange::Request>(request);
        {
            std::lock_guard lock(self->mutex_);
            self->keySession_ = std::move(made.session);
        }
        completion(std::move(made.serverPlaybackContext), std::nullopt);
    });
}

std::optional<KeyRequestSession> ContentKeyRequest::keySession() const {
    std::lock_guard lock(mutex_);
    return keySession_;
}

} // namespace ovalto::platform
