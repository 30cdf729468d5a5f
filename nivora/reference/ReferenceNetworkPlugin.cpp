#include "nivora/reference/ReferenceNetworkPlugin.h"

namespace nivora::reference {

namespace {
void append(NetworkPlugin::Request& request, const ReferenceNetworkPlugin::Headers& headers) {
    for (const auto& [name, value] : headers)
        request.headers.push_back({name, value});
}
} // namespace

void ReferenceNetworkPlugin::onManifestRequest(Request& request) {
    append(request, manifestHeaders_);
}

void ReferenceNetworkPlugin::onManifestResponse(Response&) {}

void ReferenceNetworkPlugin::onFragmentRequest(Request& request, MediaType) {
    append(request, fragmentHeaders_);
}

void ReferenceNetworkPlugin::onFragmentResponse(Response&, MediaType) {}

} // namespace nivora::reference
