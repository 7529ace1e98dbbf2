// The devsim program as a person or another process runs it: a readiness line, one line per
// frame, a clean exit on SIGTERM and SIGINT.
#include <csignal>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <zqhandler/zqhandler.h>

namespace {

// The program, its standard output on a pipe; stopped and reaped by its pid.
struct Program {
    pid_t pid = -1;
    int out = -1;
    explicit Program(std::vector<const char*> args) {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
        posix_spawn_file_actions_addclose(&actions, ends[0]);
        args.insert(args.begin(), DEVSIM_PROGRAM);
        args.push_back(nullptr);
        EXPECT_EQ(posix_spawn(&pid, DEVSIM_PROGRAM, &actions, nullptr,
                              const_cast<char* const*>(args.data()), environ),
                  0);
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        out = ends[0];
    }
    ~Program() {
        if (pid > 0)
            stop(SIGKILL);
        close(out);
    }
    // One line of output; what came so far when nothing more comes within `timeout_ms`.
    std::string line(int timeout_ms) const {
        std::string text;
        char c;
        pollfd p{out, POLLIN, 0};
        while (poll(&p, 1, timeout_ms) > 0 && read(out, &c, 1) == 1 && c != '\n')
            text += c;
        return text;
    }
    // The exit status after `signal`, or -1 when the program did not exit by itself.
    int stop(int signal) {
        kill(pid, signal);
        int status = 0;
        waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

TEST(DevsimProgram, announces_itself_prints_each_frame_and_exits_cleanly) {
    for (int signal : {SIGTERM, SIGINT}) {
        Program devsim({"udp", "127.0.0.1", "0"});
        std::string ready = devsim.line(5000);
        const std::string prefix = "listening on udp 127.0.0.1:";
        ASSERT_EQ(ready.rfind(prefix, 0), 0u) << ready;

        t_zqhandler* h = zqhandler_create();
        ASSERT_EQ(zqhandler_connect_eth(h, "127.0.0.1", ready.substr(prefix.size()).c_str()), 0);
        zqhandler_set_timeout(h, 2000);
        const uint8_t gpi[] = {0x43, 0xBF, 0xF0, 0x04, 0x0C};
        EXPECT_EQ(zqhandler_cmd_misc(h, gpi, 5), 0);
        EXPECT_EQ(devsim.line(5000), "43 BF F0 04 0C 02");
        zqhandler_delete(h);
        EXPECT_EQ(devsim.stop(signal), 0);
    }
}

TEST(DevsimProgram, bad_command_line_exits_with_status_2) {
    Program devsim({"carrier-pigeon"});
    EXPECT_EQ(devsim.stop(0), 2);
}

} // namespace
