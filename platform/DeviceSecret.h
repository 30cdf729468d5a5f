#pragma once

#include "platform/Error.h"

#include <string>
#include <variant>

namespace ovalto::platform {

// The secret that seals content keys stored on this device, so that a stored key copied to
// another machine or user is useless. Linux has no secure enclave: the stand-in is 32 random
// bytes in a file only the user can read, made on first use, beside the user's key-value store
// ($OVALTO_DEVICE_SECRET_PATH overrides where).
class DeviceSecret {
public:
    static constexpr std::size_t size = 32;

    // The secret, made when there is none yet; a loader error (loaderErrorKeyStorageUnavailable)
    // when the file cannot be made or read, or is not a secret. A damaged file is never replaced:
    // that would silently make every stored key unreadable.
    static std::variant<Data, Error> current();
    static std::string path();
};

} // namespace ovalto::platform
