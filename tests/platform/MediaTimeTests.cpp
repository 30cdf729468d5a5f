#include "platform/MediaTime.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace ovalto::platform;

namespace {

constexpr std::int32_t int32Max = std::numeric_limits<std::int32_t>::max();

const MediaTime invalid = MediaTime::invalid();
const MediaTime indefinite = MediaTime::indefiniteTime();
const MediaTime plusInfinity = MediaTime::makeWithSeconds(INFINITY, 1);
const MediaTime minusInfinity = MediaTime::makeWithSeconds(-INFINITY, 1);

std::string describe(const MediaTime& t) {
    return t.description() + " flags " + std::to_string(t.flags);
}

TEST(MediaTime, ArithmeticIsExactAcrossTimescales) {
    struct Case {
        MediaTime a, b;
        char op;
        std::int64_t value;
        std::int32_t timescale;
    };
    const Case cases[] = {
        {MediaTime::make(1, 3), MediaTime::make(1, 2), '+', 5, 6},
        {MediaTime::make(6006, 1000), MediaTime::make(3003, 1000), '+', 9009, 1000},
        {MediaTime::make(1, 90000), MediaTime::make(1, 44100), '+', 149, 4410000},
        {MediaTime::make(1, 2), MediaTime::make(1, 3), '-', 1, 6},
        {MediaTime::make(1, 3), MediaTime::make(1, 2), '-', -1, 6},
        {MediaTime::make(std::numeric_limits<std::int64_t>::min(), 1), MediaTime::make(-1, 1), '-',
         std::numeric_limits<std::int64_t>::min() + 1, 1},
    };
    for (const auto& c : cases) {
        MediaTime sum = c.op == '+' ? c.a + c.b : c.a - c.b;
        EXPECT_EQ(sum.value, c.value) << describe(c.a) << c.op << describe(c.b);
        EXPECT_EQ(sum.timescale, c.timescale) << describe(c.a) << c.op << describe(c.b);
        EXPECT_EQ(sum.flags, std::uint32_t{MediaTime::valid}) << describe(sum);
    }
}

TEST(MediaTime, SumsBeyondTheIntegerRangesAreRoundedOrInfinite) {
    // Two primes: their least common multiple is far beyond 32 bits.
    MediaTime sum = MediaTime::make(1, int32Max) + MediaTime::make(1, 2147483629);
    EXPECT_EQ(sum.timescale, int32Max);
    EXPECT_EQ(sum.value, 2);
    EXPECT_TRUE(sum.isNumeric());
    EXPECT_TRUE(sum.flags & MediaTime::hasBeenRounded);

    MediaTime big = MediaTime::make(std::numeric_limits<std::int64_t>::max(), 1);
    EXPECT_EQ(compare(big + MediaTime::make(1, 1), plusInfinity), 0);
    EXPECT_EQ(compare(MediaTime::make(0, 1) - big - MediaTime::make(2, 1), minusInfinity), 0);
}

TEST(MediaTime, NonNumericOperandsFollowTheirOwnRules) {
    MediaTime one = MediaTime::make(1, 1);
    struct Case {
        MediaTime a, b;
        char op;
        MediaTime expected;
    };
    const Case cases[] = {
        {invalid, one, '+', invalid},
        {one, invalid, '-', invalid},
        {invalid, indefinite, '+', invalid},
        {indefinite, one, '+', indefinite},
        {one, indefinite, '-', indefinite},
        {indefinite, plusInfinity, '+', indefinite},
        {plusInfinity, one, '+', plusInfinity},
        {one, plusInfinity, '-', minusInfinity},
        {plusInfinity, plusInfinity, '+', plusInfinity},
        {plusInfinity, minusInfinity, '+', invalid},
        {plusInfinity, plusInfinity, '-', invalid},
        {minusInfinity, plusInfinity, '-', minusInfinity},
    };
    for (const auto& c : cases) {
        MediaTime result = c.op == '+' ? c.a + c.b : c.a - c.b;
        EXPECT_EQ(result.flags, c.expected.flags) << c.a.description() << c.op << c.b.description();
    }
}

TEST(MediaTime, ConvertScaleRoundsHalfAwayFromZero) {
    struct Case {
        std::int64_t value;
        std::int32_t from, to;
        std::int64_t expected;
        bool rounded;
    };
    const Case cases[] = {
        {6006, 1000, 30000, 180180, false}, {1, 3, 1000, 333, true}, {2, 3, 1000, 667, true},
        {-2, 3, 1000, -667, true},          {1, 2, 1, 1, true},      {-1, 2, 1, -1, true},
        {90000, 90000, 1, 1, false},
    };
    for (const auto& c : cases) {
        MediaTime converted = MediaTime::make(c.value, c.from).convertScale(c.to);
        EXPECT_EQ(converted.value, c.expected) << c.value << "/" << c.from << " to " << c.to;
        EXPECT_EQ(converted.timescale, c.to);
        EXPECT_EQ((converted.flags & MediaTime::hasBeenRounded) != 0, c.rounded) << c.value << "/" << c.from;
    }
    EXPECT_FALSE(MediaTime::make(1, 1).convertScale(0).isValid());
    EXPECT_TRUE(indefinite.convertScale(1000).isIndefinite());
}

TEST(MediaTime, ComparesByValueAndOrdersTheSpecialTimes) {
    EXPECT_EQ(MediaTime::make(1, 2), MediaTime::make(2, 4));
    EXPECT_LT(compare(MediaTime::make(1, 3), MediaTime::make(1, 2)), 0);
    EXPECT_GT(compare(MediaTime::make(-1, 3), MediaTime::make(-1, 2)), 0);
    // Ascending: -infinity < numeric < +infinity < indefinite < invalid.
    const MediaTime ascending[] = {minusInfinity,
                                   MediaTime::make(std::numeric_limits<std::int64_t>::max(), 1), plusInfinity,
                                   indefinite, invalid};
    for (std::size_t i = 0; i + 1 < std::size(ascending); ++i) {
        EXPECT_LT(compare(ascending[i], ascending[i + 1]), 0) << i;
        EXPECT_GT(compare(ascending[i + 1], ascending[i]), 0) << i;
    }
    EXPECT_EQ(compare(invalid, MediaTime::invalid()), 0);
}

TEST(MediaTime, SecondsAndConstruction) {
    EXPECT_DOUBLE_EQ(MediaTime::make(6006, 1000).seconds(), 6.006);
    EXPECT_TRUE(std::isnan(invalid.seconds()));
    EXPECT_TRUE(std::isnan(indefinite.seconds()));
    EXPECT_FALSE(MediaTime::make(1, 0).isValid());
    EXPECT_FALSE(MediaTime::makeWithSeconds(NAN, 600).isValid());

    MediaTime fromSeconds = MediaTime::makeWithSeconds(2.5, 600);
    EXPECT_EQ(fromSeconds.value, 1500);
    EXPECT_EQ(fromSeconds.timescale, 600);
    EXPECT_EQ(fromSeconds.flags, std::uint32_t{MediaTime::valid});
    EXPECT_TRUE(MediaTime::makeWithSeconds(1.0 / 3, 10).flags & MediaTime::hasBeenRounded);
    EXPECT_EQ(compare(MediaTime::makeWithSeconds(1e30, 600), plusInfinity), 0);
}

} // namespace
