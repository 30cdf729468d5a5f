#pragma once

#include "platform/Error.h"

#include <optional>
#include <string_view>

namespace ovalto {

// Base64 of the standard alphabet, as licence servers speak it.
class Base64 {
public:
    // With "=" padding and no line breaks.
    static std::string encode(std::string_view bytes);
    // Characters outside the alphabet (line breaks, spaces, markup) are skipped; missing padding
    // is tolerated. No value when what remains is not base64 or decodes to nothing.
    static std::optional<platform::Data> decodeIgnoringUnknownCharacters(std::string_view text);
};

} // namespace ovalto
