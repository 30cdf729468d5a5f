#pragma once

#include "nivora/NetworkPlugin.h"

#include <string>
#include <utility>
#include <vector>

namespace nivora::reference {

// Adds fixed header fields to every manifest and fragment request (a token, a session tag);
// responses are only looked at.
class ReferenceNetworkPlugin : public NetworkPlugin {
public:
    using Headers = std::vector<std::pair<std::string, std::string>>;

    ReferenceNetworkPlugin(Headers manifestHeaders, Headers fragmentHeaders)
        : manifestHeaders_(std::move(manifestHeaders))
        , fragmentHeaders_(std::move(fragmentHeaders)) {}

    void onManifestRequest(Request& request) override;
    void onManifestResponse(Response& response) override;
    void onFragmentRequest(Request& request, MediaType type) override;
    void onFragmentResponse(Response& response, MediaType type) override;

private:
    const Headers manifestHeaders_;
    const Headers fragmentHeaders_;
};

} // namespace nivora::reference
