#pragma once

#include "platform/Error.h"
#include "platform/KeyRequestSession.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace ovalto::platform {

// A content key as the player uses it: the AES-128 key and IV that decrypt an asset's segments,
// the asset it belongs to and when it stops being usable.
struct ContentKey {
    static constexpr std::size_t size = 16;

    Data key;
    Data iv;
    std::string assetId;
    std::int64_t expiry = 0; // seconds since the epoch; 0 for a key that does not expire

    bool isExpired(std::chrono::system_clock::time_point now = std::chrono::system_clock::now()) const;

    // The persistable form: sealed with this device's secret together with asset and expiry.
    std::variant<Data, Error> seal() const;
    // A loader error when the bytes are not a persistable key of this device, or were changed.
    static std::variant<ContentKey, Error> unseal(std::string_view persistable);

    // What can be told of a persistable key without opening it (for inventories).
    struct Description {
        std::string assetId;
        std::int64_t expiry = 0;
    };
    static std::optional<Description> describe(std::string_view persistable);

    // The key a key answer gives for `assetId`: a persistable key (by its content type) is
    // opened with the device secret, anything else is read as the licence server's answer to
    // `session`. Fails for an answer to another asset, an expired key, or bytes that are neither.
    static std::variant<ContentKey, Error> fromKeyAnswer(std::string_view answer,
                                                         const std::optional<std::string>& contentType,
                                                         const std::optional<KeyRequestSession>& session,
                                                         std::string_view assetId);
};

} // namespace ovalto::platform
