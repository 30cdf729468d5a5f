#pragma once

#include "PlayList/Container.h"
#include "PlayList/FragmentUrl.h"
#include "Utils/Guarded.h"
#include "Utils/GuardedBox.h"
#include "platform/Error.h"
#include "platform/MediaTime.h"
#include "platform/Url.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace ovalto {

// One media segment. Its timing and byte range are what the playlist said and never change, so
// they are plain constants that any thread may read; the fields later requests write (the
// index, a listener's replacement URL, the QoE attributes) are guarded.
class Fragment : public Container {
public:
    Fragment() = default;
    Fragment(std::optional<platform::MediaTime> start, std::optional<platform::MediaTime> duration,
             std::optional<platform::Url> url, std::optional<std::int64_t> offset,
             std::optional<std::int64_t> length)
        : start(std::move(start))
        , duration(std::move(duration))
        , url(std::move(url))
        , offset(offset)
        , length(length) {}
    // The URL is resolved from `uri` with `resolver` when it is read (see FragmentUrl).
    Fragment(std::optional<platform::MediaTime> start, std::optional<platform::MediaTime> duration,
             const SubUrlResolver* resolver, std::string_view uri, std::optional<std::int64_t> offset,
             std::optional<std::int64_t> length)
        : start(std::move(start))
        , duration(std::move(duration))
        , url(resolver, uri)
        , offset(offset)
        , length(length) {}

    Guarded<std::optional<std::int64_t>> index;
    const std::optional<platform::MediaTime> start;
    const std::optional<platform::MediaTime> duration; // whole milliseconds, timescale 1000
    FragmentUrl url;
    const std::optional<std::int64_t> offset;
    const std::optional<std::int64_t> length;
    // Filled by the redirect resource: "StreamIndex", "MediaType", "FragmentIndex", "Bitrate".
    // Boxed: most fragments are never asked for, and a long playlist has a hundred thousand.
    GuardedBox<std::map<std::string, std::string>> attributes;
    GuardedBox<std::optional<platform::Data>> data;
};

} // namespace ovalto
