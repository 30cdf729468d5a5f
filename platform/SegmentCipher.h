#pragma once

#include "platform/Error.h"

#include <optional>
#include <string_view>

namespace ovalto::platform {

// The protection of media segments under an "skd" key: AES-128-CBC over the whole segment with
// PKCS#7 padding, as HLS does for AES-128 keys.
class SegmentCipher {
public:
    static std::optional<Data> encrypt(std::string_view clear, std::string_view key, std::string_view iv);
    // No value when the key or IV has the wrong size or the padding is not right (a wrong key).
    static std::optional<Data> decrypt(std::string_view encrypted, std::string_view key, std::string_view iv);
    // True when the bytes start like a media segment: MPEG-TS sync bytes, an MP4 box, an ID3 tag
    // or an ADTS frame. A wrong key whose padding happens to look right stops here.
    static bool looksLikeMedia(std::string_view clear);
    // The 16 bytes of an IV attribute ("0x" and 32 hex digits); no value for anything else.
    static std::optional<Data> ivFromAttribute(std::string_view text);
};

} // namespace ovalto::platform
