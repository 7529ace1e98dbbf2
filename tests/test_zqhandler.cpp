// The handle: defaults, connections, last error, and the Sony exchange against the emulator on
// each of the three links.
#include "capture.h"
#include "common.h"
#include "loopback.h"
#include "myserial.h"
#include "sim_handle.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace {

using devsim::Link;
using devsim::Reply;

const std::vector<uint8_t> kGpiCommand = {0x43, 0xBF, 0xF0, 0x04, 0x0C};

// --- the handle --------------------------------------------------------------------------------

// A new handle is not connected, says so once, and takes the peer's address and port as numbers.
TEST(Handle, datagram_connect_reads_address_and_port_as_numbers) {
    t_zqhandler* h = zqhandler_create();
    EXPECT_EQ(zqhandler_cmd_misc(h, kGpiCommand.data(), 5), -1);
    EXPECT_EQ(zqhandler_get_last_err(h), S9P_ERR_NOT_CONNECTED);
    EXPECT_EQ(zqhandler_get_last_err(h), S9P_ERR_NONE);
    const std::tuple<const char*, const char*, const char*, uint16_t> cases[] = {
        {"127.0.0.1", "32896x", "127.0.0.1", 32896},
        {"127.0.0.1", "70000", "127.0.0.1", 4464},
        {"10.0.256.5", "1", "10.0.0.5", 1}, // the low 8 bits of each number
        {"192.168.1.2 trailing", "0", "192.168.1.2", 0},
    };
    for (const auto& [address, port, peer, peer_port] : cases) {
        EXPECT_EQ(zqhandler_set_timeout(h, 500), 500);
        ASSERT_EQ(zqhandler_connect_eth(h, address, port), 0) << address;
        EXPECT_EQ(zqhandler_get_timeout(h), 60) << "a connect resets the time-out";
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &h->comm_handle.sockadd.sin_addr, text, sizeof text);
        EXPECT_STREQ(text, peer);
        EXPECT_EQ(ntohs(h->comm_handle.sockadd.sin_port), peer_port) << port;
        EXPECT_EQ(h->comm_handle.socklen, 16);
    }
    zqhandler_delete(h);
    zqhandler_delete(nullptr);
}

TEST(Handle, connect_to_what_is_not_four_numbers_or_does_not_listen_is_refused) {
    // A bound socket that does not listen: connecting to it is refused, and its port stays ours.
    int bound = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback_address(0);
    ASSERT_EQ(bind(bound, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    socklen_t length = sizeof address;
    getsockname(bound, reinterpret_cast<sockaddr*>(&address), &length);
    const std::string silent = std::to_string(ntohs(address.sin_port));
    const std::pair<const char*, int (*)(t_zqhandler*, const char*, const char*)> refused[] = {
        {"localhost", zqhandler_connect_eth}, {"1.2.3", zqhandler_connect_eth},
        {"", zqhandler_connect_tcp},          {"1..2.3.4", zqhandler_connect_tcp},
        {"127.0.0.1", zqhandler_connect_tcp}, // nothing listens on `silent`
    };
    t_zqhandler* h = zqhandler_create();
    for (const auto& [address_text, connect] : refused) {
        ASSERT_EQ(zqhandler_connect_eth(h, "127.0.0.1", "1"), 0);
        EXPECT_EQ(connect(h, address_text, silent.c_str()), -1) << address_text;
        EXPECT_EQ(zqhandler_get_last_err(h), S9P_INVAL_ARG) << address_text;
        EXPECT_EQ(h->comm_handle.connected, S9P_LINK_NONE) << address_text;
        EXPECT_EQ(h->comm_handle.fd, -1) << address_text;
    }
    zqhandler_delete(h);
    close(bound);
}

TEST(Handle, every_connect_drops_the_previous_transport) {
    SimHandle serial(Link::serial);
    ASSERT_EQ(serial.connected, 0);
    t_zqhandler* h = serial.zqh;
    ASSERT_NE(h->comm_handle.shdl, nullptr);
    ASSERT_EQ(zqhandler_connect_eth(h, "127.0.0.1", "1"), 0);
    EXPECT_EQ(h->comm_handle.shdl, nullptr);
    int udp_fd = h->comm_handle.fd;
    EXPECT_GE(udp_fd, 0);
    ASSERT_EQ(zqhandler_connect_serial(h, serial.sim.pty_path().c_str()), 0);
    EXPECT_EQ(h->comm_handle.connected, S9P_LINK_SERIAL);
    struct stat st {};
    EXPECT_FALSE(fstat(udp_fd, &st) == 0 && S_ISSOCK(st.st_mode)) << "the socket was closed";
    EXPECT_EQ(zqhandler_connect_serial(h, "/nonexistent/tty"), -1);
    EXPECT_EQ(zqhandler_get_last_err(h), S9P_INVAL_ARG);
    EXPECT_EQ(h->comm_handle.connected, S9P_LINK_NONE);
    EXPECT_EQ(h->comm_handle.shdl, nullptr);
}

// --- the exchange on every link ------------------------------------------------------------------

class Exchange : public testing::TestWithParam<Link> {};

TEST_P(Exchange, answer_decides_the_result_and_the_last_error) {
    Reply corrupt;
    corrupt.corrupt_checksum = true;
    const std::pair<Reply, e_s9p_err> cases[] = {
        {Reply::ack(), S9P_ERR_NONE},
        {Reply::answer({0x70, 0x20}), S9P_ERR_NONE}, // a sense answer
        {Reply::nak(0x01), S9P_NOT_IMPLEMENTED},
        {Reply::nak(0x04), S9P_ERR_CHECKSUM},
        {Reply::nak(0x05), S9P_ERR_CHECKSUM}, // checksum outranks unknown command
        {Reply::nak(0x80), S9P_ERR_COMM},     // a line error
        {Reply::nak(0x02), S9P_ERR_COMM},
        {corrupt, S9P_ERR_CHECKSUM},
    };
    SimHandle s(GetParam());
    ASSERT_EQ(s.connected, 0);
    const t_s9p_handle& link = s.zqh->comm_handle;
    const int fd = GetParam() == Link::serial ? link.shdl->fd : link.fd;
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << "a program the caller starts would inherit it";
    zqhandler_set_timeout(s.zqh, 2000);
    for (const auto& [reply, code] : cases) {
        s.sim.script(reply);
        EXPECT_EQ(s.misc(kGpiCommand), code == S9P_ERR_NONE ? 0 : -1) << code;
        EXPECT_EQ(zqhandler_get_last_err(s.zqh), code);
    }
    auto received = s.sim.received();
    ASSERT_EQ(received.size(), std::size(cases));
    for (const auto& r : received)
        EXPECT_EQ(hex(r.frame), "43 BF F0 04 0C 02");
    EXPECT_EQ(hex(frame_of(s.zqh->data.s9p.last_sent)), "43 BF F0 04 0C 02");
    EXPECT_EQ(hex(frame_of(s.zqh->data.s9p.last_rcv)), "11 12 02 25") << "the last good answer";
}

TEST_P(Exchange, silent_device_times_out_after_the_handle_time_out) {
    SimHandle s(GetParam());
    zqhandler_set_timeout(s.zqh, 200);
    s.sim.script(Reply::silence());
    auto start = Clock::now();
    EXPECT_EQ(s.misc(kGpiCommand), -1);
    EXPECT_EQ(zqhandler_get_last_err(s.zqh), S9P_RCV_TIMEOUT);
    EXPECT_GE(elapsed_ms(start), 190);
    EXPECT_LT(elapsed_ms(start), 3000);
    EXPECT_GE(s.zqh->data.s9p.rcv_completion_time, 190u);
}

const char* const kLinkNames[] = {"udp", "tcp", "serial"};
INSTANTIATE_TEST_SUITE_P(Links, Exchange, testing::Values(Link::udp, Link::tcp, Link::serial),
                         [](const auto& link) { return kLinkNames[link.index]; });

// --- datagrams -----------------------------------------------------------------------------------

// A datagram whose `size` low byte is `size`, followed by `frame_bytes` bytes of a frame.
std::vector<uint8_t> datagram(uint8_t size, size_t frame_bytes, uint8_t size_high = 0) {
    std::vector<uint8_t> d = {0, 1, size_high, size, 0, 0, 0, 0, 0, 0, 0x10, 0x01, 0x11};
    d.resize(10 + frame_bytes, 0x11);
    return d;
}

TEST(Datagram, malformed_answers_are_protocol_errors) {
    const std::tuple<const char*, Reply, e_s9p_err> cases[] = {
        {"12 bytes", Reply::bytes(datagram(2, 2)), S9P_ERR_PROTOCOL},
        {"size above what came", Reply::bytes(datagram(5, 4)), S9P_ERR_PROTOCOL},
        {"size below a frame", Reply::bytes(datagram(2, 3)), S9P_ERR_PROTOCOL},
        {"13 bytes, size 3", Reply::bytes(datagram(3, 3)), S9P_ERR_NONE},
        {"size's high byte ignored", Reply::bytes(datagram(3, 3, 9)), S9P_ERR_NONE},
        {"nak without its data byte", Reply::answer({0x11, 0x12}), S9P_ERR_COMM},
    };
    SimHandle s(Link::udp);
    zqhandler_set_timeout(s.zqh, 2000);
    for (const auto& [name, reply, code] : cases) {
        s.sim.script(reply);
        EXPECT_EQ(s.misc(kGpiCommand), code == S9P_ERR_NONE ? 0 : -1) << name;
        EXPECT_EQ(zqhandler_get_last_err(s.zqh), code) << name;
    }
}

// --- the connection-protocol stream --------------------------------------------------------------

// A stream answer: a header with `tag` and `len` in byte 7 (`high` above it), then an ACK.
std::vector<uint8_t> message(const char* tag, uint8_t len, uint8_t high = 0) {
    auto t = [&](int i) { return static_cast<uint8_t>(tag[i]); };
    return {t(0), t(1), t(2), t(3), high, high, high, len, 0, 0, 0, 0, 0x10, 0x01, 0x11};
}

TEST(Stream, answer_header_is_checked_before_the_frame_is_read) {
    const std::vector<uint8_t> ack = message("s9p ", 3);
    const std::tuple<const char*, std::vector<uint8_t>, std::vector<size_t>, e_s9p_err> cases[] = {
        {"header in pieces", ack, {5, 4}, S9P_ERR_NONE},
        {"upper bytes of arg1 ignored", message("s9p ", 3, 0xFF), {}, S9P_ERR_NONE},
        {"wrong tag", message("ver ", 3), {}, S9P_ERR_COMM},
        {"header without its frame", {ack.begin(), ack.begin() + 12}, {}, S9P_RCV_TIMEOUT},
    };
    SimHandle s(Link::tcp);
    zqhandler_set_timeout(s.zqh, 500);
    for (const auto& [name, bytes, pieces, code] : cases) {
        Reply reply = Reply::bytes(bytes);
        reply.pieces = pieces;
        reply.piece_gap_ms = 30;
        s.sim.script(reply);
        EXPECT_EQ(s.misc({0x20, 0x01}), code == S9P_ERR_NONE ? 0 : -1) << name;
        EXPECT_EQ(zqhandler_get_last_err(s.zqh), code) << name;
    }
    EXPECT_EQ(hex(s.sim.received().at(0).wire), "73 39 70 20 00 00 00 03 00 00 00 00 20 01 21");
}

// --- the serial line -----------------------------------------------------------------------------

// A reply of the sense answer 71 20 05 (96) in pieces of the given sizes, `gap_ms` apart.
Reply in_pieces(int delay_ms, std::vector<size_t> pieces, int gap_ms) {
    Reply reply = Reply::answer({0x71, 0x20, 0x05});
    reply.delay_ms = delay_ms;
    reply.pieces = std::move(pieces);
    reply.piece_gap_ms = gap_ms;
    return reply;
}

TEST(Serial, answer_is_assembled_from_its_pieces_within_the_time_out) {
    // name, time-out, reply, result, code
    const std::tuple<const char*, int, Reply, int, e_s9p_err> cases[] = {
        {"one byte at a time", 2000, in_pieces(0, {1, 1, 1}, 20), 4, S9P_ERR_NONE},
        // CMD1 and CMD2 in time, the data byte 10 ms after the time-out (in a read that began
        // before it): the checksum, 70 ms later, still gets its read.
        {"header completed after the time-out", 100, in_pieces(40, {2, 1}, 70), 4, S9P_ERR_NONE},
        {"cut after CMD2", 200, Reply::bytes({0x10, 0x01}), -1, S9P_RCV_TIMEOUT},
    };
    for (const auto& [name, timeout_ms, reply, result, code] : cases) {
        SimHandle s(Link::serial);
        zqhandler_set_timeout(s.zqh, timeout_ms);
        s.sim.script(reply);
        uint8_t answer[S9P_MAX_FRAME] = {};
        const uint8_t sense[] = {0x61, 0x20, 0x0A};
        auto start = Clock::now();
        EXPECT_EQ(zqhandler_cmd_sense_misc(s.zqh, sense, 3, answer), result) << name;
        EXPECT_EQ(zqhandler_get_last_err(s.zqh), code) << name;
        EXPECT_EQ(hex({answer, answer + 4}), result > 0 ? "71 20 05 96" : "00 00 00 00");
        EXPECT_GE(elapsed_ms(start), result > 0 ? 0 : timeout_ms - 10) << name;
        EXPECT_EQ(hex(s.sim.received().at(0).wire), "61 20 0A 8B") << name;
    }
}

} // namespace
