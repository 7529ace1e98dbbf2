// Connection protocol: request bytes on the wire, raw receives and the flush.
// The tunnel, headers in pieces and the keep-alive are shown end to end in test_zqhandler.
#include "cnxn_private.h"
#include "loopback.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

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
    // Everything the library has sent so far.
    std::vector<uint8_t> server_reads() const {
        std::vector<uint8_t> bytes;
        uint8_t chunk[512];
        pollfd p{server, POLLIN, 0};
        ssize_t n;
        while (poll(&p, 1, 0) > 0 && (n = read(server, chunk, sizeof chunk)) > 0)
            bytes.insert(bytes.end(), chunk, chunk + n);
        return bytes;
    }
};

TEST(Cnxn, requests_go_on_the_wire_as_tag_and_two_big_endian_arguments) {
    struct Case {
        int (*build)(t_cnxn_command*);
        const char* wire;
    };
    const Case cases[] = {
        {cnxn_version_command, "76 65 72 20 00 00 00 00 00 00 00 00"},
        {[](t_cnxn_command* m) { return cnxn_getfinfo_command(m, 0x01020304); },
         "67 66 69 66 01 02 03 04 00 00 00 00"},
        {[](t_cnxn_command* m) { return cnxn_file_entry_command(m, 7); },
         "75 75 75 75 00 00 00 07 00 00 00 00"},
        {cnxn_getdata_command, "64 61 74 61 00 00 00 00 00 00 00 00"},
        {cnxn_old_getgop_command, "67 67 6F 70 00 00 00 00 00 00 00 00"},
        {cnxn_getgop_command, "63 67 67 70 00 00 00 00 00 00 00 00"},
        {[](t_cnxn_command* m) { return cnxn_putgop_command(m, 2, 1000); },
         "70 67 6F 70 00 00 00 02 00 00 03 E8"},
        {cnxn_alive_command, "61 6C 69 76 00 00 00 00 00 00 00 00"},
    };
    for (const Case& c : cases) {
        t_cnxn_command msg;
        std::fill(std::begin(msg.data), std::end(msg.data), 0xAA); // builders clear all 32 bytes
        msg.payload_len = 99;
        EXPECT_EQ(c.build(&msg), 0) << c.wire;
        EXPECT_EQ(hex({msg.data, msg.data + msg.len}), c.wire);
        EXPECT_EQ(msg.payload_len, 0u) << c.wire;
        EXPECT_EQ(msg.data[CNXN_MAX_MESSAGE - 1], 0) << c.wire;
    }
}

TEST(Cnxn, raw_receive_takes_what_is_asked_and_flush_drops_the_rest) {
    StreamPair pair;
    const uint8_t sent[] = {1, 2, 3, 4, 5};
    ASSERT_EQ(write(pair.server, sent, sizeof sent), 5);
    uint8_t buffer[4] = {};
    EXPECT_EQ(cnxn_rcv_data(&pair.hdl, buffer, 4, 500), 4);
    EXPECT_EQ(hex({buffer, buffer + 4}), "01 02 03 04");
    // Counts of 0 or less do not touch the socket: the fifth byte stays there until the flush.
    EXPECT_EQ(cnxn_rcv_data(&pair.hdl, buffer, 0, 500), 0);
    EXPECT_EQ(cnxn_rcv_data(&pair.hdl, buffer, -3, 500), 0);
    cnxn_flush_input(&pair.hdl);
    t_cnxn_command answer{};
    EXPECT_EQ(cnxn_rcv_cmd(&pair.hdl, &answer, 30), -1);
    EXPECT_EQ(answer.err_status, S9P_RCV_TIMEOUT);
    EXPECT_EQ(hex(pair.server_reads()), "") << "no keep-alive while waiting for a header";
}

} // namespace
