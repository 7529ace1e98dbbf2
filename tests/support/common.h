// Small helpers several tests share: elapsed wall time, a record's frame, a board socket path.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

using Clock = std::chrono::steady_clock;

inline long elapsed_ms(Clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

// The `len` valid bytes of a command record's `data`.
template <typename Record> std::vector<uint8_t> frame_of(const Record& record) {
    return {record.data, record.data + record.len};
}

// A board socket path of this process's own, made the one the tlapi sim talks to.
inline std::string board_socket(const std::string& name) {
    std::string path = "/tmp/vlm-board-" + std::to_string(getpid()) + "-" + name + ".sock";
    setenv("TLAPI_SIM_SOCKET", path.c_str(), 1);
    return path;
}
