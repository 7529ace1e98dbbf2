// A program run as a person runs it from a shell: its exit status, standard output and error.
#pragma once

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

inline std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct Outcome {
    int status;
    std::string out, err;
};

// `command` (a shell command line) with no input, killed after 20 s (status 137) if it runs on.
inline Outcome run_program(const std::string& command) {
    const std::string base = "/tmp/vlm-run-" + std::to_string(getpid());
    const std::string line =
        "timeout -s KILL 20 " + command + " >" + base + ".out 2>" + base + ".err </dev/null";
    const int status = system(line.c_str());
    Outcome run{WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(base + ".out"),
                slurp(base + ".err")};
    unlink((base + ".out").c_str());
    unlink((base + ".err").c_str());
    return run;
}
