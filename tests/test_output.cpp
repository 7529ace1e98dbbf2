// The console writer: verbosity filter, time stamp, the 1023-character cut.
#include "capture.h"
#include "output.h"

#include <gtest/gtest.h>
#include <regex>
#include <string>

namespace {

const std::regex kStamped(R"(\[(Mon|Tue|Wed|Thu|Fri|Sat|Sun) [A-Z][a-z]{2} [ 123][0-9] )"
                          R"([0-2][0-9]:[0-5][0-9]:[0-6][0-9] [0-9]{4}\] )");

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

TEST(Output, line_is_the_time_stamp_then_the_message_without_an_added_newline) {
    std::string text = written(VerbosityLevel0, VerbosityLevel0, "WARNING: no newline");
    std::smatch stamp;
    ASSERT_TRUE(std::regex_search(text, stamp, kStamped, std::regex_constants::match_continuous))
        << text;
    EXPECT_EQ(stamp.length(), 27); // "[" + ctime's 24 characters + "] "
    EXPECT_EQ(stamp.suffix().str(), "WARNING: no newline");
}

TEST(Output, long_message_is_cut_at_1023_characters) {
    for (size_t length : {1022u, 1023u, 1024u, 2000u}) {
        std::string message(length, 'x');
        std::string text = written(VerbosityLevel0, VerbosityLevel0, message);
        EXPECT_EQ(text.size() - 27, std::min<size_t>(length, 1023)) << length;
    }
}

TEST(Output, ctime_text_loses_only_its_newline) {
    time_t epoch = 0;
    std::string text = _ctime(&epoch);
    EXPECT_EQ(text.size(), 24u);
    EXPECT_EQ(text.substr(20), "1970");
}

} // namespace
