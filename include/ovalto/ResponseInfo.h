#pragma once

#include "ovalto/ConnectionInfo.h"
#include "platform/MediaTime.h"

#include <cstdint>

namespace ovalto {

class ResponseInfo : public ConnectionInfo {
public:
    std::optional<std::string> originalUri;
    std::optional<std::string> edgeIP;
    std::optional<std::int64_t> size;
    std::optional<std::string> type;
    std::optional<platform::MediaTime> start;
    std::optional<platform::MediaTime> duration;
    std::optional<platform::MediaTime> downloadTime; // milliseconds, timescale 1000
    std::optional<std::int32_t> streamIndex;
    std::optional<std::int64_t> fragmentIndex;
    std::optional<std::int32_t> bitrate;
};

} // namespace ovalto
