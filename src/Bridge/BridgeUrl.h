#pragma once

#include "platform/Url.h"

#include <optional>
#include <string>
#include <string_view>

namespace ovalto {

// The layout of the bridge's HTTP paths, in both directions, so that what the bridge writes into
// a playlist and what it reads from a request cannot drift apart:
//
//   <scheme>://<host>/<path>?<query>   <->   /<scheme>/<host>/<path>?<query>
//
// Only the resource loader's schemes are carried. Both directions work on the text as written
// (percent escapes and all), so a URL comes back byte for byte.
class BridgeUrl {
public:
    // The request target for a resource URL; no value when its scheme is not one the resource
    // loader answers or it has no host.
    static std::optional<std::string> target(std::string_view resourceUrl);
    // The resource URL a request target names; no value for any other target.
    static std::optional<platform::Url> resource(std::string_view target);
    // `playlist` with every absolute URI of a resource scheme (URI lines and URI="…" attributes)
    // replaced by `origin` ("http://127.0.0.1:8080") followed by its target. Relative URIs stay:
    // a client resolves them against the bridge URL it fetched the playlist from.
    static std::string mapPlaylist(std::string_view playlist, std::string_view origin);
};

} // namespace ovalto
