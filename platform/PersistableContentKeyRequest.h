#pragma once

#include "platform/ContentKeyRequest.h"

namespace ovalto::platform {

// A request whose answer can be kept: the key vendor's answer becomes a persistable key.
class PersistableContentKeyRequest : public ContentKeyRequest {
public:
    PersistableContentKeyRequest(std::weak_ptr<ContentKeySession> session, std::any identifier,
                                 std::optional<Data> initializationData)
        : ContentKeyRequest(std::move(session), std::move(identifier), std::move(initializationData), true) {}

    // The content key of the answer to this request's key request, sealed for this device.
    std::variant<Data, Error> persistableContentKey(const Data& keyVendorResponse,
                                                    const Options& options = {}) const;
};

} // namespace ovalto::platform
