#include "platform/MediaTime.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace ovalto::platform;

namespace {

constexpr std::int32_t int32Max = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t int64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t int64Min = std::numeric_limits<std::int64_t>::min();
constexpr std::uint32_t valid = MediaTime::valid, rounded = MediaTime::valid | MediaTime::hasBeenRounded;

const MediaTime invalid = MediaTime::invalid();
const MediaTime indefinite = MediaTime::indefiniteTime();
const MediaTime plusInfinity = MediaTime::makeWithSeconds(INFINITY, 1);
const MediaTime minusInfinity = MediaTime::makeWithSeconds(-INFINITY, 1);

// Field by field: == compares by value across timescales.
std::tuple<std::int64_t, std::int32_t, std::uint32_t> fields(const MediaTime& t) {
    return {t.value, t.timescale, t.flags};
}

MediaTime apply(const MediaTime& a, char op, const MediaTime& b) {
    return op == '+' ? a + b : a - b;
}

TEST(MediaTime, ArithmeticIsExactAcrossTimescalesAndRoundedOrInfiniteBeyondTheIntegerRanges) {
    // a, operator, b, and the exact result's value and timescale.
    const std::tuple<MediaTime, char, MediaTime, std::int64_t, std::int32_t> cases[] = {
        {MediaTime::make(1, 3), '+', MediaTime::make(1, 2), 5, 6},
        {MediaTime::make(6006, 1000), '+', MediaTime::make(3003, 1000), 9009, 1000},
        {MediaTime::make(1, 90000), '+', MediaTime::make(1, 44100), 149, 4410000},
        {MediaTime::make(1, 2), '-', MediaTime::make(1, 3), 1, 6},
        {MediaTime::make(1, 3), '-', MediaTime::make(1, 2), -1, 6},
        {MediaTime::make(int64Min, 1), '-', MediaTime::make(-1, 1), int64Min + 1, 1}};
    for (const auto& [a, op, b, value, timescale] : cases)
        EXPECT_EQ(fields(apply(a, op, b)), std::tuple(value, timescale, valid))
            << a.description() << op << b.description();
    // Two primes: their least common multiple is far beyond 32 bits.
    EXPECT_EQ(fields(MediaTime::make(1, int32Max) + MediaTime::make(1, 2147483629)),
              std::tuple(2, int32Max, rounded));
    const MediaTime big = MediaTime::make(int64Max, 1);
    EXPECT_EQ(compare(big + MediaTime::make(1, 1), plusInfinity), 0);
    EXPECT_EQ(compare(MediaTime::make(0, 1) - big - MediaTime::make(2, 1), minusInfinity), 0);
}

TEST(MediaTime, NonNumericOperandsFollowTheirOwnRules) {
    const MediaTime one = MediaTime::make(1, 1);
    const std::tuple<MediaTime, char, MediaTime, MediaTime> cases[] = {
        {invalid, '+', one, invalid},
        {one, '-', invalid, invalid},
        {invalid, '+', indefinite, invalid},
        {indefinite, '+', one, indefinite},
        {one, '-', indefinite, indefinite},
        {indefinite, '+', plusInfinity, indefinite},
        {plusInfinity, '+', one, plusInfinity},
        {one, '-', plusInfinity, minusInfinity},
        {plusInfinity, '+', plusInfinity, plusInfinity},
        {plusInfinity, '+', minusInfinity, invalid},
        {plusInfinity, '-', plusInfinity, invalid},
        {minusInfinity, '-', plusInfinity, minusInfinity}};
    for (const auto& [a, op, b, expected] : cases)
        EXPECT_EQ(apply(a, op, b).flags, expected.flags) << a.description() << op << b.description();
}

TEST(MediaTime, ConversionsToOtherScalesAndFromSecondsRoundHalfAwayFromZero) {
    // value/from converted to `to`: the value and flags expected.
    const std::tuple<std::int64_t, std::int32_t, std::int32_t, std::int64_t, std::uint32_t> cases[] = {
        {6006, 1000, 30000, 180180, valid}, {1, 3, 1000, 333, rounded}, {2, 3, 1000, 667, rounded},
        {-2, 3, 1000, -667, rounded},       {1, 2, 1, 1, rounded},      {-1, 2, 1, -1, rounded},
        {90000, 90000, 1, 1, valid}};
    for (const auto& [value, from, to, expected, flags] : cases)
        EXPECT_EQ(fields(MediaTime::make(value, from).convertScale(to)), std::tuple(expected, to, flags))
            << value << "/" << from << " to " << to;
    EXPECT_FALSE(MediaTime::make(1, 1).convertScale(0).isValid());
    EXPECT_TRUE(indefinite.convertScale(1000).isIndefinite());

    EXPECT_DOUBLE_EQ(MediaTime::make(6006, 1000).seconds(), 6.006);
    EXPECT_TRUE(std::isnan(invalid.seconds()) && std::isnan(indefinite.seconds()));
    EXPECT_FALSE(MediaTime::make(1, 0).isValid() || MediaTime::makeWithSeconds(NAN, 600).isValid());
    EXPECT_EQ(fields(MediaTime::makeWithSeconds(2.5, 600)), std::tuple(1500, 600, valid));
    EXPECT_EQ(MediaTime::makeWithSeconds(1.0 / 3, 10).flags, rounded);
    EXPECT_EQ(compare(MediaTime::makeWithSeconds(1e30, 600), plusInfinity), 0);
}

TEST(MediaTime, ComparesByValueAndOrdersTheSpecialTimes) {
    EXPECT_EQ(MediaTime::make(1, 2), MediaTime::make(2, 4));
    EXPECT_LT(compare(MediaTime::make(1, 3), MediaTime::make(1, 2)), 0);
    EXPECT_GT(compare(MediaTime::make(-1, 3), MediaTime::make(-1, 2)), 0);
    // Ascending: -infinity < numeric < +infinity < indefinite < invalid.
    const MediaTime ascending[] = {minusInfinity, MediaTime::make(int64Max, 1), plusInfinity, indefinite,
                                   invalid};
    for (std::size_t i = 0; i + 1 < std::size(ascending); ++i)
        EXPECT_EQ(std::pair(compare(ascending[i], ascending[i + 1]), compare(ascending[i + 1], ascending[i])),
                  std::pair(-1, 1))
            << i;
    EXPECT_EQ(compare(invalid, MediaTime::invalid()), 0);
}

} // namespace
