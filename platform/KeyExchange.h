#pragma once

#include "platform/ContentKey.h"
#include "platform/Error.h"
#include "platform/KeyRequestSession.h"

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace ovalto::platform {

class KeyVendorIdentity;

// The two messages of a key exchange and their one definition, used by both sides.
//
// Key request (server playback context), version 1:
//   "OSPC" | version | flags (1: persistent) | SHA-256 of the certificate (32)
//   | u16 length + content identifier | u16 length + RSA-OAEP(session key), labelled with
//   everything before it, so that no field can be changed without the server noticing.
// Answer (content key context), version 1:
//   "OCKC" | version | u16 length + content identifier
//   | AES-256-GCM under the session key of key (16) | IV (16) | expiry (i64), with the header as
//   additional data.
class KeyExchange {
public:
    static constexpr std::uint8_t version = 1;

    struct Request {
        Data serverPlaybackContext;
        KeyRequestSession session;
    };
    // Device side: a fresh session key for `contentIdentifier` wrapped to `certificate`.
    static std::variant<Request, Error> makeRequest(std::string_view certificate,
                                                    std::string_view contentIdentifier, bool persistent);
    // Device side: the key in an answer to `session`.
    static std::variant<ContentKey, Error> readAnswer(std::string_view contentKeyContext,
                                                      const KeyRequestSession& session);

    // Server side: what a key request asks for, or why it cannot be served.
    static std::variant<KeyRequestSession, std::string> readRequest(std::string_view serverPlaybackContext,
                                                                    const KeyVendorIdentity& identity);
    // Server side: `key` (its key, IV and expiry) wrapped for the request's session.
    static std::optional<Data> makeAnswer(const KeyRequestSession& request, const ContentKey& key);
};

} // namespace ovalto::platform
