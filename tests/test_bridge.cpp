// The GPI command bridge: the command on the wire, its warnings, and a handle that cannot connect.
#include "bridge.h"
#include "capture.h"
#include "output.h"
#include "sim_handle.h"

#include <gtest/gtest.h>
#include <regex>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using devsim::Reply;

const std::regex kWarning(R"(\[[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} [0-9]{4}\] )"
                          R"(WARNING: sendS9P\(\) -> Failed to send s9p command to 'ctrld\.out' )"
                          R"(program\.)");

struct Bridge : testing::Test {
    SimHandle ctrld{devsim::Link::udp};
    Application app{};
    void SetUp() override { app.zqhdl = ctrld.zqh; }
    void TearDown() override { outputSetVerbosity(VerbosityLevel1); }
};

TEST_F(Bridge, command_carries_the_low_bytes_of_transitions_and_levels_with_its_checksum) {
    outputSetVerbosity(VerbosityLevel0);
    CapturedStderr err;
    sendS9P(&app, 0x104, 0xF0C);
    ASSERT_TRUE(ctrld.sim.wait_received(1, 1000));
    EXPECT_EQ(devsim::hex(ctrld.sim.received()[0].wire),
              "00 01 00 06 00 00 00 00 00 00 43 BF F0 04 0C 02");
    EXPECT_EQ(err.text(), "") << "an answered command says nothing";
}

TEST_F(Bridge, refused_or_missing_answer_warns_without_a_newline_at_verbosity_0_only) {
    const Reply replies[] = {Reply::nak(0x01), Reply::silence(), Reply::bytes({1, 2, 3}),
                             Reply::late(200)};
    size_t answers = 0;
    for (OutputVerbosityLevels verbosity : {VerbosityLevel1, VerbosityLevel0}) {
        outputSetVerbosity(verbosity);
        for (const Reply& reply : replies) {
            ctrld.sim.script(reply);
            CapturedStderr err;
            sendS9P(&app, 0x01, 0x01);
            std::string text = err.text();
            // A late answer is out before the next command, whose drain then drops it.
            if (!reply.silent) {
                ASSERT_TRUE(ctrld.sim.wait_replies_sent(++answers, 2000));
            }
            if (verbosity == VerbosityLevel1)
                EXPECT_EQ(text, "");
            else
                EXPECT_TRUE(std::regex_match(text, kWarning)) << text;
        }
    }
}

TEST(BridgeHandle, handle_that_cannot_connect_warns_once_and_every_command_fails_at_once) {
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
    EXPECT_TRUE(std::regex_match(text.substr(connectWarning.size()), kWarning)) << text;
    ASSERT_NE(app.zqhdl, nullptr);
    EXPECT_EQ(zqhandler_get_last_err(app.zqhdl), S9P_ERR_NOT_CONNECTED);
    zqhandler_delete(app.zqhdl);
}

} // namespace
