// The soak's judgement on its samples: memory may settle during the first minute, then stay
// within its allowance; descriptors and threads may flicker but not grow.
#include "SoakMonitor.h"

#include <gtest/gtest.h>

using ovalto::tool::SoakMonitor;

namespace {

constexpr std::int64_t MB = 1 << 20;

struct Row {
    const char* name;
    // seconds, rss MB, descriptors, threads
    std::vector<std::tuple<double, double, int, int>> samples;
    const char* failure; // a word of the failure text, or nullptr for a pass
};

} // namespace

TEST(SoakMonitorTest, JudgesGrowthAfterTheWarmUp) {
    const std::vector<Row> rows = {
        {"growth during the warm-up is allowed",
         {{0, 10, 8, 8}, {30, 40, 9, 10}, {60, 40, 9, 10}, {120, 44, 9, 10}},
         nullptr},
        {"memory beyond the allowance fails",
         {{0, 10, 8, 8}, {60, 40, 9, 10}, {90, 42, 9, 10}, {120, 45.5, 9, 10}},
         "memory"},
        {"memory that comes back down still counts its peak",
         {{60, 40, 9, 10}, {90, 46, 9, 10}, {120, 40, 9, 10}},
         "memory"},
        {"a descriptor caught in passing is no leak",
         {{60, 40, 9, 10},
          {70, 40, 9, 10},
          {80, 40, 8, 10},
          {90, 40, 9, 10},
          {100, 40, 10, 10},
          {110, 40, 9, 10},
          {120, 40, 9, 10},
          {130, 40, 10, 10},
          {140, 40, 9, 10}},
         nullptr},
        {"descriptors that stay up are a leak",
         {{60, 40, 8, 10},
          {70, 40, 8, 10},
          {80, 40, 8, 10},
          {90, 40, 9, 10},
          {100, 40, 10, 10},
          {110, 40, 9, 10}},
         "descriptors"},
        {"threads that stay up are a leak",
         {{60, 40, 8, 10},
          {70, 40, 8, 10},
          {80, 40, 8, 10},
          {90, 40, 8, 11},
          {100, 40, 8, 11},
          {110, 40, 8, 12}},
         "threads"},
        {"fewer descriptors and threads are fine",
         {{60, 40, 9, 11}, {70, 40, 9, 11}, {80, 40, 9, 11}, {90, 40, 8, 10}, {100, 40, 8, 10}},
         nullptr},
        {"nothing to judge before the warm-up ends", {{0, 10, 8, 8}, {30, 90, 20, 20}}, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SoakMonitor monitor(60, 5 * MB);
        for (const auto& [seconds, rss, descriptors, threads] : row.samples)
            monitor.add({seconds, static_cast<std::int64_t>(rss * MB), descriptors, threads, 0, 0, {}});
        const auto failure = monitor.failure();
        if (!row.failure) {
            EXPECT_FALSE(failure) << *failure;
        } else {
            ASSERT_TRUE(failure);
            EXPECT_NE(failure->find(row.failure), std::string::npos) << *failure;
        }
    }
}

TEST(SoakMonitorTest, MeasuresThisProcess) {
    const auto before = SoakMonitor::measure(0, 0, 0);
    FILE* extra = std::fopen("/proc/self/status", "r");
    ASSERT_NE(extra, nullptr);
    const auto after = SoakMonitor::measure(0, 0, 0);
    std::fclose(extra);
    EXPECT_GT(before.rssBytes, 0);
    EXPECT_GE(before.threads, 1);
    EXPECT_EQ(after.descriptors, before.descriptors + 1);
    EXPECT_NE(before.threadNames.find(" test_tools"), std::string::npos) << before.threadNames;
}
