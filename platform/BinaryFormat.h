#pragma once

#include "platform/Error.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace ovalto::platform {

// Big-endian fields and length-prefixed strings of the key system's small binary formats.
// Reading never runs past the end: a short or malformed blob gives no value.
class BinaryFormat {
public:
    static void appendUnsigned(Data& out, std::uint64_t value, int bytes) {
        for (int i = bytes - 1; i >= 0; --i)
            out += static_cast<char>((value >> (8 * i)) & 0xff);
    }
    // A 16-bit length, then the bytes; false when they do not fit in 16 bits.
    static bool appendShortString(Data& out, std::string_view bytes) {
        if (bytes.size() > 0xffff) return false;
        appendUnsigned(out, bytes.size(), 2);
        out += bytes;
        return true;
    }

    class Reader {
    public:
        explicit Reader(std::string_view bytes)
            : rest_(bytes) {}

        std::optional<std::string_view> bytes(std::size_t count) {
            if (rest_.size() < count) return std::nullopt;
            auto taken = rest_.substr(0, count);
            rest_.remove_prefix(count);
            return taken;
        }
        std::optional<std::uint64_t> unsignedValue(int count) {
            auto taken = bytes(static_cast<std::size_t>(count));
            if (!taken) return std::nullopt;
            std::uint64_t value = 0;
            for (unsigned char c : *taken)
                value = (value << 8) | c;
            return value;
        }
        std::optional<std::string_view> shortString() {
            auto length = unsignedValue(2);
            if (!length) return std::nullopt;
            return bytes(*length);
        }
        // How far the reader has come, for authenticating what was read so far.
        std::size_t consumed(std::string_view whole) const { return whole.size() - rest_.size(); }
        std::string_view rest() const { return rest_; }

    private:
        std::string_view rest_;
    };
};

} // namespace ovalto::platform
