// Management protocol against the emulator's endpoint: request datagrams byte for byte, what each
// operation copies from the answers it gets, stale datagrams, and lasterr left alone.
#include "capture.h"
#include "sim_handle.h"

#include <gtest/gtest.h>
#include <optional>
#include <zqhandler/zqhandler_mgmt.h>

namespace {

using devsim::Bytes;

// n bytes that differ from their neighbours.
Bytes pattern(size_t n) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = uint8_t(i * 7 + 1);
    return b;
}

// An answer datagram announcing `size` and carrying `data`.
Bytes answer(uint16_t size, const Bytes& data, uint8_t msg_type = 0) {
    Bytes d = data;
    d.insert(d.begin(), {0, 3, uint8_t(size >> 8), uint8_t(size), 0, msg_type, 0, 0, 0, 0});
    return d;
}

enum class Op { log, diskinfo, upload, picture };

// The operation with `arg` as its capacity, or as the upload's size (of pattern bytes).
int run(Op op, int32_t arg, t_zqhandler* z, uint8_t* buffer) {
    switch (op) {
    case Op::log:
        return zqhandler_mgmt_getlog(z, buffer);
    case Op::diskinfo:
        return zqhandler_mgmt_get_diskinfo(z, buffer, arg);
    case Op::upload:
        return zqhandler_mgmt_put_diskinfo(z, pattern(256).data(), arg);
    case Op::picture:
        return zqhandler_mgmt_get_picture(z, buffer, arg, 7);
    }
    return 0;
}

TEST(Mgmt, each_operation_sends_its_request_and_copies_what_the_answer_carries) {
    using Script = std::optional<std::vector<Bytes>>;
    const Script served, silence = std::vector<Bytes>{};
    auto one = [](Bytes d) { return Script(std::vector<Bytes>{d}); };
    const char *log = "00 03 00 00 00 02 00 00 00 00", *disk = "00 03 00 00 00 01 00 00 00 00",
               *picture = "00 03 00 00 00 07 00 00 00 00";
    struct Case {
        const char* name;
        Op op;
        int32_t arg;
        size_t held; // the log, disk information and picture 7 are this many pattern bytes
        Script script;
        int result;          // when above 0, that many pattern bytes are copied and no more
        const char* request; // its header; an upload's data is the pattern; null: nothing sent
    } const cases[] = {
        {"log", Op::log, 0, 20, served, 20, log},
        {"empty log", Op::log, 0, 0, served, 0, log},
        {"log announcing more than came", Op::log, 0, 0, one(answer(600, pattern(100))), 100, log},
        {"log, no answer", Op::log, 0, 20, silence, -1, log},
        {"disk information above the capacity", Op::diskinfo, 512, 600, served, 512, disk},
        {"upload accepted", Op::upload, 40, 0, served, 0, "00 03 00 28 00 00 00 00 00 00"},
        {"upload refused", Op::upload, 40, 0, one(answer(0, {}, 1)), -1,
         "00 03 00 28 00 00 00 00 00 00"},
        {"upload answered too short to refuse", Op::upload, 0, 0, one({0, 3, 0, 0, 1}), 0,
         "00 03 00 00 00 00 00 00 00 00"},
        {"upload beyond 255 bytes", Op::upload, 256, 0, served, -1, nullptr},
        {"picture", Op::picture, 4096, 990, served, 990, picture},
        {"picture above the capacity", Op::picture, 100, 990, served, 100, picture},
        {"picture, empty datagram", Op::picture, 4096, 9, one({}), 0, picture},
        {"picture, no answer", Op::picture, 4096, 9, silence, 0, picture},
    };
    MgmtHandle m;
    zqhandler_set_timeout(m.zqh, 500);
    for (const Case& c : cases) {
        m.sim.mgmt().set_log(pattern(c.held));
        m.sim.mgmt().set_diskinfo(pattern(c.held));
        m.sim.mgmt().set_picture(7, pattern(c.held));
        if (c.script)
            m.sim.mgmt().script(*c.script);
        const size_t before = m.sim.received().size();
        m.zqh->lasterr = S9P_ERR_CHECKSUM;
        Bytes buffer(4096, 0xEE);
        EXPECT_EQ(run(c.op, c.arg, m.zqh, buffer.data()), c.result) << c.name;
        EXPECT_EQ(m.zqh->lasterr, S9P_ERR_CHECKSUM) << c.name;
        const long copied = c.result > 0 ? c.result : 0;
        EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + copied), pattern(size_t(copied)))
            << c.name;
        EXPECT_EQ(buffer[size_t(copied)], 0xEE) << c.name << ": nothing copied beyond";
        auto received = m.sim.received();
        ASSERT_EQ(received.size(), before + (c.request ? 1 : 0)) << c.name;
        if (c.request) {
            const Bytes& wire = received.back().wire;
            EXPECT_EQ(hex({wire.begin(), wire.begin() + 10}), c.request) << c.name;
            EXPECT_EQ(Bytes(wire.begin() + 10, wire.end()), pattern(wire[3])) << c.name;
        }
    }
}

TEST(Mgmt, stale_datagrams_are_dropped_with_one_line_each_before_the_next_request) {
    MgmtHandle m;
    zqhandler_set_timeout(m.zqh, 1000);
    m.sim.mgmt().set_log(pattern(4));
    m.sim.mgmt().script({answer(2, pattern(2)), answer(9, pattern(9)), answer(9, pattern(9))});
    uint8_t buffer[MGMT_MAX_DATA];
    EXPECT_EQ(zqhandler_mgmt_getlog(m.zqh, buffer), 2);
    ASSERT_TRUE(m.sim.wait_replies_sent(1, 2000));
    CapturedStdout out;
    EXPECT_EQ(zqhandler_mgmt_getlog(m.zqh, buffer), 4) << "a stale answer was taken";
    EXPECT_EQ(zqhandler_mgmt_getlog(m.zqh, buffer), 4);
    EXPECT_EQ(out.text(), "mgmt_send_cmd: flush\nmgmt_send_cmd: flush\n");
}

} // namespace
