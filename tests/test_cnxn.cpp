// Connection protocol: request bytes on the wire, header and raw receives, the keep-alive.
#include "capture.h"
#include "cnxn.h"
#include "loopback.h"

#include <chrono>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

long elapsed_ms(Clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

std::vector<uint8_t> message_of(const t_cnxn_command& msg) {
    return {msg.data, msg.data + msg.len};
}

// The library's end of a stream in `hdl`, the server's end in `server`.
struct StreamPair {
    t_s9p_handle hdl{};
    int server = -1;
    StreamPair() {
        int ends[2];
        socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
        hdl.connected = S9P_LINK_STREAM;
        hdl.fd = ends[0];
        server = ends[1];
    }
    ~StreamPair() {
        close(hdl.fd);
        close(server);
    }
    void server_sends(const std::vector<uint8_t>& bytes) const {
        ASSERT_EQ(write(server, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // Everything the library sent so far.
    std::vector<uint8_t> server_reads() const {
        std::vector<uint8_t> bytes;
        uint8_t chunk[512];
        pollfd p{server, POLLIN, 0};
        while (poll(&p, 1, 0) > 0) {
            ssize_t n = read(server, chunk, sizeof chunk);
            if (n <= 0)
                break;
            bytes.insert(bytes.end(), chunk, chunk + n);
        }
        return bytes;
    }
};

TEST(Cnxn, requests_go_on_the_wire_as_tag_and_two_big_endian_arguments) {
    struct Case {
        const char* name;
        int (*build)(t_cnxn_command*);
        const char* wire;
    };
    auto finfo = [](t_cnxn_command* m) { return cnxn_getfinfo_command(m, 0x01020304); };
    auto entry = [](t_cnxn_command* m) { return cnxn_file_entry_command(m, 7); };
    auto putgop = [](t_cnxn_command* m) { return cnxn_putgop_command(m, 2, 1000); };
    const Case cases[] = {
        {"ver", cnxn_version_command, "76 65 72 20 00 00 00 00 00 00 00 00"},
        {"gfif", finfo, "67 66 69 66 01 02 03 04 00 00 00 00"},
        {"uuuu", entry, "75 75 75 75 00 00 00 07 00 00 00 00"},
        {"data", cnxn_getdata_command, "64 61 74 61 00 00 00 00 00 00 00 00"},
        {"ggop", cnxn_old_getgop_command, "67 67 6F 70 00 00 00 00 00 00 00 00"},
        {"cggp", cnxn_getgop_command, "63 67 67 70 00 00 00 00 00 00 00 00"},
        {"pgop", putgop, "70 67 6F 70 00 00 00 02 00 00 03 E8"},
        {"aliv", cnxn_alive_command, "61 6C 69 76 00 00 00 00 00 00 00 00"},
    };
    for (const Case& c : cases) {
        t_cnxn_command msg;
        std::fill(std::begin(msg.data), std::end(msg.data), 0xAA); // builders clear all 32 bytes
        msg.payload_len = 99;
        EXPECT_EQ(c.build(&msg), 0) << c.name;
        EXPECT_EQ(hex(message_of(msg)), c.wire) << c.name;
        EXPECT_EQ(msg.payload_len, 0u) << c.name;
        EXPECT_EQ(msg.data[CNXN_MAX_MESSAGE - 1], 0) << c.name;
    }
}

TEST(Cnxn, sony_request_carries_the_frame_after_the_header) {
    t_s9p_command frame{};
    frame.len = 3;
    frame.data[0] = 0x20, frame.data[1] = 0x01, frame.data[2] = 0x21;
    t_cnxn_command msg{};
    EXPECT_EQ(cnxn_sony9p_command(&msg, &frame), 0);
    EXPECT_EQ(hex(message_of(msg)), "73 39 70 20 00 00 00 03 00 00 00 00 20 01 21");

    frame.len = S9P_MAX_FRAME + 1; // would not fit the message
    EXPECT_EQ(cnxn_sony9p_command(&msg, &frame), -1);
    EXPECT_EQ(msg.err_status, S9P_INVAL_ARG);
}

TEST(Cnxn, send_writes_the_message_then_the_payload) {
    StreamPair pair;
    const uint8_t payload[] = {0xDE, 0xAD};
    t_cnxn_command msg{};
    cnxn_putgop_command(&msg, 0, 2);
    msg.payload = payload;
    msg.payload_len = 2;
    EXPECT_EQ(cnxn_send_cmd(&pair.hdl, &msg, 100), 0);
    EXPECT_EQ(hex(pair.server_reads()), "70 67 6F 70 00 00 00 00 00 00 00 02 DE AD");

    t_cnxn_command empty{};
    EXPECT_EQ(cnxn_send_cmd(&pair.hdl, &empty, 100), 0);
    EXPECT_EQ(cnxn_send_data(&pair.hdl, payload, 0, 100), 0);
    EXPECT_EQ(hex(pair.server_reads()), "");
}

TEST(Cnxn, header_arriving_in_pieces_is_assembled) {
    StreamPair pair;
    std::thread server([&] {
        pair.server_sends({'s', '9', 'p', ' ', 0});
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        pair.server_sends({0, 0, 3, 0, 0, 0, 9});
    });
    t_cnxn_command answer{};
    EXPECT_EQ(cnxn_rcv_cmd(&pair.hdl, &answer, 2000), 0);
    server.join();
    EXPECT_EQ(hex({answer.data, answer.data + CNXN_HEADER_SIZE}),
              "73 39 70 20 00 00 00 03 00 00 00 09");
    EXPECT_EQ(cnxn_arg1(answer.data), 3u);
    EXPECT_EQ(cnxn_arg2(answer.data), 9u);
}

TEST(Cnxn, header_wait_times_out_without_keep_alive) {
    StreamPair pair;
    pair.server_sends({'s', '9', 'p'});
    t_cnxn_command answer{};
    auto start = Clock::now();
    EXPECT_EQ(cnxn_rcv_cmd(&pair.hdl, &answer, 100), -1);
    EXPECT_EQ(answer.err_status, S9P_RCV_TIMEOUT);
    EXPECT_GE(elapsed_ms(start), 95);
    EXPECT_LT(elapsed_ms(start), 3000);
    EXPECT_EQ(hex(pair.server_reads()), "");
}

TEST(Cnxn, silent_server_gets_one_keep_alive_per_idle_slice_until_the_time_out) {
    StreamPair pair;
    uint8_t buffer[8] = {};
    pair.server_sends({0x10, 0x01});
    CapturedStderr err;
    EXPECT_EQ(cnxn_rcv_data(&pair.hdl, buffer, 3, 300), -S9P_RCV_TIMEOUT);
    std::string trace = err.text();
    EXPECT_EQ(buffer[0], 0x10); // what came before the silence is kept
    EXPECT_EQ(buffer[1], 0x01);

    std::vector<uint8_t> sent = pair.server_reads();
    ASSERT_EQ(sent.size() % CNXN_HEADER_SIZE, 0u);
    size_t alive = sent.size() / CNXN_HEADER_SIZE;
    EXPECT_GE(alive, 8u); // 300 ms in 20 ms slices is 15
    EXPECT_LE(alive, 30u);
    for (size_t at = 0; at < sent.size(); at += CNXN_HEADER_SIZE)
        EXPECT_EQ(hex({sent.begin() + at, sent.begin() + at + 12}),
                  "61 6C 69 76 00 00 00 00 00 00 00 00");
    EXPECT_NE(trace.find("cnxn:"), std::string::npos);
    EXPECT_NE(trace.find("> send alive ret: 2 ret2: 2 size: 3 tm2: "), std::string::npos);
    EXPECT_NE(trace.find("cnxn_rcv_data: timeout: got 2/3 bytes in "), std::string::npos);
}

TEST(Cnxn, raw_receive_returns_the_bytes_asked_for) {
    StreamPair pair;
    pair.server_sends({1, 2, 3, 4, 5});
    uint8_t buffer[4] = {};
    EXPECT_EQ(cnxn_rcv_data(&pair.hdl, buffer, 4, 500), 4);
    EXPECT_EQ(hex({buffer, buffer + 4}), "01 02 03 04");
    // Counts of 0 or less do not touch the socket: the fifth byte stays there.
    EXPECT_EQ(cnxn_rcv_data(&pair.hdl, buffer, 0, 500), 0);
    EXPECT_EQ(cnxn_rcv_data(&pair.hdl, buffer, -3, 500), 0);
    cnxn_flush_input(&pair.hdl);
    EXPECT_EQ(cnxn_rcv_data(&pair.hdl, buffer, 1, 0), -S9P_RCV_TIMEOUT);
}

TEST(Cnxn, every_transfer_needs_a_connection) {
    t_s9p_handle none{};
    none.fd = -1;
    t_cnxn_command msg{};
    cnxn_alive_command(&msg);
    uint8_t buffer[4];
    EXPECT_EQ(cnxn_send_cmd(&none, &msg, 10), -1);
    EXPECT_EQ(msg.err_status, S9P_ERR_NOT_CONNECTED);
    msg.err_status = 0;
    EXPECT_EQ(cnxn_rcv_cmd(&none, &msg, 10), -1);
    EXPECT_EQ(msg.err_status, S9P_ERR_NOT_CONNECTED);
    EXPECT_EQ(cnxn_send_data(&none, buffer, 4, 10), -S9P_ERR_NOT_CONNECTED);
    EXPECT_EQ(cnxn_rcv_data(&none, buffer, 4, 10), -S9P_ERR_NOT_CONNECTED);
    cnxn_flush_input(&none);
}

} // namespace
