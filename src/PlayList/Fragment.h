#pragma once

#include "PlayList/Container.h"
#include "Utils/Guarded.h"
#include "platform/Error.h"
#include "platform/MediaTime.h"
#include "platform/Url.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace ovalto {

// One media segment.
class Fragment : public Container {
public:
    Fragment() = default;
    // A segment as a playlist parser read it: the fields are set before anyone can see the
    // fragment, so building it takes no locks.
    Fragment(std::optional<platform::MediaTime> start, std::optional<platform::MediaTime> duration,
             std::optional<platform::Url> url, std::optional<std::int64_t> offset,
             std::optional<std::int64_t> length)
        : start(std::move(start))
        , duration(std::move(duration))
        , url(std::move(url))
        , offset(std::move(offset))
        , length(std::move(length)) {}

    Guarded<std::optional<std::int64_t>> index;
    Guarded<std::optional<platform::MediaTime>> start;
    Guarded<std::optional<platform::MediaTime>> duration; // whole milliseconds, timescale 1000
    Guarded<std::optional<platform::Url>> url;
    Guarded<std::optional<std::int64_t>> offset;
    Guarded<std::optional<std::int64_t>> length;
    // Filled by the redirect resource: "StreamIndex", "MediaType", "FragmentIndex", "Bitrate".
    Guarded<std::map<std::string, std::string>> attributes;
    Guarded<std::optional<platform::Data>> data;
};

} // namespace ovalto
