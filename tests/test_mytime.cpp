// Ticks: elapsed milliseconds across second boundaries. Against the clock they are every
// time-out of the transports (test_zqhandler).
#include "mytime.h"

#include <gtest/gtest.h>
#include <tuple>

namespace {

TEST(MyTime, elapsed_milliseconds_truncate_across_a_second_boundary) {
    const std::tuple<MyTick, MyTick, int> cases[] = {
        {{998500, 999}, {500, 1000}, 2},       // 1.5 ms before the second, read 0.5 ms after
        {{998500, 999}, {400, 1000}, 1},       // 1.9 ms truncates to 1
        {{0, 1000}, {0, 1003}, 3000},          // whole seconds, no borrow
        {{999999, 1000}, {0, 1002}, 1000},     // 1.000001 s
        {{250000, 1000}, {249000, 1001}, 999}, // just short of a second
    };
    for (const auto& [start, end, expected] : cases)
        EXPECT_EQ(ElapsedTicks2ms(&start, &end), expected) << start.sec << "." << start.usec;
}

} // namespace
