#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ovalto {

// Turns the bytes of a subtitle document into UTF-8 text the way a user expects: a byte-order
// mark (UTF-8, UTF-16 LE or BE) decides and is dropped; otherwise valid UTF-8 stays as it is,
// then Shift_JIS (CP932, common for Japanese subtitle files), then Latin-1, which always works.
class TextDecoder {
public:
    static std::string decode(std::string_view bytes);
    // `bytes` in the iconv encoding `from`, as UTF-8; no value when iconv does not know the
    // encoding or the bytes are not valid in it.
    static std::optional<std::string> convert(std::string_view bytes, const char* from);
    static bool isValidUtf8(std::string_view bytes);
};

} // namespace ovalto
