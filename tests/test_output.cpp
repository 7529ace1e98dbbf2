// The console writer: time stamp, and the 1023-character cut. Which lines -v lets through is shown
// end to end (e2e/test_vlmgpiod).
#include "capture.h"
#include "output.h"

#include <gtest/gtest.h>
#include <string>

namespace {

TEST(Output, long_message_is_cut_at_1023_characters_after_its_time_stamp) {
    outputSetVerbosity(VerbosityLevel0);
    for (size_t length : {1022u, 1023u, 1024u, 2000u}) {
        std::string message(length, 'x');
        CapturedStderr err;
        CapturedStdout out;
        outputWrite(VerbosityLevel0, "%s", message.c_str());
        EXPECT_EQ(out.text(), "");
        std::string text = err.text();
        ASSERT_GT(text.size(), 27u) << length;
        EXPECT_EQ(text.substr(0, 1) + text.substr(25, 2), "[] ")
            << "[ + ctime's 24 characters + ] ";
        EXPECT_EQ(text.substr(27), message.substr(0, 1023)) << length;
    }
    outputSetVerbosity(VerbosityLevel1);
}

} // namespace
