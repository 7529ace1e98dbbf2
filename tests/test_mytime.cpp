// Ticks: elapsed milliseconds across second boundaries, and against the clock with a sleep.
#include "mytime.h"

#include <gtest/gtest.h>

namespace {

TEST(MyTime, elapsed_milliseconds_truncate_across_a_second_boundary) {
    struct Case {
        MyTick start, end;
        int expected;
    };
    const Case cases[] = {
        {{998500, 999}, {500, 1000}, 2},       // 1.5 ms before the second, read 0.5 ms after
        {{998500, 999}, {400, 1000}, 1},       // 1.9 ms truncates to 1
        {{100, 1000}, {900, 1000}, 0},         // 0.8 ms within one second
        {{0, 1000}, {0, 1003}, 3000},          // whole seconds
        {{999999, 1000}, {0, 1002}, 1000},     // 1.000001 s
        {{250000, 1000}, {249000, 1001}, 999}, // just short of a second
    };
    for (const Case& c : cases)
        EXPECT_EQ(ElapsedTicks2ms(&c.start, &c.end), c.expected)
            << c.start.sec << "." << c.start.usec << " -> " << c.end.sec << "." << c.end.usec;
}

TEST(MyTime, elapsed_since_a_fresh_tick_follows_the_clock) {
    MyTick tick;
    EXPECT_EQ(GetMyTick(&tick), 0);
    EXPECT_LT(tick.usec, 1000000u);
    EXPECT_GE(ElapsedTime2ms(&tick), 0);
    EXPECT_EQ(msleep(20), 0);
    int waited = ElapsedTime2ms(&tick);
    EXPECT_GE(waited, 20);
    EXPECT_LT(waited, 2000);
}

} // namespace
