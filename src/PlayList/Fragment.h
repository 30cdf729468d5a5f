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

namespace ovalto {

// One media segment.
class Fragment : public Container {
public:
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
