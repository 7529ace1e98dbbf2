// Ticks: elapsed milliseconds across second boundaries. Against the clock they are every
// time-out of the transports (test_zqhandler).
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

} // namespace
