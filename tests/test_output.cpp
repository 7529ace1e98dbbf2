// The console writer: verbosity filter, time stamp, the 1023-character cut.
#include "capture.h"
#include "output.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string written(OutputVerbosityLevels verbosity, OutputVerbosityLevels level,
                    const std::string& message) {
    outputSetVerbosity(verbosity);
    CapturedStderr err;
    CapturedStdout out;
    outputWrite(level, "%s", message.c_str());
    EXPECT_EQ(out.text(), "");
    return err.text();
}

TEST(Output, message_is_written_when_its_level_reaches_the_verbosity) {
    struct Case {
        OutputVerbosityLevels verbosity, level;
        bool written;
    };
    const Case cases[] = {
        {VerbosityLevel1, VerbosityLevel0, false}, {VerbosityLevel0, VerbosityLevel0, true},
        {VerbosityLevel1, VerbosityLevel1, true},  {VerbosityLevel1, VerbosityLevel2, true},
        {VerbosityLevel2, VerbosityLevel1, false}, {VerbosityLevel2, VerbosityLevel2, true},
    };
    for (const Case& c : cases) {
        std::string text = written(c.verbosity, c.level, "DEBUG: x\n");
        EXPECT_EQ(!text.empty(), c.written) << c.verbosity << " " << c.level;
    }
}

TEST(Output, long_message_is_cut_at_1023_characters) {
    for (size_t length : {1022u, 1023u, 1024u, 2000u}) {
        std::string message(length, 'x');
        std::string text = written(VerbosityLevel0, VerbosityLevel0, message);
        ASSERT_GT(text.size(), 27u) << length;
        EXPECT_EQ(text.substr(0, 1) + text.substr(25, 2), "[] ")
            << "[ + ctime's 24 characters + ] ";
        EXPECT_EQ(text.substr(27), message.substr(0, 1023)) << length;
    }
}

} // namespace
