// The library's messages and trace: texts, the trace limit, the assertion report, the fatal error.
#include "capture.h"
#include "trace.h"

#include <csignal>
#include <gtest/gtest.h>

namespace {

class Trace : public ::testing::Test {
  protected:
    void TearDown() override { _vlmlib_set_trace_level(VLMLIB_TRACE_DEFAULT_LIMIT); }
};

TEST_F(Trace, messages_and_warnings_go_to_stderr_unchanged) {
    CapturedStderr err;
    CapturedStdout out;
    vlmlibmessage("a %d", 1);
    vlmlibwarning("b %s\n", "two");
    EXPECT_EQ(err.text(), "a 1b two\n");
    EXPECT_EQ(out.text(), "");
}

TEST_F(Trace, limit_lets_through_only_levels_below_it) {
    struct Case {
        unsigned limit;
        unsigned level;
        bool written;
    };
    const Case cases[] = {
        {VLMLIB_TRACE_DEFAULT_LIMIT, 200, true}, {VLMLIB_TRACE_DEFAULT_LIMIT, 499, true},
        {VLMLIB_TRACE_DEFAULT_LIMIT, 500, false}, {0, 0, false},
        {0, 200, false}, {201, 200, true}, {200, 200, false},
    };
    EXPECT_EQ(_vlmlib_get_trace_level(), 500u);
    for (const Case& c : cases) {
        _vlmlib_set_trace_level(c.limit);
        EXPECT_EQ(_vlmlib_get_trace_level(), c.limit);
        CapturedStderr err;
        vlmlibtrace(c.level, "lvl %u\n", c.level);
        EXPECT_EQ(err.text(), c.written ? "lvl " + std::to_string(c.level) + "\n" : "")
            << "limit " << c.limit << " level " << c.level;
    }
}

TEST_F(Trace, assert_report_puts_file_and_line_before_the_expression_and_returns) {
    CapturedStderr err;
    vlmlibassert("x > 0", "main", 12);
    EXPECT_EQ(err.text(), "main:12: FXASSERT(x > 0) failed.\n");
}

TEST(TraceDeathTest, error_writes_its_message_and_aborts) {
    EXPECT_EXIT(vlmliberror("fatal %d\n", 42), ::testing::KilledBySignal(SIGABRT), "fatal 42\n");
}

} // namespace
