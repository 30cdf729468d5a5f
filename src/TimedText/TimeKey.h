#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace ovalto {

// The time stamp in `text` ("01:02:03,456", "02:03.456", "3.5") in seconds, times `scale` (1000
// gives milliseconds). Fields are seconds, minutes and hours from the right; a field that does not
// read as a number adds nothing, fields left of the hours are ignored, only the seconds may carry
// a fraction, and the fraction is truncated at the scale's resolution. Saturates instead of
// overflowing.
std::int64_t toSeconds(std::string_view text, std::int64_t scale);

// A decimal number as a whole, with an optional sign ("+1.5", "-2", "1e3", "inf"); no value for
// anything else, surrounding blanks included.
std::optional<double> parseDouble(std::string_view text);

// The time key (hundredths of a second) of a time in seconds, truncated toward zero; no value for
// a time that is not finite or does not fit a key.
std::optional<std::int64_t> timeKey(double seconds);

// The time key of a time in milliseconds.
constexpr std::int64_t timeKey(std::int64_t milliseconds) {
    return milliseconds / 10;
}

} // namespace ovalto
