// The bridge's path layout and playlist mapping. Beyond not crashing: a request target that names
// a resource comes back as a target that names the same resource; every mapped playlist keeps
// its lines (count and endings), and no absolute URI of a resource scheme is left in a URI line.
#include "Bridge/BridgeUrl.h"
#include "FuzzSupport.h"
#include "Resources/ResourceType.h"

#include <cstdint>

using namespace ovalto;

namespace {

constexpr std::string_view origin = "http://127.0.0.1:9";

bool isResourceUri(std::string_view line) {
    for (auto type : ResourceType::allCases) {
        const std::string prefix = std::string(ResourceType(type).rawValue()) + "://";
        if (line.starts_with(prefix)) return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);

    if (auto resource = BridgeUrl::resource(input)) {
        const auto target = BridgeUrl::target(resource->absoluteString());
        fuzz::check(target.has_value(), "a resource read from a target has no target", input);
        const auto again = BridgeUrl::resource(*target);
        fuzz::check(again && again->absoluteString() == resource->absoluteString(),
                    "a target does not name the resource it was written for", input);
    }

    const auto mapped = BridgeUrl::mapPlaylist(input, origin);
    const auto before = fuzz::splitLines(input);
    const auto after = fuzz::splitLines(mapped);
    fuzz::check(before.size() == after.size(), "mapping changed the number of lines", input);
    for (std::size_t i = 0; i < after.size(); ++i) {
        fuzz::check(before[i].ends_with('\r') == after[i].ends_with('\r'), "a line ending changed", input);
        fuzz::check(before[i].starts_with('#') == after[i].starts_with('#'), "a tag became a URI", input);
        std::string_view line = after[i];
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
            line.remove_prefix(1);
        // A URI line of a resource scheme is left only when it has no target (no host, or a
        // control character left inside once the line's end and its blanks are taken off).
        if (!line.starts_with('#') && isResourceUri(line)) {
            std::string_view uri = line;
            if (uri.ends_with('\r')) uri.remove_suffix(1);
            while (!uri.empty() && (uri.back() == ' ' || uri.back() == '\t'))
                uri.remove_suffix(1);
            fuzz::check(!BridgeUrl::target(uri), "a resource URI line was not mapped", mapped);
        }
    }
    return 0;
}
