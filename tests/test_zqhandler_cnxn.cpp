// Connection-protocol operations against the emulator's transfers: the requests on the wire, the
// answers each accepts or refuses, what it says, and raw transfers that stall or fall short.
#include "capture.h"
#include "common.h"
#include "sim_handle.h"

#include <functional>
#include <gtest/gtest.h>
#include <zqhandler/zqhandler_cnxn.h>

namespace {

using devsim::Bytes;
using devsim::Link;
using devsim::Transfers;

constexpr int32_t kUnset = -99;

// What the caller got: the buffer and the size out-argument.
struct Seen {
    Bytes buffer;
    int32_t size = kUnset;
    std::string text() const {
        return hex(buffer) + (size == kUnset ? "" : " size " + std::to_string(size));
    }
};
using Op = std::function<int(t_zqhandler*, Seen&)>;

Bytes header(const char* tag, uint8_t arg1) {
    Bytes h(tag, tag + 4);
    h.insert(h.end(), {0, 0, 0, arg1, 0, 0, 0, 0});
    return h;
}

// The requests the server got, as "tag arg1 arg2" read from their big-endian bytes.
std::string requests(const devsim::DevSim& sim) {
    std::string out;
    for (const auto& r : sim.received()) {
        auto be32 = [&](size_t at) {
            return std::to_string(uint32_t(r.wire[at]) << 24 | uint32_t(r.wire[at + 1]) << 16 |
                                  uint32_t(r.wire[at + 2]) << 8 | r.wire[at + 3]);
        };
        if (r.tag != "aliv")
            out += (out.empty() ? "" : ", ") + r.tag + " " + be32(4) + " " + be32(8) +
                   (r.wire.size() == 12 ? "" : " +bytes");
    }
    return out;
}

Op version(bool with_words = true) {
    return [=](t_zqhandler* z, Seen& s) {
        uint32_t w[2] = {};
        int r = with_words ? zqhandler_cnxn_version(z, &w[0], &w[1])
                           : zqhandler_cnxn_version(z, nullptr, nullptr);
        s.buffer = {uint8_t(w[0] >> 24), uint8_t(w[0] >> 16), uint8_t(w[0] >> 8), uint8_t(w[0]),
                    uint8_t(w[1] >> 24), uint8_t(w[1] >> 16), uint8_t(w[1] >> 8), uint8_t(w[1])};
        return r;
    };
}
// Downloads into exactly `capacity` bytes, filled with EE beforehand.
Op diskinfo(int32_t capacity) {
    return [=](t_zqhandler* z, Seen& s) {
        s.buffer.assign(size_t(capacity), 0xEE);
        return zqhandler_cnxn_get_diskinfo(z, s.buffer.data(), capacity);
    };
}
Op file_entry(uint32_t entry, int32_t capacity) {
    return [=](t_zqhandler* z, Seen& s) {
        s.buffer.assign(size_t(capacity), 0xEE);
        return zqhandler_cnxn_get_file_entry(z, entry, s.buffer.data(), &s.size, capacity);
    };
}
Op gop(int32_t capacity, int proto_ver) {
    return [=](t_zqhandler* z, Seen& s) {
        z->proto_ver = proto_ver;
        s.buffer.assign(size_t(capacity), 0xEE);
        return zqhandler_cnxn_get_gop(z, s.buffer.data(), &s.size, capacity);
    };
}
Op put_gop(uint32_t value, Bytes bytes, devsim::DevSim& sim) {
    return [=, &sim](t_zqhandler* z, Seen& s) {
        int r = zqhandler_cnxn_put_gop(z, value, bytes.data(), uint32_t(bytes.size()));
        if (sim.transfers().wait_uploads(1, r == 0 ? 2000 : 0))
            s.buffer = sim.transfers().uploaded();
        return r;
    };
}

TEST(CnxnOperations, each_asks_its_request_and_takes_only_the_answer_it_expects) {
    struct Case {
        const char* name;
        std::function<void(Transfers&)> serve;
        std::function<Op(devsim::DevSim&)> run;
        int result;
        e_s9p_err code;
        const char* requests; // before the version request each case ends with
        const char* said;     // standard output, then standard error
        const char* seen;
    };
    const Bytes four = {1, 2, 3, 4}, five = {1, 2, 3, 4, 5};
    auto with = [](auto run) { return [run](devsim::DevSim&) { return run; }; };
    const Case cases[] = {
        {"version", [](Transfers& t) { t.set_version(0x01020304, 7); }, with(version()), 0,
         S9P_ERR_NONE, "ver  0 0", "", "01 02 03 04 00 00 00 07"},
        {"version, no out-arguments", [](Transfers&) {}, with(version(false)), 0, S9P_ERR_NONE,
         "ver  0 0", "", "00 00 00 00 00 00 00 00"},
        {"version, wrong tag", [](Transfers& t) { t.script_header(header("gfif", 0)); },
         with(version()), -1, S9P_ERR_PROTOCOL, "ver  0 0",
         "zqhandler_cnxn_version: protocol err\n", "00 00 00 00 00 00 00 00"},
        {"disk information of the capacity", [&](Transfers& t) { t.set_diskinfo(four); },
         with(diskinfo(4)), 0, S9P_ERR_NONE, "gfif 4 0, data 0 0", "", "01 02 03 04"},
        {"disk information above it", [&](Transfers& t) { t.set_diskinfo(five); },
         with(diskinfo(4)), -1, S9P_ERR_PROTOCOL, "gfif 4 0",
         "zqhandler_cnxn_get_diskinfo: size too big (5)\n", "EE EE EE EE"},
        {"disk information, wrong tag", [](Transfers& t) { t.script_header(header("uuuu", 4)); },
         with(diskinfo(4)), -1, S9P_ERR_PROTOCOL, "gfif 4 0",
         "zqhandler_cnxn_get_diskinfo: protocol err (75757575)\n", "EE EE EE EE"},
        {"disk information, no answer", [](Transfers& t) { t.script_header({}); },
         with(diskinfo(4)), -1, S9P_RCV_TIMEOUT, "gfif 4 0",
         "zqhandler_cnxn_get_diskinfo: cnxn_rcv_cmd() failure\n", "EE EE EE EE"},
        {"file entry of the capacity", [&](Transfers& t) { t.set_file_entry(9, four); },
         with(file_entry(9, 4)), 0, S9P_ERR_NONE, "uuuu 9 0, data 0 0", "", "01 02 03 04 size 4"},
        {"file entry above it", [&](Transfers& t) { t.set_file_entry(9, five); },
         with(file_entry(9, 4)), -1, S9P_INVAL_ARG, "uuuu 9 0", "size too small\n",
         "EE EE EE EE size 5"},
        {"file entry, wrong tag", [](Transfers& t) { t.script_header(header("gfif", 4)); },
         with(file_entry(9, 4)), -1, S9P_ERR_PROTOCOL, "uuuu 9 0", "protocol err\n", "EE EE EE EE"},
        {"gop of the capacity", [&](Transfers& t) { t.set_gop(four); }, with(gop(4, 1)), 0,
         S9P_ERR_NONE, "cggp 0 0, data 0 0", "", "01 02 03 04 size 4"},
        {"gop above it", [&](Transfers& t) { t.set_gop(five); }, with(gop(4, 1)), -1, S9P_INVAL_ARG,
         "cggp 0 0", "", "EE EE EE EE size 5"},
        {"gop, wrong tag", [](Transfers& t) { t.script_header(header("cggq", 4)); },
         with(gop(4, 1)), -1, S9P_ERR_PROTOCOL, "cggp 0 0",
         "zqhandler_cnxn_get_gop: protocol err (63676771)\n", "EE EE EE EE"},
        {"gop, older form", [&](Transfers& t) { t.set_gop(four); }, with(gop(4, 0)), 0,
         S9P_ERR_NONE, "ggop 0 0", "", "01 02 03 04"},
        {"upload accepted", [](Transfers&) {},
         [](devsim::DevSim& sim) {
             return put_gop(2, {7, 8, 9}, sim);
         },
         0, S9P_ERR_NONE, "pgop 2 3", "", "07 08 09"},
        {"upload refused", [](Transfers& t) { t.accept_uploads(false); },
         [](devsim::DevSim& sim) {
             return put_gop(2, {7, 8, 9}, sim);
         },
         -1, S9P_PERMISSION_DENIED, "pgop 2 3", "zqhandler_cnxn_put_gop: got permission denied\n",
         ""},
        {"upload answered otherwise", [](Transfers& t) { t.script_header(header("pgop", 0)); },
         [](devsim::DevSim& sim) {
             return put_gop(2, {7, 8, 9}, sim);
         },
         -1, S9P_ERR_PROTOCOL, "pgop 2 3", "", ""},
    };
    for (const Case& c : cases) {
        SimHandle s(Link::tcp);
        zqhandler_set_timeout(s.zqh, 1000);
        c.serve(s.sim.transfers());
        Seen seen;
        CapturedStdout out;
        CapturedStderr err;
        EXPECT_EQ(c.run(s.sim)(s.zqh, seen), c.result) << c.name;
        EXPECT_EQ(out.text() + err.text(), c.said) << c.name;
        EXPECT_EQ(zqhandler_get_last_err(s.zqh), c.code) << c.name;
        EXPECT_EQ(seen.text(), c.seen) << c.name;
        // The version request that follows shows that nothing else went on the stream before it.
        EXPECT_EQ(zqhandler_cnxn_version(s.zqh, nullptr, nullptr), 0) << c.name;
        EXPECT_EQ(requests(s.sim), c.requests + std::string(", ver  0 0")) << c.name;
    }
}

TEST(CnxnOperations, raw_bytes_that_stall_get_keep_alives_until_they_come_or_5000_ms_pass) {
    SimHandle s(Link::tcp);
    zqhandler_set_timeout(s.zqh, 1000);
    s.sim.transfers().set_gop({1, 2, 3, 4, 5, 6});
    s.sim.transfers().stall_next(2, 300);
    Seen seen;
    CapturedStderr err;
    EXPECT_EQ(gop(6, 1)(s.zqh, seen), 0);
    EXPECT_EQ(seen.text(), "01 02 03 04 05 06 size 6");
    size_t alive = s.sim.count_tag("aliv");
    EXPECT_GE(alive, 5u); // 300 ms in 20 ms slices is 15
    EXPECT_LE(alive, 30u);

    // The older form waits for as many bytes as the buffer holds; three of four never end it.
    s.sim.transfers().set_gop({1, 2, 3});
    seen = {};
    auto start = Clock::now();
    EXPECT_EQ(gop(4, 0)(s.zqh, seen), -1);
    EXPECT_GE(elapsed_ms(start), 4990);
    EXPECT_EQ(zqhandler_get_last_err(s.zqh), S9P_RCV_TIMEOUT);
    EXPECT_EQ(seen.text(), "01 02 03 EE") << "the bytes that came are kept";
    EXPECT_NE(err.text().find("zqhandler_cnxn_old_get_gop: cnxn_rcv_cmd() failure\n"),
              std::string::npos);
    EXPECT_GT(s.sim.count_tag("aliv"), alive + 100) << "about one per 20 ms of the 5000 ms";
}

TEST(CnxnOperations, disk_information_takes_the_protocol_of_the_link) {
    SimHandle tcp(Link::tcp);
    tcp.sim.transfers().set_diskinfo({1, 2, 3});
    MgmtHandle udp;
    udp.sim.mgmt().set_diskinfo({4, 5, 6});
    SimHandle serial(Link::serial);
    t_zqhandler* none = zqhandler_create();
    struct Case {
        t_zqhandler* zqh;
        int result;
        const char* buffer;
    } const cases[] = {{tcp.zqh, 0, "01 02 03 EE"},
                       {udp.zqh, 3, "04 05 06 EE"},
                       {serial.zqh, -1, "EE EE EE EE"},
                       {none, -1, "EE EE EE EE"}};
    for (const Case& c : cases) {
        zqhandler_set_timeout(c.zqh, 1000);
        c.zqh->lasterr = S9P_ERR_CHECKSUM;
        Bytes buffer(4, 0xEE);
        EXPECT_EQ(zqhandler_get_diskinfo(c.zqh, buffer.data(), 4), c.result) << c.buffer;
        EXPECT_EQ(hex(buffer), c.buffer);
        EXPECT_EQ(zqhandler_get_last_err(c.zqh), S9P_ERR_CHECKSUM) << "lasterr unchanged";
    }
    EXPECT_EQ(serial.sim.received().size(), 0u);
    zqhandler_delete(none);
}

} // namespace
