#include <gtest/gtest.h>

#include <random>
#include <set>

#include <qor/transport/reconnect.hpp>

using qor::transport::next_delay;
using qor::transport::ReconnectPolicy;
using std::chrono::milliseconds;

TEST(NextDelay, GrowsFromTheInitialDelayUpToTheCap) {
    struct Row {
        long long initial_ms;
        double growth;
        long long max_ms;
        int attempt;
        long long expected_ms;
    };
    const Row rows[] = {
        {250, 2.0, 10000, 0, 250},   {250, 2.0, 10000, 1, 500},    {250, 2.0, 10000, 5, 8000},
        {250, 2.0, 10000, 6, 10000}, {250, 2.0, 10000, 60, 10000}, {100, 1.0, 10000, 9, 100},
        {100, 1.5, 10000, 2, 225},   {0, 2.0, 10000, 3, 0},        {500, 2.0, 300, 0, 300},
    };
    std::mt19937 rng(1);
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message() << row.initial_ms << " x" << row.growth << "^"
                                          << row.attempt << " cap " << row.max_ms);
        ReconnectPolicy p;
        p.initial_delay = milliseconds(row.initial_ms);
        p.growth = row.growth;
        p.max_delay = milliseconds(row.max_ms);
        p.jitter = 0;
        EXPECT_EQ(next_delay(p, row.attempt, rng), milliseconds(row.expected_ms));
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
