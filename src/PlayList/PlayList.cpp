#include "PlayList/PlayList.h"

#include "PlayList/Ext.h"
#include "PlayList/PlayListText.h"

#include <algorithm>
#include <cstring>

namespace ovalto {

namespace playlisttext {

bool isValidUtf8(std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* const end = p + text.size();
    while (p < end) {
        // Playlists are nearly all ASCII: skip 32 bytes, then eight, at a time while no high bit
        // is set.
        while (end - p >= 32) {
            std::uint64_t words[4];
            std::memcpy(words, p, sizeof words);
            if ((words[0] | words[1] | words[2] | words[3]) & 0x8080808080808080ull) break;
            p += 32;
        }
        while (end - p >= 8) {
            std::uint64_t word;
            std::memcpy(&word, p, sizeof word);
            if (word & 0x8080808080808080ull) break;
            p += 8;
        }
        if (p == end) break;
        const unsigned char c = *p;
        if (c < 0x80) {
            ++p;
            continue;
        }
        std::size_t length;
        unsigned char low = 0x80, high = 0xBF; // allowed range of the second byte
        if (c >= 0xC2 && c <= 0xDF) {
            length = 2;
        } else if (c >= 0xE0 && c <= 0xEF) {
            length = 3;
            if (c == 0xE0) low = 0xA0;  // overlong
            if (c == 0xED) high = 0x9F; // surrogates
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 4;
            if (c == 0xF0) low = 0x90;  // overlong
            if (c == 0xF4) high = 0x8F; // past U+10FFFF
        } else {
            return false;
        }
        if (std::size_t(end - p) < length || p[1] < low || p[1] > high) return false;
        for (std::size_t i = 2; i < length; ++i) {
            if ((p[i] & 0xC0) != 0x80) return false;
        }
        p += length;
    }
    return true;
}

std::optional<std::int64_t> parseMillisecondsInGeneral(std::string_view text) {
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    std::size_t i = 0;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    const std::size_t integerStart = i;
    while (i < text.size() && isDigit(text[i]))
        ++i;
    const std::string_view integerDigits = text.substr(integerStart, i - integerStart);
    std::string_view fractionDigits;
    if (i < text.size() && text[i] == '.') {
        const std::size_t fractionStart = ++i;
        while (i < text.size() && isDigit(text[i]))
            ++i;
        fractionDigits = text.substr(fractionStart, i - fractionStart);
    }
    if (integerDigits.empty() && fractionDigits.empty()) return std::nullopt;
    std::int64_t exponent = 0;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        bool negativeExponent = false;
        if (i < text.size() && (text[i] == '+' || text[i] == '-')) negativeExponent = text[i++] == '-';
        const std::size_t exponentStart = i;
        // Clamped: any exponent this large already overflows or truncates to zero.
        for (; i < text.size() && isDigit(text[i]); ++i)
            exponent = std::min<std::int64_t>(exponent * 10 + (text[i] - '0'), 1'000'000'000);
        if (i == exponentStart) return std::nullopt;
        if (negativeExponent) exponent = -exponent;
    }
    if (i != text.size()) return std::nullopt;

    // The digits of integer and fraction read as one sequence; the first `integerLength` of
    // them (zeros past the end) form the whole milliseconds.
    const auto digitCount = static_cast<std::int64_t>(integerDigits.size() + fractionDigits.size());
    const auto digitAt = [&](std::int64_t k) -> unsigned {
        if (k >= digitCount) return 0;
        const auto index = static_cast<std::size_t>(k);
        return static_cast<unsigned>((index < integerDigits.size()
                                          ? integerDigits[index]
                                          : fractionDigits[index - integerDigits.size()]) -
                                     '0');
    };
    const std::int64_t integerLength = static_cast<std::int64_t>(integerDigits.size()) + exponent + 3;
    const std::uint64_t limit = negative ? (std::uint64_t{1} << 63) : (std::uint64_t{1} << 63) - 1;
    std::uint64_t value = 0;
    for (std::int64_t k = 0; k < integerLength; ++k) {
        // Past the written digits only zeros follow: a zero value stays zero.
        if (k >= digitCount && value == 0) break;
        const unsigned digit = digitAt(k);
        if (value > (limit - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    if (negative && value != 0) return -static_cast<std::int64_t>(value - 1) - 1;
    return static_cast<std::int64_t>(value);
}

} // namespace playlisttext

namespace {

bool isWhitespace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

std::string_view trimName(std::string_view name) {
    while (!name.empty() && name.front() == ',')
        name.remove_prefix(1);
    while (!name.empty() && name.back() == ',')
        name.remove_suffix(1);
    while (!name.empty() && isWhitespace(name.front()))
        name.remove_prefix(1);
    while (!name.empty() && isWhitespace(name.back()))
        name.remove_suffix(1);
    return name;
}

} // namespace

AttributeList PlayList::parseAttribute(std::string_view tag) {
    AttributeList list;
    const auto colon = tag.find(':');
    if (colon == std::string_view::npos) return list;
    std::string_view remainder = tag.substr(colon + 1);
    for (auto equals = remainder.find('='); equals != std::string_view::npos; equals = remainder.find('=')) {
        const std::string_view name = trimName(remainder.substr(0, equals));
        const std::string_view valueText = remainder.substr(equals + 1);
        if (!valueText.empty() && valueText.front() == '"') {
            const auto closing = valueText.find('"', 1);
            if (closing == std::string_view::npos) {
                // An unterminated quote takes the rest of the line, opening quote included, and
                // ends the list, as an unquoted value would.
                list.set(std::string(name), std::string(valueText));
                break;
            }
            list.set(std::string(name), std::string(valueText.substr(0, closing + 1)));
            remainder = valueText.substr(closing + 1);
        } else {
            const auto comma = valueText.find(',');
            list.set(std::string(name), std::string(valueText.substr(0, comma)));
            remainder = comma == std::string_view::npos ? std::string_view() : valueText.substr(comma + 1);
        }
    }
    return list;
}

bool PlayList::isMaster(std::string_view playList) {
    bool master = true;
    playlisttext::forEachLine(playList, [&](std::string_view line) {
        if (line.starts_with(rawValue(Ext::inf))) master = false;
        return master;
    });
    return master;
}

} // namespace ovalto
