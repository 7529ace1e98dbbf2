// The devsim program as a person or another process runs it: readiness line, one line per frame,
// a clean exit on SIGTERM.
#include <zqhandler/zqhandler.h>

#include <csignal>
#include <cstdio>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The program started with its standard output on a pipe; stopped and reaped by its pid.
class Program {
  public:
    explicit Program(std::vector<std::string> args) {
        int out[2];
        if (pipe(out) != 0)
            abort();
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], 1);
            close(out[0]);
            std::vector<char*> argv;
            for (auto& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        out_ = out[0];
    }
    ~Program() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(out_);
    }
    // One line of output, or "" when none comes within `timeout_ms`.
    std::string line(int timeout_ms) {
        std::string text;
        char c;
        pollfd p{out_, POLLIN, 0};
        while (poll(&p, 1, timeout_ms) > 0 && read(out_, &c, 1) == 1 && c != '\n')
            text += c;
        return text;
    }
    // Sends `signal` and returns the exit status, or -1 if it did not exit normally.
    int stop(int signal) {
        kill(pid_, signal);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    pid_t pid_ = -1;
    int out_ = -1;
};

TEST(DevsimProgram, announces_itself_prints_each_frame_and_exits_cleanly) {
    for (int signal : {SIGTERM, SIGINT}) {
        Program devsim({DEVSIM_PROGRAM, "udp", "127.0.0.1", "0"});
        std::string ready = devsim.line(5000);
        const std::string prefix = "listening on udp 127.0.0.1:";
        ASSERT_EQ(ready.rfind(prefix, 0), 0u) << ready;
        std::string port = ready.substr(prefix.size());

        t_zqhandler* h = zqhandler_create();
        ASSERT_EQ(zqhandler_connect_eth(h, "127.0.0.1", port.c_str()), 0);
        zqhandler_set_timeout(h, 2000);
        const uint8_t gpi[] = {0x43, 0xBF, 0xF0, 0x04, 0x0C};
        EXPECT_EQ(zqhandler_cmd_misc(h, gpi, 5), 0);
        EXPECT_EQ(devsim.line(5000), "43 BF F0 04 0C 02");
        zqhandler_delete(h);
        EXPECT_EQ(devsim.stop(signal), 0);
    }
}

TEST(DevsimProgram, bad_command_line_prints_the_usage) {
    Program devsim({DEVSIM_PROGRAM, "carrier-pigeon"});
    EXPECT_EQ(devsim.stop(0), 2);
}

} // namespace
