#include "platform/PersistableContentKeyRequest.h"

#include "platform/KeyExchange.h"
#include "platform/LoadingRequest.h"

namespace ovalto::platform {

std::variant<Data, Error>
PersistableContentKeyRequest::persistableContentKey(const Data& keyVendorResponse,
                                                    const Options& /*options*/) const {
    auto session = keySession();
    if (!session) {
        return Error{Error::loaderDomain,
                     loaderErrorInvalidKeyResponse,
                     "No key request was made on this request.",
                     {}};
    }
    auto key = KeyExchange::readAnswer(keyVendorResponse, *session);
    if (auto* error = std::get_if<Error>(&key)) return *error;
    return std::get<ContentKey>(key).seal();
}

} // namespace ovalto::platform
