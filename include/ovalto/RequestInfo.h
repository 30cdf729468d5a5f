#pragma once

#include "ovalto/ConnectionInfo.h"

#include <cstdint>

namespace ovalto {

// A request about to be sent; a listener may change uri, headers and timeout before it goes.
class RequestInfo : public ConnectionInfo {
public:
    std::optional<std::int32_t> timeout; // seconds
    std::optional<std::string> type;     // "audio", "text" or "video" for fragments
};

} // namespace ovalto
