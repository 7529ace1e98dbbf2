// The GPI command bridge with a handle that cannot connect: one warning, then every command fails
// at once. The command on the wire and its warnings are shown end to end (e2e/test_vlmgpiod).
#include "bridge.h"
#include "capture.h"
#include "output.h"

#include <gtest/gtest.h>
#include <regex>
#include <sys/resource.h>
#include <unistd.h>
#include <zqhandler/zqhandler.h>

namespace {

TEST(Bridge, handle_that_cannot_connect_warns_once_and_every_command_fails_at_once) {
    Application app{};
    outputSetVerbosity(VerbosityLevel0);
    CapturedStderr err;
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    int lowestFree = dup(0); // no descriptor above the ones open now can be made
    close(lowestFree);
    rlimit none = saved;
    none.rlim_cur = static_cast<rlim_t>(lowestFree);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    openCtrldHandle(&app);
    setrlimit(RLIMIT_NOFILE, &saved);
    sendS9P(&app, 0x04, 0x0C);
    outputSetVerbosity(VerbosityLevel1);
    std::string text = err.text();
    const std::string connectWarning =
        "WARNING: Failed to connect to 'ctrld.out' daemon. Is it running ?\n";
    ASSERT_EQ(text.rfind(connectWarning, 0), 0u) << text;
    EXPECT_TRUE(std::regex_match(
        text.substr(connectWarning.size()),
        std::regex(R"(\[[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} [0-9]{4}\] )"
                   R"(WARNING: sendS9P\(\) -> Failed to send s9p command to 'ctrld\.out' )"
                   R"(program\.)")))
        << text;
    ASSERT_NE(app.zqhdl, nullptr);
    EXPECT_EQ(zqhandler_get_last_err(app.zqhdl), S9P_ERR_NOT_CONNECTED);
    zqhandler_delete(app.zqhdl);
}

} // namespace
