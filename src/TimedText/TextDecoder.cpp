#include "TimedText/TextDecoder.h"

#include <iconv.h>

#include <cerrno>
#include <cstdint>

namespace ovalto {

namespace {

// Closes the descriptor however the conversion ends.
class Converter {
public:
    explicit Converter(const char* from)
        : descriptor_(iconv_open("UTF-8", from)) {}
    ~Converter() {
        if (valid()) iconv_close(descriptor_);
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;
    bool valid() const { return descriptor_ != reinterpret_cast<iconv_t>(-1); }
    iconv_t get() const { return descriptor_; }

private:
    iconv_t descriptor_;
};

} // namespace

std::optional<std::string> TextDecoder::convert(std::string_view bytes, const char* from) {
    Converter converter(from);
    if (!converter.valid()) return std::nullopt;
    std::string out;
    // Every encoding we meet grows by at most half again in UTF-8 (two UTF-16 bytes become at
    // most three, one Latin-1 byte two); the loop grows the buffer when a guess falls short.
    out.resize(bytes.size() + bytes.size() / 2 + 16);
    char* in = const_cast<char*>(bytes.data());
    std::size_t inLeft = bytes.size();
    std::size_t written = 0;
    while (true) {
        char* outPointer = out.data() + written;
        std::size_t outLeft = out.size() - written;
        const std::size_t result = iconv(converter.get(), &in, &inLeft, &outPointer, &outLeft);
        written = out.size() - outLeft;
        if (result != static_cast<std::size_t>(-1)) {
            // Flush whatever state the encoding keeps.
            if (iconv(converter.get(), nullptr, nullptr, &outPointer, &outLeft) ==
                static_cast<std::size_t>(-1))
                return std::nullopt;
            written = out.size() - outLeft;
            break;
        }
        if (errno != E2BIG) return std::nullopt; // an invalid or incomplete sequence
        out.resize(out.size() * 2);
    }
    out.resize(written);
    return out;
}

bool TextDecoder::isValidUtf8(std::string_view bytes) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* end = p + bytes.size();
    while (p < end) {
        // Eight ASCII bytes at a time: the common case of subtitle files.
        if (end - p >= 8) {
            std::uint64_t chunk;
            __builtin_memcpy(&chunk, p, 8);
            if ((chunk & 0x8080808080808080ull) == 0) {
                p += 8;
                continue;
            }
        }
        const unsigned char c = *p;
        if (c < 0x80) {
            ++p;
            continue;
        }
        int length;
        std::uint32_t minimum;
        std::uint32_t code;
        if ((c & 0xE0) == 0xC0) {
            length = 2, minimum = 0x80, code = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            length = 3, minimum = 0x800, code = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            length = 4, minimum = 0x10000, code = c & 0x07;
        } else {
            return false;
        }
        if (end - p < length) return false;
        for (int i = 1; i < length; ++i) {
            if ((p[i] & 0xC0) != 0x80) return false;
            code = (code << 6) | (p[i] & 0x3F);
        }
        if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
        p += length;
    }
    return true;
}

std::string TextDecoder::decode(std::string_view bytes) {
    struct Mark {
        std::string_view bytes;
        const char* encoding;
    };
    static constexpr Mark marks[] = {
        {"\xEF\xBB\xBF", "UTF-8"}, {"\xFF\xFE", "UTF-16LE"}, {"\xFE\xFF", "UTF-16BE"}};
    for (const auto& mark : marks) {
        if (!bytes.starts_with(mark.bytes)) continue;
        const auto body = bytes.substr(mark.bytes.size());
        if (auto text = convert(body, mark.encoding)) return *text;
        // A mark followed by bytes that do not fit it: the detection below has the last word.
        break;
    }
    if (isValidUtf8(bytes)) return std::string(bytes);
    if (auto text = convert(bytes, "CP932")) return *text;
    return convert(bytes, "ISO-8859-1").value_or(std::string());
}

} // namespace ovalto
