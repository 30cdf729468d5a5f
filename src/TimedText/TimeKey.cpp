#include "TimedText/TimeKey.h"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace ovalto {

namespace {

constexpr auto int64Max = std::numeric_limits<std::int64_t>::max();
constexpr auto int64Min = std::numeric_limits<std::int64_t>::min();
// 2^63: the first double above every int64 value.
constexpr double int64Limit = 9223372036854775808.0;

std::int64_t saturatingAdd(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    return b > 0 ? int64Max : int64Min;
}

std::int64_t saturatingMultiply(std::int64_t a, std::int64_t b) {
    std::int64_t product = 0;
    if (!__builtin_mul_overflow(a, b, &product)) return product;
    return (a < 0) != (b < 0) ? int64Min : int64Max;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
    if (text.starts_with('+') && !text.substr(1).starts_with('-')) text.remove_prefix(1);
    if (text.empty() || text.starts_with('+')) return std::nullopt;
    std::int64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

// scale × seconds truncated toward zero, clamped to the key range; NaN adds nothing.
std::int64_t scaledSeconds(double seconds, std::int64_t scale) {
    const double product = static_cast<double>(scale) * seconds;
    if (std::isnan(product)) return 0;
    if (product >= int64Limit) return int64Max;
    if (product < -int64Limit) return int64Min;
    return static_cast<std::int64_t>(product);
}

} // namespace

std::optional<double> parseDouble(std::string_view text) {
    if (text.starts_with('+') && !text.substr(1).starts_with('-')) text.remove_prefix(1);
    if (text.empty() || text.starts_with('+')) return std::nullopt;
    double value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::int64_t toSeconds(std::string_view text, std::int64_t scale) {
    static constexpr std::array<std::int64_t, 3> multipliers{1, 60, 3600};
    std::int64_t total = 0;
    // Fields from the right: seconds, minutes, hours; anything further left is ignored.
    std::size_t end = text.size();
    for (std::size_t field = 0; field < multipliers.size(); ++field) {
        const auto colon = end == 0 ? std::string_view::npos : text.rfind(':', end - 1);
        const std::size_t begin = colon == std::string_view::npos ? 0 : colon + 1;
        const std::string_view piece = text.substr(begin, end - begin);
        if (field == 0) {
            std::string seconds(piece);
            for (char& c : seconds)
                if (c == ',') c = '.';
            std::string_view trimmed = seconds;
            while (!trimmed.empty() && isBlank(trimmed.front()))
                trimmed.remove_prefix(1);
            while (!trimmed.empty() && isBlank(trimmed.back()))
                trimmed.remove_suffix(1);
            if (auto value = parseDouble(trimmed)) total = saturatingAdd(total, scaledSeconds(*value, scale));
        } else if (auto value = parseInteger(piece)) {
            total = saturatingAdd(total,
                                  saturatingMultiply(saturatingMultiply(*value, multipliers[field]), scale));
        }
        if (colon == std::string_view::npos) break;
        end = colon;
    }
    return total;
}

std::optional<std::int64_t> timeKey(double seconds) {
    const double product = seconds * 100.0;
    if (!std::isfinite(product) || product >= int64Limit || product < -int64Limit) return std::nullopt;
    return static_cast<std::int64_t>(product);
}

} // namespace ovalto
