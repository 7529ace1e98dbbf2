// Tables of Sony-family builders and handle operations. A builder row is its frame; an operation
// row is run against the emulator over UDP: the frame it sends, an answer it accepts (result and
// output), one it refuses (code and the line it prints), and its output written only on success.
#pragma once

#include "capture.h"
#include "common.h"
#include "sim_handle.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>

// Hex text as bytes; frames in the tables are written without their checksum.
inline std::vector<uint8_t> bytes_of(const std::string& text) {
    std::vector<uint8_t> bytes;
    EXPECT_TRUE(parse_hex(text, bytes)) << text;
    return bytes;
}
inline std::string with_checksum(const std::string& frame) {
    return hex(devsim::with_checksum(bytes_of(frame)));
}

struct BuilderCase {
    const char* name;
    std::function<int(t_s9p_command*)> build;
    const char* frame;
};

inline void run_builder_case(const BuilderCase& c) {
    t_s9p_command cmd{};
    cmd.err_status = 99; // builders touch the frame only
    ASSERT_EQ(c.build(&cmd), 0) << c.name;
    EXPECT_EQ(hex(frame_of(cmd)), with_checksum(c.frame)) << c.name;
    EXPECT_EQ(cmd.data[0] & 0x0F, cmd.len - 3) << c.name << ": CMD1 counts the data";
    EXPECT_EQ(cmd.err_status, 99u) << c.name;
    EXPECT_EQ(c.build(nullptr), -1) << c.name;
}

struct OpCase {
    const char* name;
    std::function<int(t_zqhandler*, uint8_t* out)> op;
    const char* sent;
    const char* good;                  // an accepted answer...
    int result;                        // ...the operation's result for it...
    const char* out;                   // ...and what it writes to the output buffer
    const char* bad;                   // a refused answer...
    e_s9p_err code = S9P_ERR_PROTOCOL; // ...its code...
    const char* message = "";          // ...and what it prints on standard output
    bool needs_out = true;             // a null output is refused before anything is sent
};

inline void run_op_case(const OpCase& c) {
    constexpr uint8_t kUntouched = 0xEE;
    SimHandle s(devsim::Link::udp);
    zqhandler_set_timeout(s.zqh, 2000); // every row is answered: room for a loaded machine
    std::vector<uint8_t> out(32);
    auto exchange = [&](const char* answer) {
        std::fill(out.begin(), out.end(), kUntouched);
        s.sim.script(devsim::Reply::answer(bytes_of(answer)));
        CapturedStdout printed;
        int result = c.op(s.zqh, out.data());
        return std::make_pair(result, printed.text());
    };
    auto [result, printed] = exchange(c.good);
    EXPECT_EQ(result, c.result) << c.name;
    EXPECT_EQ(printed, "") << c.name;
    EXPECT_EQ(zqhandler_get_last_err(s.zqh), S9P_ERR_NONE) << c.name;
    ASSERT_EQ(s.sim.received().size(), 1u) << c.name;
    EXPECT_EQ(hex(s.sim.received()[0].frame), with_checksum(c.sent)) << c.name;
    const size_t written = bytes_of(c.out).size();
    EXPECT_EQ(hex({out.begin(), out.begin() + static_cast<long>(written)}), hex(bytes_of(c.out)))
        << c.name;
    EXPECT_EQ(out[written], kUntouched) << c.name << ": wrote past its output";

    std::tie(result, printed) = exchange(c.bad);
    EXPECT_EQ(result, -1) << c.name;
    EXPECT_EQ(printed, c.message) << c.name;
    EXPECT_EQ(zqhandler_get_last_err(s.zqh), c.code) << c.name;
    EXPECT_EQ(std::count(out.begin(), out.end(), kUntouched), 32) << c.name << ": output written";
    if (c.needs_out) {
        EXPECT_EQ(c.op(s.zqh, nullptr), -1) << c.name;
        EXPECT_EQ(s.sim.received().size(), 2u) << c.name << ": sent with a null output";
    }
}
