// The pcap writer and devsim's recorder, read back by tshark with the project's dissector: each
// record decodes to the link, direction, ends and bytes it was written with, whoever wrote it.
#include "loopback.h"
#include "pcap_writer.h"
#include "toolkit.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <devsim/recorder.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
constexpr auto in = pcap::Direction::received, out = pcap::Direction::sent;

// Per record of the file: direction, controller port or serial line, and the decoded fields.
std::string decoded(const std::string& path) {
    const std::string tshark = "tshark -X lua_script:" VLM_DISSECTOR " -r " + path +
                               " -T fields -e vlm.link.direction -e vlm.link.controller_port"
                               " -e vlm.link.line -e vlm.s9p.name -e vlm.s9p.tc -e vlm.louth.name"
                               " -e vlm.louth.id -e vlm.cnxn.tag -e vlm.cnxn.bulk_len 2>/dev/null"
                               " | sed 's/\\t\\+/ /g; s/^ //; s/ $//'";
    std::string text;
    char chunk[512];
    FILE* pipe = popen(tshark.c_str(), "r");
    for (size_t n; pipe && (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        text.append(chunk, n);
    return pipe && pclose(pipe) == 0 ? text : "tshark failed";
}

TEST(PcapWriter, tshark_decodes_each_record_as_written) {
    if (system("tshark -v >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tshark is not installed";
    char path[] = "/tmp/vlm-links-XXXXXX.pcap";
    const int fd = mkstemps(path, 5);
    ASSERT_GE(fd, 0);
    pcap::Writer dev(fd, pcap::Role::device), ctl(fd, pcap::Role::controller);
    const sockaddr_in d = loopback_address(32896), c = loopback_address(40000);
    const size_t bulk = pcap::kMaxRecord + 10; // one write, two records
    ASSERT_TRUE(dev.begin());
    ASSERT_TRUE(dev.datagram(in, d, c, Bytes{0, 1, 0, 3, 0, 0, 0, 0, 0, 0, 0x20, 1, 0x21}));
    ASSERT_TRUE(ctl.datagram(in, c, d, Bytes{0, 1, 0, 3, 0, 0, 0, 0, 0, 0, 0x10, 1, 0x11}));
    ASSERT_TRUE(dev.serial(in, pcap::Serial::sony, 0,
                           Bytes{0x24, 0x31, 0, 0, 0x10, 0, 0x65, 0x20, 1, 0x21}));
    ASSERT_TRUE(dev.serial(in, pcap::Serial::louth, 3,
                           Bytes{2, 10, 0x20, 0x24, 'N', 'E', 'W', 'S', 32, 32, 32, 32, 0xFF}));
    ASSERT_TRUE(dev.stream(in, d, c, Bytes{'d', 'a', 't', 'a', 0, 0, 0, 0, 0, 0, 0, 0}));
    ASSERT_TRUE(dev.stream(out, d, c, Bytes(bulk, 0x5A)));
    EXPECT_TRUE(!dev.datagram(out, d, c, Bytes(bulk)) && errno == EMSGSIZE) << "nothing too long";
    close(fd);
    EXPECT_EQ(decoded(path), "1 40000 PLAY\n2 40000 ACK\n"
                             "1 0 CUE UP WITH DATA,PLAY 00:10:00:00\n1 3 PLAY CUE NEWS\n"
                             "1 40000 data\n2 40000 65535\n2 40000 10\n");
    std::remove(path);
}

TEST(Recorder, each_crossing_is_a_record_as_the_peer_saw_it) {
    if (system("tshark -v >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tshark is not installed";
    char path[] = "/tmp/vlm-recorder-XXXXXX.pcap";
    const UniqueFd file(mkstemps(path, 5));
    devsim::DevSim sim;
    const sockaddr_in server = loopback_address(sim.listen_udp("127.0.0.1", 0));
    devsim::Recorder recorder(file.get(), sim.open_pty());
    sim.on_traffic([&](const devsim::Traffic& t) { recorder.record(t); });
    devsim::Reply in_two = devsim::Reply::ack(); // one datagram's bytes sent as two
    in_two.pieces = {5};
    sim.script(in_two);
    sim.start();
    UdpEndpoint me;
    me.send_to(server, Bytes{0, 1, 0, 3, 0, 0, 0, 0, 0, 0, 0x20, 0x01, 0x21});
    const UniqueFd line(open(sim.pty_path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    const uint8_t wrong_then_play[] = {0x20, 0x01, 0x00, 0x20, 0x01, 0x21};
    EXPECT_EQ(write(line.get(), wrong_then_play, 6), 6);
    EXPECT_TRUE(sim.wait_replies_sent(2, 2000));
    sim.stop();
    // The datagram, the two its answer became; the wrongly summed PLAY dropped, the PLAY, its ACK.
    const std::string p = std::to_string(ntohs(me.address().sin_port)),
                      n = sim.pty_path().substr(9); // /dev/pts/N
    EXPECT_EQ(decoded(path), "1 " + p + " PLAY\n2 " + p + "\n2 " + p + "\n1 " + n + " PLAY\n1 " +
                                 n + " PLAY\n2 " + n + " ACK\n");
    std::remove(path);
}

} // namespace
