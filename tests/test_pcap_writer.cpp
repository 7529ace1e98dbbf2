// The pcap writer, read back by tshark with the project's dissector: each record decodes to the
// link, direction, ends and bytes it was written with, whichever side wrote it.
#include "pcap_writer.h"
#include "toolkit.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using pcap::Direction;

// tshark's chosen fields of each record, one line per record, empty fields left out.
std::vector<std::string> decoded(const std::string& path) {
    const std::string command =
        "tshark -X lua_script:" VLM_DISSECTOR " -r " + path +
        " -T fields -e vlm.link.direction -e vlm.link.controller_port -e vlm.link.line"
        " -e vlm.s9p.name -e vlm.s9p.tc -e vlm.s9p.nak -e vlm.louth.name -e vlm.louth.id"
        " -e vlm.cnxn.tag -e vlm.cnxn.size -e vlm.cnxn.bulk_len 2>/dev/null"
        " | sed 's/\\t\\+/ /g; s/^ //; s/ $//'";
    std::vector<std::string> lines;
    char line[512];
    if (FILE* out = popen(command.c_str(), "r")) {
        while (fgets(line, sizeof line, out))
            lines.emplace_back(line, strcspn(line, "\n"));
        pclose(out);
    }
    return lines;
}

TEST(PcapWriter, tshark_decodes_each_record_as_written) {
    if (system("tshark -v >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tshark is not installed";
    char dir[] = "/tmp/vlm-pcap-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/links.pcap";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    pcap::Writer server(fd, pcap::Role::device), controller(fd, pcap::Role::controller);
    const sockaddr_in device = loopback_address(32896), client = loopback_address(40000);
    const size_t bulk = pcap::kMaxRecord + 10; // one write, two records
    const Bytes gfif_answer = {'g', 'f', 'i', 'f', 0, 1, 0, 9, 0, 0, 0, 0};
    const struct {
        std::function<bool()> write;
        std::vector<const char*> decoded;
    } rows[] = {
        {[&] { return server.datagram(Direction::received, device, client,
                                      Bytes{0, 1, 0, 3, 0, 0, 0, 0, 0, 0, 0x20, 0x01, 0x21}); },
         {"1 40000 PLAY"}},
        {[&] { return controller.datagram(Direction::received, client, device,
                                          Bytes{0, 1, 0, 3, 0, 0, 0, 0, 0, 0, 0x10, 0x01, 0x11}); },
         {"2 40000 ACK"}},
        {[&] { return server.serial(Direction::received, pcap::Serial::sony, 0,
                                    Bytes{0x24, 0x31, 0x00, 0x00, 0x10, 0x00, 0x65, 0x20, 0x01, 0x21}); },
         {"1 0 CUE UP WITH DATA,PLAY 00:10:00:00"}},
        {[&] { return server.serial(Direction::sent, pcap::Serial::sony, 0, Bytes{0x11, 0x12, 0x04, 0x27}); },
         {"2 0 NAK 0x04"}},
        {[&] { return server.serial(Direction::received, pcap::Serial::louth, 3,
                                    Bytes{2, 10, 0x20, 0x24, 'N', 'E', 'W', 'S', ' ', ' ', ' ', ' ', 0xFF}); },
         {"1 3 PLAY CUE NEWS"}},
        {[&] { return server.stream(Direction::received, device, client, Bytes{'g', 'f', 'i', 'f', 0, 0, 1, 0, 0, 0, 0, 0}); },
         {"1 40000 gfif"}},
        {[&] { return server.stream(Direction::sent, device, client, gfif_answer); }, {"2 40000 gfif 65545"}},
        {[&] { return server.stream(Direction::received, device, client, Bytes{'d', 'a', 't', 'a', 0, 0, 0, 0, 0, 0, 0, 0}); },
         {"1 40000 data"}},
        {[&] { return server.stream(Direction::sent, device, client, Bytes(bulk, 0x5A)); },
         {"2 40000 65535", "2 40000 10"}},
    };
    std::vector<std::string> expected;
    ASSERT_TRUE(server.begin());
    for (const auto& row : rows) {
        ASSERT_TRUE(row.write());
        expected.insert(expected.end(), row.decoded.begin(), row.decoded.end());
    }
    EXPECT_FALSE(server.datagram(Direction::sent, device, client, Bytes(bulk)));
    EXPECT_EQ(errno, EMSGSIZE);
    close(fd);
    EXPECT_EQ(decoded(path), expected);
    std::remove(path.c_str());
    rmdir(dir);
}

} // namespace
