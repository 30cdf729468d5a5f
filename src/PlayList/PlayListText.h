#pragma once

// Text helpers shared by the master and media playlist parsers: line splitting, tag names and
// values, and the strict number readers that decide which values count as missing.

#include <bit>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <type_traits>

namespace ovalto::playlisttext {

// Whether `text` is well-formed UTF-8 (no overlongs, surrogates or code points past U+10FFFF).
bool isValidUtf8(std::string_view text);

// Calls `f(line)` for every line of `text`, trimmed of spaces and tabs, empty lines skipped.
// Lines end at LF, VT, FF, CR, NEL, LINE SEPARATOR and PARAGRAPH SEPARATOR, so CRLF text splits
// like LF text. An `f` that returns bool stops the walk by returning false.
template <class F> void forEachLine(std::string_view text, F&& f) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* const end = p + text.size();
    const auto* lineStart = p;
    // Returns false when `f` asked to stop.
    auto emit = [&](const unsigned char* first, const unsigned char* last) -> bool {
        while (first < last && (*first == ' ' || *first == '\t'))
            ++first;
        while (last > first && (last[-1] == ' ' || last[-1] == '\t'))
            --last;
        if (first == last) return true;
        const std::string_view line(reinterpret_cast<const char*>(first), std::size_t(last - first));
        if constexpr (std::is_same_v<decltype(f(line)), bool>) {
            return f(line);
        } else {
            f(line);
            return true;
        }
    };
    while (p < end) {
        if constexpr (std::endian::native == std::endian::little) {
            // Skip eight ordinary bytes at a time: a word whose bytes are all >= 0x0E and < 0x80
            // holds no line break. The lowest flagged byte is exact (later ones may not be).
            constexpr std::uint64_t ones = 0x0101010101010101ull;
            constexpr std::uint64_t highBits = 0x8080808080808080ull;
            while (end - p >= 8) {
                std::uint64_t word;
                std::memcpy(&word, p, sizeof word);
                const std::uint64_t special = ((word - ones * 0x0E) | word) & highBits;
                if (special != 0) {
                    p += std::countr_zero(special) / 8;
                    break;
                }
                p += 8;
            }
            if (p == end) break;
        }
        const unsigned char c = *p;
        std::size_t lineBreak = 0;
        if (c >= 0x0A && c <= 0x0D) {
            lineBreak = 1;
        } else if (c == 0xC2) {
            if (end - p >= 2 && p[1] == 0x85) lineBreak = 2;
        } else if (c == 0xE2) {
            if (end - p >= 3 && p[1] == 0x80 && (p[2] == 0xA8 || p[2] == 0xA9)) lineBreak = 3;
        }
        if (lineBreak == 0) {
            ++p;
            continue;
        }
        if (!emit(lineStart, p)) return;
        p += lineBreak;
        lineStart = p;
    }
    emit(lineStart, end);
}

// A tag line cut at its colons: the name before the first, the value between the first and the
// second. `hasColon` is false for a bare tag such as "#EXT-X-ENDLIST".
struct TagLine {
    std::string_view name;
    std::string_view rest; // everything after the first colon
    bool hasColon = false;

    std::string_view value() const { return rest.substr(0, rest.find(':')); }
};

inline TagLine splitTag(std::string_view line) {
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return {line, {}, false};
    return {line.substr(0, colon), line.substr(colon + 1), true};
}

// A decimal integer of type T: an optional sign and digits, nothing else, within T's range.
template <std::integral T> std::optional<T> parseIntegerInGeneral(std::string_view text) {
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (text.empty() || text.front() == '-') return std::nullopt;
    }
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

// The same into `value`, false when there is none; up to nine plain digits (what playlists
// nearly always hold) are read inline. Hot loops read numbers this way, since an optional
// returned through memory stalls the load that follows it.
template <std::integral T> inline bool parseInteger(std::string_view text, T& value) {
    if constexpr (sizeof(T) >= 4) {
        if (!text.empty() && text.size() <= 9) {
            std::int32_t digits = 0;
            std::size_t i = 0;
            for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
                digits = digits * 10 + (text[i] - '0');
            if (i == text.size()) {
                value = static_cast<T>(digits);
                return true;
            }
        }
    }
    const auto general = parseIntegerInGeneral<T>(text);
    if (general) value = *general;
    return general.has_value();
}

template <std::integral T> inline std::optional<T> parseInteger(std::string_view text) {
    T value{};
    if (!parseInteger(text, value)) return std::nullopt;
    return value;
}

// A decimal number of seconds (optional sign, digits with an optional point, optional exponent)
// times 1000, truncated toward zero. It is computed on the digits as written, so "1.001" is
// 1001 ms where a binary double would give 1000.999... No value for text of another form
// (including "inf" and "nan") or a result beyond 64 bits.
std::optional<std::int64_t> parseMillisecondsInGeneral(std::string_view text);

// The same into `milliseconds`, false when there is no value; the usual form is read inline: a
// few digits and an optional fraction, no sign and no exponent (fourteen integer digits times
// 1000 cannot overflow).
inline bool parseMilliseconds(std::string_view text, std::int64_t& milliseconds) {
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    std::size_t i = 0;
    std::int64_t whole = 0;
    for (; i < text.size() && i < 15 && isDigit(text[i]); ++i)
        whole = whole * 10 + (text[i] - '0');
    if (i > 0 && i < 15) {
        if (i == text.size()) {
            milliseconds = whole * 1000;
            return true;
        }
        if (text[i] == '.') {
            std::int64_t fraction = 0;
            int digits = 0;
            for (++i; i < text.size() && isDigit(text[i]); ++i) {
                if (digits < 3) {
                    fraction = fraction * 10 + (text[i] - '0');
                    ++digits;
                }
            }
            if (i == text.size()) {
                for (; digits < 3; ++digits)
                    fraction *= 10;
                milliseconds = whole * 1000 + fraction;
                return true;
            }
        }
    }
    const auto general = parseMillisecondsInGeneral(text);
    if (general) milliseconds = *general;
    return general.has_value();
}

inline std::optional<std::int64_t> parseMilliseconds(std::string_view text) {
    std::int64_t milliseconds = 0;
    if (!parseMilliseconds(text, milliseconds)) return std::nullopt;
    return milliseconds;
}

} // namespace ovalto::playlisttext
