#include "platform/MediaTime.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <numeric>

namespace ovalto::platform {

namespace {

// __extension__ keeps -Wpedantic quiet about the compiler-provided type.
__extension__ typedef __int128 Int128;

constexpr std::int64_t int64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t int64Min = std::numeric_limits<std::int64_t>::min();
constexpr std::int32_t int32Max = std::numeric_limits<std::int32_t>::max();

constexpr std::uint32_t infinities = MediaTime::positiveInfinity | MediaTime::negativeInfinity;

MediaTime infinity(bool positive) {
    MediaTime time;
    time.flags = MediaTime::valid | (positive ? MediaTime::positiveInfinity : MediaTime::negativeInfinity);
    return time;
}

// numerator / denominator rounded half away from zero, at `timescale`; ±infinity when the value
// does not fit.
MediaTime fromRational(Int128 numerator, Int128 denominator, std::int32_t timescale) {
    if (denominator < 0) {
        numerator = -numerator;
        denominator = -denominator;
    }
    Int128 quotient = numerator / denominator;
    Int128 remainder = numerator % denominator;
    bool rounded = remainder != 0;
    Int128 magnitude = remainder < 0 ? -remainder : remainder;
    if (2 * magnitude >= denominator) quotient += numerator < 0 ? -1 : 1;
    if (quotient > int64Max || quotient < int64Min) return infinity(quotient > 0);
    MediaTime time = MediaTime::make(static_cast<std::int64_t>(quotient), timescale);
    if (rounded) time.flags |= MediaTime::hasBeenRounded;
    return time;
}

// a + sign·b for valid times; follows the usual media-time rules for the non-numeric cases.
MediaTime combine(const MediaTime& a, const MediaTime& b, int sign) {
    if (!a.isValid() || !b.isValid()) return MediaTime::invalid();
    if (a.isIndefinite() || b.isIndefinite()) return MediaTime::indefiniteTime();

    bool aInfinite = (a.flags & infinities) != 0;
    bool bInfinite = (b.flags & infinities) != 0;
    if (aInfinite || bInfinite) {
        bool aPositive = (a.flags & MediaTime::positiveInfinity) != 0;
        bool bPositive = ((b.flags & MediaTime::positiveInfinity) != 0) == (sign > 0);
        if (aInfinite && bInfinite)
            return aPositive == bPositive ? infinity(aPositive) : MediaTime::invalid();
        return infinity(aInfinite ? aPositive : bPositive);
    }
    // Times on different timelines cannot be added.
    if (a.epoch != b.epoch) return MediaTime::invalid();

    std::uint32_t carried = (a.flags | b.flags) & MediaTime::hasBeenRounded;
    MediaTime result;
    std::int64_t divisor = std::gcd<std::int64_t>(a.timescale, b.timescale);
    std::int64_t lcm = std::int64_t{a.timescale} / divisor * b.timescale;
    // Int128 holds every product below: |value| < 2^63, timescales < 2^31.
    if (lcm <= int32Max) {
        Int128 sum = Int128{a.value} * (lcm / a.timescale) + sign * Int128{b.value} * (lcm / b.timescale);
        if (sum > int64Max || sum < int64Min) return infinity(sum > 0);
        result = MediaTime::make(static_cast<std::int64_t>(sum), static_cast<std::int32_t>(lcm));
    } else {
        // No common timescale fits: round the exact sum once, at the finer of the two.
        Int128 numerator = Int128{a.value} * b.timescale + sign * Int128{b.value} * a.timescale;
        Int128 denominator = Int128{a.timescale} * b.timescale;
        std::int32_t timescale = std::max(a.timescale, b.timescale);
        result = fromRational(numerator * timescale, denominator, timescale);
        if (result.isNumeric()) result.flags |= MediaTime::hasBeenRounded;
    }
    if (result.isNumeric()) {
        result.flags |= carried;
        result.epoch = a.epoch;
    }
    return result;
}

// Sort order across kinds: -infinity < numeric < +infinity < indefinite < invalid.
int rank(const MediaTime& time) {
    if (!time.isValid()) return 4;
    if (time.isIndefinite()) return 3;
    if (time.flags & MediaTime::positiveInfinity) return 2;
    if (time.flags & MediaTime::negativeInfinity) return 0;
    return 1;
}

} // namespace

MediaTime MediaTime::make(std::int64_t value, std::int32_t timescale) {
    if (timescale <= 0) return invalid();
    MediaTime time;
    time.value = value;
    time.timescale = timescale;
    time.flags = valid;
    return time;
}

MediaTime MediaTime::makeWithSeconds(double seconds, std::int32_t preferredTimescale) {
    if (preferredTimescale <= 0 || std::isnan(seconds)) return invalid();
    if (std::isinf(seconds)) return infinity(seconds > 0);
    double scaled = seconds * preferredTimescale;
    // 2^63 is exactly representable; anything at or beyond it does not fit in the value.
    if (scaled >= 9223372036854775808.0 || scaled < -9223372036854775808.0) return infinity(scaled > 0);
    double rounded = std::round(scaled);
    if (rounded >= 9223372036854775808.0) return infinity(true);
    MediaTime time = make(static_cast<std::int64_t>(rounded), preferredTimescale);
    if (rounded != scaled) time.flags |= hasBeenRounded;
    return time;
}

MediaTime MediaTime::indefiniteTime() {
    MediaTime time;
    time.flags = valid | indefinite;
    return time;
}

double MediaTime::seconds() const {
    if (!isValid() || isIndefinite()) return std::numeric_limits<double>::quiet_NaN();
    if (flags & positiveInfinity) return std::numeric_limits<double>::infinity();
    if (flags & negativeInfinity) return -std::numeric_limits<double>::infinity();
    return static_cast<double>(value) / timescale;
}

MediaTime operator+(const MediaTime& a, const MediaTime& b) {
    return combine(a, b, 1);
}

MediaTime operator-(const MediaTime& a, const MediaTime& b) {
    return combine(a, b, -1);
}

MediaTime MediaTime::convertScale(std::int32_t newTimescale) const {
    if (!isValid() || newTimescale <= 0) return invalid();
    if (!isNumeric() || newTimescale == timescale) return *this;
    MediaTime result = fromRational(Int128{value} * newTimescale, timescale, newTimescale);
    if (result.isNumeric()) {
        result.flags |= flags & hasBeenRounded;
        result.epoch = epoch;
    }
    return result;
}

int compare(const MediaTime& a, const MediaTime& b) {
    int rankA = rank(a);
    int rankB = rank(b);
    if (rankA != rankB || rankA != 1) return rankA < rankB ? -1 : (rankA > rankB ? 1 : 0);
    if (a.epoch != b.epoch) return a.epoch < b.epoch ? -1 : 1;
    Int128 left = Int128{a.value} * b.timescale;
    Int128 right = Int128{b.value} * a.timescale;
    return left < right ? -1 : (left > right ? 1 : 0);
}

std::string MediaTime::description() const {
    if (!isValid()) return "{INVALID}";
    if (isIndefinite()) return "{INDEFINITE}";
    if (flags & positiveInfinity) return "{+INFINITY}";
    if (flags & negativeInfinity) return "{-INFINITY}";
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "{%lld/%d = %.3f}", static_cast<long long>(value), timescale,
                  seconds());
    return buffer;
}

} // namespace ovalto::platform
