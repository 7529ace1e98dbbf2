// Connection protocol: raw receives and the flush. Every request on the wire, the tunnel, headers
// in pieces and the keep-alive are shown end to end (test_zqhandler_cnxn, test_zqhandler).
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
};

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
    uint8_t sent_back[12];
    EXPECT_EQ(recv(pair.server, sent_back, sizeof sent_back, MSG_DONTWAIT), -1)
        << "no keep-alive while waiting for a header";
}

} // namespace
