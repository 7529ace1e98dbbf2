// The library's trace limit, the assertion report and the fatal error.
#include "capture.h"
#include "trace_private.h"

#include <gtest/gtest.h>
#include <tuple>

namespace {

class Trace : public ::testing::Test {
  protected:
    void TearDown() override { _vlmlib_set_trace_level(VLMLIB_TRACE_DEFAULT_LIMIT); }
};

TEST_F(Trace, limit_lets_through_only_levels_below_it) {
    // limit, level, written
    const std::tuple<unsigned, unsigned, bool> cases[] = {
        {VLMLIB_TRACE_DEFAULT_LIMIT, 499, true}, {0, 0, false}, {200, 200, false}};
    EXPECT_EQ(_vlmlib_get_trace_level(), 500u);
    for (const auto& [limit, level, written] : cases) {
        _vlmlib_set_trace_level(limit);
        EXPECT_EQ(_vlmlib_get_trace_level(), limit);
        CapturedStderr err;
        vlmlibtrace(level, "lvl %u\n", level);
        EXPECT_EQ(err.text(), written ? "lvl " + std::to_string(level) + "\n" : "") << limit;
    }
}

TEST(TraceDeathTest, assert_report_returns_and_error_aborts) {
    CapturedStderr err;
    vlmlibassert("x > 0", "main", 12);
    EXPECT_EQ(err.text(), "main:12: FXASSERT(x > 0) failed.\n"); // the capture ends here
    EXPECT_DEATH(vlmliberror("fatal %d\n", 42), "fatal 42\n");
}

} // namespace
