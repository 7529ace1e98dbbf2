// Management protocol against the emulator's endpoint: request datagrams byte for byte, what each
// operation copies from the answers it gets, stale datagrams, and lasterr left alone.
#include "capture.h"
#include "sim_handle.h"

#include <functional>
#include <gtest/gtest.h>
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
Bytes answer(uint16_t size, const Bytes& data, uint16_t msg_type = 0) {
    Bytes d = {
        0, 3, uint8_t(size >> 8), uint8_t(size), uint8_t(msg_type >> 8), uint8_t(msg_type), 0, 0,
        0, 0};
    d.insert(d.end(), data.begin(), data.end());
    return d;
}

TEST(Mgmt, each_operation_sends_its_request_and_copies_what_the_answer_carries) {
    // Each run gets a buffer of 4096 bytes and returns the operation's result.
    using Run = std::function<int(t_zqhandler*, uint8_t*)>;
    const Run log = [](t_zqhandler* z, uint8_t* b) { return zqhandler_mgmt_getlog(z, b); };
    auto diskinfo = [](int32_t capacity) -> Run {
        return
            [=](t_zqhandler* z, uint8_t* b) { return zqhandler_mgmt_get_diskinfo(z, b, capacity); };
    };
    auto put = [](Bytes bytes) -> Run {
        return [=](t_zqhandler* z, uint8_t*) {
            return zqhandler_mgmt_put_diskinfo(z, bytes.data(), int32_t(bytes.size()));
        };
    };
    auto picture = [](int32_t capacity) -> Run {
        return [=](t_zqhandler* z, uint8_t* b) {
            return zqhandler_mgmt_get_picture(z, b, capacity, 7);
        };
    };
    struct Case {
        const char* name;
        std::function<void(devsim::Mgmt&)> serve;
        Run run;
        int result; // the count of bytes copied, when above 0, of the pattern the server holds
        const char* request;
        Bytes request_data;
    };
    const char* kLog = "00 03 00 00 00 02 00 00 00 00";
    const char* kDiskinfo = "00 03 00 00 00 01 00 00 00 00";
    const char* kPicture = "00 03 00 00 00 07 00 00 00 00";
    const Case cases[] = {
        {"log", [](devsim::Mgmt& m) { m.set_log(pattern(20)); }, log, 20, kLog, {}},
        {"empty log", [](devsim::Mgmt& m) { m.set_log({}); }, log, 0, kLog, {}},
        {"log announcing more than came",
         [](devsim::Mgmt& m) { m.script({answer(600, pattern(100))}); },
         log,
         100,
         kLog,
         {}},
        {"log, no answer", [](devsim::Mgmt& m) { m.script({}); }, log, -1, kLog, {}},
        {"disk information above the capacity",
         [](devsim::Mgmt& m) { m.set_diskinfo(pattern(600)); },
         diskinfo(512),
         512,
         kDiskinfo,
         {}},
        {"disk information announcing more than came",
         [](devsim::Mgmt& m) { m.script({answer(600, pattern(100))}); },
         diskinfo(512),
         100,
         kDiskinfo,
         {}},
        {"disk information announcing none",
         [](devsim::Mgmt& m) { m.script({answer(0, pattern(100))}); },
         diskinfo(512),
         0,
         kDiskinfo,
         {}},
        {"upload accepted", [](devsim::Mgmt&) {}, put(pattern(40)), 0,
         "00 03 00 28 00 00 00 00 00 00", pattern(40)},
        {"upload refused", [](devsim::Mgmt& m) { m.accept_uploads(false); }, put(pattern(40)), -1,
         "00 03 00 28 00 00 00 00 00 00", pattern(40)},
        {"upload answered too short to refuse",
         [](devsim::Mgmt& m) {
             m.script({{0, 3, 0, 0, 1}});
         },
         put({}),
         0,
         "00 03 00 00 00 00 00 00 00 00",
         {}},
        {"upload beyond 255 bytes", [](devsim::Mgmt&) {}, put(pattern(256)), -1, nullptr, {}},
        {"picture",
         [](devsim::Mgmt& m) { m.set_picture(7, pattern(990)); },
         picture(4096),
         990,
         kPicture,
         {}},
        {"picture above the capacity",
         [](devsim::Mgmt& m) { m.set_picture(7, pattern(990)); },
         picture(100),
         100,
         kPicture,
         {}},
        {"picture sized by its datagram",
         [](devsim::Mgmt& m) { m.script({answer(0, pattern(50))}); },
         picture(4096),
         50,
         kPicture,
         {}},
        {"picture, empty datagram",
         [](devsim::Mgmt& m) { m.script({{}}); },
         picture(4096),
         0,
         kPicture,
         {}},
        {"picture, no answer",
         [](devsim::Mgmt& m) { m.script({}); },
         picture(4096),
         0,
         kPicture,
         {}},
    };
    MgmtHandle m;
    zqhandler_set_timeout(m.zqh, 500);
    for (const Case& c : cases) {
        c.serve(m.sim.mgmt());
        const size_t before = m.sim.received().size();
        m.zqh->lasterr = S9P_ERR_CHECKSUM;
        Bytes buffer(4096, 0xEE);
        EXPECT_EQ(c.run(m.zqh, buffer.data()), c.result) << c.name;
        EXPECT_EQ(m.zqh->lasterr, S9P_ERR_CHECKSUM) << c.name;
        const size_t copied = c.result > 0 ? size_t(c.result) : 0;
        EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + long(copied)), pattern(copied)) << c.name;
        EXPECT_EQ(buffer[copied], 0xEE) << c.name << ": nothing copied beyond";
        auto received = m.sim.received();
        ASSERT_EQ(received.size(), before + (c.request ? 1 : 0)) << c.name;
        if (c.request) {
            Bytes data(received.back().wire.begin() + 10, received.back().wire.end());
            EXPECT_EQ(hex({received.back().wire.begin(), received.back().wire.begin() + 10}),
                      c.request)
                << c.name;
            EXPECT_EQ(data, c.request_data) << c.name;
        }
        m.sim.mgmt().accept_uploads(true);
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
