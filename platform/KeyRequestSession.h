#pragma once

#include "platform/Error.h"

#include <string>

namespace ovalto::platform {

// What a device keeps of a key request it made: the session key the answer will be wrapped
// with and what was asked for. Held by the request that made it, never stored.
struct KeyRequestSession {
    Data sessionKey;
    std::string contentIdentifier;
    bool persistent = false;
};

} // namespace ovalto::platform
