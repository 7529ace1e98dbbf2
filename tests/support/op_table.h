// One row of a handle operation's table, run against the emulator over UDP: the frame the
// operation sends, an answer it accepts (with its result and output) and one it refuses (with
// its code and the line it prints), and outputs written only on success.
#pragma once

#include "capture.h"
#include "common.h"
#include "sim_handle.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>

struct OpCase {
    using Bytes = std::vector<uint8_t>;
    const char* name;
    std::function<int(t_zqhandler*, uint8_t* out)> op;
    Bytes sent;                        // the frame, without its checksum
    Bytes good;                        // an accepted answer, without its checksum...
    int result;                        // ...the operation's result for it...
    Bytes out;                         // ...and what it writes to the output buffer
    Bytes bad;                         // a refused answer, without its checksum...
    e_s9p_err code = S9P_ERR_PROTOCOL; // ...its code...
    const char* message = "";          // ...and what it prints on standard output
    bool needs_out = false;            // a null output is refused before anything is sent
};

inline void run_op_case(const OpCase& c) {
    constexpr uint8_t kUntouched = 0xEE;
    SimHandle s(devsim::Link::udp);
    uint8_t out[32];
    auto exchange = [&](const OpCase::Bytes& answer) {
        std::fill(std::begin(out), std::end(out), kUntouched);
        s.sim.script(devsim::Reply::answer(answer));
        CapturedStdout stdout_text;
        int result = c.op(s.zqh, out);
        return std::make_pair(result, stdout_text.text());
    };

    auto [result, printed] = exchange(c.good);
    EXPECT_EQ(result, c.result) << c.name;
    EXPECT_EQ(printed, "") << c.name;
    EXPECT_EQ(zqhandler_get_last_err(s.zqh), S9P_ERR_NONE) << c.name;
    ASSERT_EQ(s.sim.received().size(), 1u) << c.name;
    EXPECT_EQ(hex(s.sim.received()[0].frame), hex(devsim::with_checksum(c.sent))) << c.name;
    EXPECT_EQ(hex({out, out + c.out.size()}), hex(c.out)) << c.name;
    EXPECT_EQ(out[c.out.size()], kUntouched) << c.name << ": wrote past its output";

    std::tie(result, printed) = exchange(c.bad);
    EXPECT_EQ(result, -1) << c.name;
    EXPECT_EQ(printed, c.message) << c.name;
    EXPECT_EQ(zqhandler_get_last_err(s.zqh), c.code) << c.name;
    EXPECT_TRUE(std::all_of(std::begin(out), std::end(out), [](uint8_t b) { return b == 0xEE; }))
        << c.name << ": output written on failure";

    if (c.needs_out) {
        EXPECT_EQ(c.op(s.zqh, nullptr), -1) << c.name;
        EXPECT_EQ(zqhandler_get_last_err(s.zqh), S9P_ERR_NONE) << c.name;
        EXPECT_EQ(s.sim.received().size(), 2u) << c.name << ": sent with a null output";
    }
}
