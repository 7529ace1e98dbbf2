// Connection-protocol operations against the emulator's transfers: the requests on the wire, the
// answers each accepts or refuses, what it says, and raw transfers that stall or fall short.
#include "capture.h"
#include "common.h"
#include "sim_handle.h"

#include <atomic>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <regex>
#include <sys/socket.h>
#include <thread>
#include <zqhandler/zqhandler_cnxn.h>

namespace {

using devsim::Bytes;
using devsim::Link;
using devsim::Transfers;

// What the caller got: "<buffer in hex> size <the size out-argument>" (no size: not written).
struct Seen {
    Bytes buffer;
    int32_t size = -99;
    std::string text() const {
        return hex(buffer) + (size == -99 ? "" : " size " + std::to_string(size));
    }
};
using Op = std::function<int(t_zqhandler*, devsim::DevSim&, Seen&)>;
using Download = int (*)(t_zqhandler*, uint8_t*, int32_t*, int32_t);

// A download into exactly `capacity` bytes, filled with EE beforehand, size not written.
Op into(int32_t capacity, Download download) {
    return [=](t_zqhandler* z, devsim::DevSim&, Seen& s) {
        s = {Bytes(size_t(capacity), 0xEE)};
        return download(z, s.buffer.data(), &s.size, capacity);
    };
}
const Download kDiskinfo = [](t_zqhandler* z, uint8_t* b, int32_t*, int32_t c) {
    return zqhandler_cnxn_get_diskinfo(z, b, c);
};
const Download kEntry9 = [](t_zqhandler* z, uint8_t* b, int32_t* n, int32_t c) {
    return zqhandler_cnxn_get_file_entry(z, 9, b, n, c);
};
const Download kGop = [](t_zqhandler* z, uint8_t* b, int32_t* n, int32_t c) {
    return zqhandler_cnxn_get_gop(z, b, n, c);
};
const Download kOldGop = [](t_zqhandler* z, uint8_t* b, int32_t* n, int32_t c) {
    z->proto_ver = 0;
    return zqhandler_cnxn_get_gop(z, b, n, c);
};
const Op kVersion = [](t_zqhandler* z, devsim::DevSim&, Seen& s) {
    uint32_t words[2] = {};
    int r = zqhandler_cnxn_version(z, &words[0], &words[1]);
    s = {{uint8_t(words[1])}, int32_t(words[0])};
    return r;
};

// `copies` answer headers: those after the first are left over on the stream.
Bytes header(const char* tag, uint8_t arg1, int copies = 1) {
    Bytes h;
    for (int i = 0; i < copies; ++i)
        h.insert(h.end(), {uint8_t(tag[0]), uint8_t(tag[1]), uint8_t(tag[2]), uint8_t(tag[3]), 0, 0,
                           0, arg1, 0, 0, 0, 0});
    return h;
}

// The requests the server got but keep-alives, as "tag arg1 arg2" read from their bytes.
std::string requests(const devsim::DevSim& sim) {
    std::string out;
    for (const auto& r : sim.received()) {
        auto arg = [&](size_t at) {
            return " " + std::to_string(uint32_t(r.wire[at]) << 24 |
                                        uint32_t(r.wire[at + 1]) << 16 |
                                        uint32_t(r.wire[at + 2]) << 8 | r.wire[at + 3]);
        };
        if (r.tag != "aliv")
            out += (out.empty() ? "" : ", ") + r.tag + arg(4) + arg(8) +
                   (r.wire.size() == 12 ? "" : " and more");
    }
    return out;
}

TEST(CnxnOperations, each_asks_its_request_and_takes_only_the_answer_it_expects) {
    const Bytes four = {1, 2, 3, 4}, five = {1, 2, 3, 4, 5};
    const Op upload = [](t_zqhandler* z, devsim::DevSim& sim, Seen& s) {
        const uint8_t bytes[] = {7, 8, 9};
        int r = zqhandler_cnxn_put_gop(z, 2, bytes, 3);
        if (sim.transfers().wait_uploads(1, r == 0 ? 2000 : 0))
            s.buffer = sim.transfers().uploaded();
        return r;
    };
    struct Case {
        const char* name;
        std::function<void(Transfers&)> serve;
        Op op;
        int result;
        e_s9p_err code;
        const char* requests; // before the version request that ends each case
        const char* said;     // standard output, then standard error
        const char* seen;
    } const cases[] = {
        {"version", [](Transfers& t) { t.set_version(0x01020304, 7); }, kVersion, 0, S9P_ERR_NONE,
         "ver  0 0", "", "07 size 16909060"},
        {"version, wrong tag", [](Transfers& t) { t.script_header(header("gfif", 0)); }, kVersion,
         -1, S9P_ERR_PROTOCOL, "ver  0 0", "zqhandler_cnxn_version: protocol err\n", "00 size 0"},
        {"disk information of the capacity", [&](Transfers& t) { t.set_diskinfo(four); },
         into(4, kDiskinfo), 0, S9P_ERR_NONE, "gfif 4 0, data 0 0", "", "01 02 03 04"},
        {"disk information above it", [&](Transfers& t) { t.set_diskinfo(five); },
         into(4, kDiskinfo), -1, S9P_ERR_PROTOCOL, "gfif 4 0",
         "zqhandler_cnxn_get_diskinfo: size too big (5)\n", "EE EE EE EE"},
        {"disk information, wrong tag", [](Transfers& t) { t.script_header(header("uuuu", 4, 2)); },
         into(4, kDiskinfo), -1, S9P_ERR_PROTOCOL, "gfif 4 0",
         "zqhandler_cnxn_get_diskinfo: protocol err (75757575)\n", "EE EE EE EE"},
        {"disk information, no answer", [](Transfers& t) { t.script_header({}); },
         into(4, kDiskinfo), -1, S9P_RCV_TIMEOUT, "gfif 4 0",
         "zqhandler_cnxn_get_diskinfo: cnxn_rcv_cmd() failure\n", "EE EE EE EE"},
        {"file entry of the capacity", [&](Transfers& t) { t.set_file_entry(9, four); },
         into(4, kEntry9), 0, S9P_ERR_NONE, "uuuu 9 0, data 0 0", "", "01 02 03 04 size 4"},
        {"file entry above it", [&](Transfers& t) { t.set_file_entry(9, five); }, into(4, kEntry9),
         -1, S9P_INVAL_ARG, "uuuu 9 0", "size too small\n", "EE EE EE EE size 5"},
        {"file entry, wrong tag", [](Transfers& t) { t.script_header(header("gfif", 4)); },
         into(4, kEntry9), -1, S9P_ERR_PROTOCOL, "uuuu 9 0", "protocol err\n", "EE EE EE EE"},
        {"gop of the capacity", [&](Transfers& t) { t.set_gop(four); }, into(4, kGop), 0,
         S9P_ERR_NONE, "cggp 0 0, data 0 0", "", "01 02 03 04 size 4"},
        {"gop, wrong tag", [](Transfers& t) { t.script_header(header("cggq", 4)); }, into(4, kGop),
         -1, S9P_ERR_PROTOCOL, "cggp 0 0", "zqhandler_cnxn_get_gop: protocol err (63676771)\n",
         "EE EE EE EE"},
        {"gop, older form", [&](Transfers& t) { t.set_gop(four); }, into(4, kOldGop), 0,
         S9P_ERR_NONE, "ggop 0 0", "", "01 02 03 04"},
        {"upload accepted", [](Transfers&) {}, upload, 0, S9P_ERR_NONE, "pgop 2 3", "", "07 08 09"},
        {"upload refused", [](Transfers& t) { t.accept_uploads(false); }, upload, -1,
         S9P_PERMISSION_DENIED, "pgop 2 3", "zqhandler_cnxn_put_gop: got permission denied\n", ""},
    };
    for (const Case& c : cases) {
        SimHandle s(Link::tcp);
        zqhandler_set_timeout(s.zqh, 1000);
        c.serve(s.sim.transfers());
        Seen seen;
        CapturedStdout out;
        CapturedStderr err;
        EXPECT_EQ(c.op(s.zqh, s.sim, seen), c.result) << c.name;
        EXPECT_EQ(out.text() + err.text(), c.said) << c.name;
        EXPECT_EQ(zqhandler_get_last_err(s.zqh), c.code) << c.name;
        EXPECT_EQ(seen.text(), c.seen) << c.name;
        // A version request without out-arguments shows that nothing else went before it.
        EXPECT_EQ(zqhandler_cnxn_version(s.zqh, nullptr, nullptr), 0) << c.name;
        EXPECT_EQ(requests(s.sim), c.requests + std::string(", ver  0 0")) << c.name;
    }
}

// Raw bytes get 5000 ms whatever the handle's time-out (the trace's tm).
TEST(CnxnOperations, raw_bytes_that_stall_get_keep_alives_until_they_come) {
    SimHandle s(Link::tcp);
    zqhandler_set_timeout(s.zqh, 1000);
    s.sim.transfers().set_gop({1, 2, 3, 4, 5, 6});
    s.sim.transfers().stall_next(2, 300);
    Seen seen;
    CapturedStderr err;
    EXPECT_EQ(into(6, kGop)(s.zqh, s.sim, seen), 0);
    EXPECT_EQ(seen.text(), "01 02 03 04 05 06 size 6");
    // Each keep-alive is traced with its source location: waited for 2 of the 6 bytes.
    const std::string trace = err.text();
    EXPECT_TRUE(std::regex_search(
        trace, std::regex("(^|\n)cnxn\\.cpp:[0-9]+> send alive ret: 2 ret2: 2 size: 6 tm2: [0-9]+ "
                          "tm: 5000\n")))
        << trace;
    size_t alive = s.sim.count_tag("aliv");
    EXPECT_GE(alive, 5u); // 300 ms in 20 ms slices is 15
    EXPECT_LE(alive, 30u);
}

// Input waiting before a request is dropped in a bounded number of reads: of 400 KB already there
// some are left, and the request's answer header is read from them; and a peer that then sends
// without pause holds no request past the time-out. The handle's stream is one end of a pair.
TEST(CnxnOperations, peer_that_never_stops_sending_does_not_hold_a_request) {
    int ends[2], room = 1 << 20;
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    setsockopt(ends[0], SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    constexpr int kWaiting = 400 * 1024;
    const Bytes junk(kWaiting, 0x5A);
    ASSERT_EQ(send(ends[1], junk.data(), junk.size(), MSG_DONTWAIT), kWaiting);
    std::atomic<bool> flooding{false}, done{false};
    std::thread peer([&] {
        while (!done)
            if (!flooding || send(ends[1], junk.data(), 4096, MSG_NOSIGNAL | MSG_DONTWAIT) <= 0)
                std::this_thread::yield();
    });
    t_zqhandler* h = zqhandler_create();
    h->comm_handle.connected = S9P_LINK_STREAM;
    h->comm_handle.fd = ends[0];
    zqhandler_set_timeout(h, 200);
    for (bool flood : {false, true}) {
        flooding = flood;
        auto version =
            std::async(std::launch::async, [h] { return zqhandler_cnxn_version(h, 0, 0); });
        done = version.wait_for(std::chrono::seconds(3)) != std::future_status::ready;
        EXPECT_FALSE(done) << "the request was held; flooding " << flood;
        EXPECT_EQ(version.get(), -1);
        EXPECT_EQ(zqhandler_get_last_err(h), S9P_ERR_PROTOCOL) << "flooding " << flood;
    }
    done = true;
    peer.join();
    zqhandler_delete(h);
    close(ends[1]);
}

} // namespace
