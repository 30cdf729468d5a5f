#pragma once

#include "platform/Error.h"

#include <optional>
#include <string_view>

namespace ovalto::platform {

// AES-256-GCM with a fresh random nonce: the box is nonce (12) | ciphertext | tag (16). Used for
// everything the key system wraps or seals, so a changed byte anywhere is detected on opening.
class SealedBox {
public:
    static constexpr std::size_t keySize = 32;
    static constexpr std::size_t overhead = 12 + 16;

    // No value only when the key has the wrong size or the random source fails.
    static std::optional<Data> seal(std::string_view key, std::string_view additionalData,
                                    std::string_view plaintext);
    // No value when the box was made with another key or other additional data, or was changed.
    static std::optional<Data> open(std::string_view key, std::string_view additionalData,
                                    std::string_view box);
    // `count` bytes from the system's random source; no value when it fails.
    static std::optional<Data> randomBytes(std::size_t count);
};

} // namespace ovalto::platform
