#include <gtest/gtest.h>

#include <random>
#include <set>
#include <tuple>

#include <qor/transport/reconnect.hpp>

using qor::transport::next_delay;
using qor::transport::ReconnectPolicy;
using std::chrono::milliseconds;

TEST(NextDelay, GrowsFromTheInitialDelayUpToTheCap) {
    // Initial delay, growth, cap, attempt, and the delay before it.
    const std::tuple<long long, double, long long, int, long long> rows[] = {
        {250, 2.0, 10000, 0, 250},   {250, 2.0, 10000, 1, 500},    {250, 2.0, 10000, 5, 8000},
        {250, 2.0, 10000, 6, 10000}, {250, 2.0, 10000, 60, 10000}, {100, 1.0, 10000, 9, 100},
        {100, 1.5, 10000, 2, 225},   {0, 2.0, 10000, 3, 0},        {500, 2.0, 300, 0, 300},
    };
    std::mt19937 rng(1);
    for (const auto& [initial_ms, growth, max_ms, attempt, expected_ms] : rows) {
        SCOPED_TRACE(::testing::Message()
                     << initial_ms << " x" << growth << "^" << attempt << " cap " << max_ms);
        ReconnectPolicy p;
        p.initial_delay = milliseconds(initial_ms);
        p.growth = growth;
        p.max_delay = milliseconds(max_ms);
        p.jitter = 0;
        EXPECT_EQ(next_delay(p, attempt, rng), milliseconds(expected_ms));
    }
}

TEST(NextDelay, JitterSpreadsWaitsWithinItsShare) {
    ReconnectPolicy p;
    p.initial_delay = milliseconds(1000);
    p.jitter = 0.2;
    std::mt19937 rng(7);
    std::set<long long> seen;
    for (int i = 0; i < 200; ++i) {
        const long long ms = next_delay(p, 0, rng).count();
        EXPECT_GE(ms, 800);
        EXPECT_LE(ms, 1200);
        seen.insert(ms);
    }
    // Clients that lost the same server must not all come back at the same moment.
    EXPECT_GT(seen.size(), 50u);

    // A share of one or more can reach zero but never goes below it.
    p.jitter = 1.5;
    for (int i = 0; i < 200; ++i) EXPECT_GE(next_delay(p, 0, rng).count(), 0);
}
