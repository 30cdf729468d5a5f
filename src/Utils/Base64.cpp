#include "Utils/Base64.h"

#include <openssl/evp.h>

namespace ovalto {

namespace {

bool inAlphabet(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
}

} // namespace

std::string Base64::encode(std::string_view bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3), '\0');
    const int written =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    out.resize(static_cast<std::size_t>(written));
    return out;
}

std::optional<platform::Data> Base64::decodeIgnoringUnknownCharacters(std::string_view text) {
    std::string digits;
    digits.reserve(text.size());
    std::size_t padding = 0;
    for (char c : text) {
        if (c == '=') {
            ++padding;
        } else if (inAlphabet(c)) {
            if (padding > 0) return std::nullopt; // digits after the padding
            digits += c;
        }
    }
    if (digits.empty() || digits.size() % 4 == 1 || padding > 2) return std::nullopt;
    const std::size_t missing = (4 - digits.size() % 4) % 4;
    if (padding != 0 && padding != missing) return std::nullopt;
    digits.append(missing, '=');
    platform::Data out(digits.size() / 4 * 3, '\0');
    const int written = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                        reinterpret_cast<const unsigned char*>(digits.data()),
                                        static_cast<int>(digits.size()));
    if (written < 0) return std::nullopt;
    out.resize(static_cast<std::size_t>(written) - missing); // EVP counts the padding as zero bytes
    return out;
}

} // namespace ovalto
