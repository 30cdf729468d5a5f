#pragma once

#include "nivora/MediaType.h"

#include <cstdint>
#include <string>
#include <vector>

namespace nivora {

// The plug-in's hook on every manifest and fragment request and response. Each hook may throw
// (any std::exception); the caller then keeps its own record as it was. Hooks are called from
// several threads at once.
class NetworkPlugin {
public:
    struct HeaderField {
        std::string name;
        std::string value;
    };
    struct Request {
        std::string uri;
        std::vector<HeaderField> headers;
        std::int32_t connectionTimeoutMs = 0;
        std::int32_t readTimeoutMs = 0;
    };
    struct Response {
        std::string uri;
        std::string originalUri;
        std::vector<HeaderField> headers;
        std::string edgeIP;
    };

    virtual ~NetworkPlugin() = default;

    virtual void onManifestRequest(Request& request) = 0;
    virtual void onManifestResponse(Response& response) = 0;
    virtual void onFragmentRequest(Request& request, MediaType type) = 0;
    virtual void onFragmentResponse(Response& response, MediaType type) = 0;
};

} // namespace nivora
