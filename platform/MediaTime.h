#pragma once

#include <cstdint>
#include <string>

namespace ovalto::platform {

// A rational time value/timescale with validity flags, as media frameworks keep time.
struct MediaTime {
    enum Flags : std::uint32_t {
        valid = 1u << 0,
        hasBeenRounded = 1u << 1,
        positiveInfinity = 1u << 2,
        negativeInfinity = 1u << 3,
        indefinite = 1u << 4,
    };

    std::int64_t value = 0;
    std::int32_t timescale = 0;
    std::uint32_t flags = 0;
    std::int64_t epoch = 0;

    static MediaTime make(std::int64_t value, std::int32_t timescale);
    static MediaTime makeWithSeconds(double seconds, std::int32_t preferredTimescale);
    static MediaTime zero() { return make(0, 1); }
    static MediaTime invalid() { return MediaTime{}; }
    static MediaTime indefiniteTime();

    bool isValid() const { return (flags & valid) != 0; }
    bool isIndefinite() const { return isValid() && (flags & indefinite) != 0; }
    bool isNumeric() const {
        return isValid() && (flags & (indefinite | positiveInfinity | negativeInfinity)) == 0;
    }
    double seconds() const; // NaN for non-numeric times

    // Exact sum: the result's timescale is the least common multiple of both (capped, then
    // rounded with hasBeenRounded set). Invalid if either side is invalid.
    friend MediaTime operator+(const MediaTime& a, const MediaTime& b);
    friend MediaTime operator-(const MediaTime& a, const MediaTime& b);
    MediaTime convertScale(std::int32_t newTimescale) const;
    // Compares numeric times by value (1/2 == 2/4).
    friend int compare(const MediaTime& a, const MediaTime& b);
    friend bool operator==(const MediaTime& a, const MediaTime& b) { return compare(a, b) == 0; }
    std::string description() const;
};

} // namespace ovalto::platform
