// The JSON that zqctl --json and the rack's API write for text from a device or the network:
// Python's decoder reads each back to the characters it came from.
#include "loopback.h"
#include "program.h"

#include <devsim/devsim.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#ifdef VLM_RACK
#include <rack.h>
#endif

namespace {

// `json` as /usr/bin/python3 -m json.tool reads it, written again on one line with every
// character as it is (only what JSON must escape escaped), or why it could not be read.
std::string python_reads(const std::string& json) {
    char path[] = "/tmp/vlm-json-XXXXXX";
    const int fd = mkstemp(path);
    const bool written = fd >= 0 && write(fd, json.data(), json.size()) == ssize_t(json.size());
    close(fd);
    const Outcome run = run_program("/usr/bin/python3 -m json.tool --compact --no-ensure-ascii " +
                                    std::string(path));
    unlink(path);
    return written && run.status == 0 ? run.out : "not read: " + run.err;
}

// A quote, a backslash, control characters, UTF-8 of two and four bytes, a byte that is no UTF-8.
const std::string kText = "say \"hi\" \\ \t\n\x01 \xC3\xA9 \xF0\x9F\x98\x80 \xFF";
const std::string kTextRead = R"("say \"hi\" \\ \t\n\u0001 é 😀 �")";
// Eight bytes, as a clip ID is: a quote, a tab, UTF-8 of two and four bytes.
const std::string kId = "\"\xC3\xA9\t\xF0\x9F\x98\x80", kIdRead = R"("\"é\t😀")";

TEST(JsonOutput, text_with_quotes_control_characters_and_utf8_is_read_back_as_it_was) {
    devsim::DevSim sim;
    const std::string mgmt = std::to_string(sim.listen_mgmt("127.0.0.1", 0)),
                      udp = std::to_string(sim.listen_udp("127.0.0.1", 0));
    sim.mgmt().set_log({kText.begin(), kText.end()});
    sim.sony().add_clip(kId);
    sim.sony().add_clip(std::string("a\xFF") + "b");
    sim.start();
    auto zqctl = [](const std::string& port, const std::string& command) {
        return
            [=] { return run_program(ZQCTL_PATH " -j -u 127.0.0.1:" + port + " " + command).out; };
    };
#ifdef VLM_RACK
    char dir[] = "/tmp/vlm-json-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    sdiboard::Options board;
    board.path = dir + std::string("/board.sock");
    cli::CommandLine line;
    line.words = {"udp", "127.0.0.1", "0"};
    rack::Rack rack(board, line, 0);
    rack.server().model().add_clip(kId, 0, 25);
    // An Odetics ID status request whose ID the log names: a"b\c.
    const std::vector<uint8_t> frame = {0xA8, 0x18, 'a', '"', 'b', '\\', 'c', ' ', ' ', ' '};
    std::vector<uint8_t> datagram = {0, 1, 0, 11, 0, 0, 0, 0, 0, 0};
    datagram.insert(datagram.end(), frame.begin(), frame.end());
    datagram.push_back(devsim::byte_sum(frame));
    UdpEndpoint().send_to(loopback_address(rack.server().udp_port()), datagram);
    ASSERT_TRUE(rack.server().wait_replies_sent(1, 5000));
#endif
    const struct {
        const char* what;
        std::function<std::string()> output;
        std::string read; // what Python's reading holds
    } rows[] = {
        {"zqctl log", zqctl(mgmt, "log"), "{\"log\":" + kTextRead + "}\n"},
        {"zqctl clip list", zqctl(udp, "clip list"), "{\"clips\":[" + kIdRead + ",\"a�b\"]}\n"},
#ifdef VLM_RACK
        {"rack state", [&] { return rack.state_json(); }, "{\"id\":" + kIdRead + ","},
        {"rack log", [&] { return rack.log_json(0); }, R"("ID STATUS REQUEST a\"b\\c")"},
#endif
    };
    for (const auto& row : rows) {
        const std::string read = python_reads(row.output());
        EXPECT_NE(read.find(row.read), std::string::npos) << row.what << ": " << read;
    }
#ifdef VLM_RACK
    unlink(board.path.c_str()); // the board takes its socket away only while it is still there
    rmdir(dir);
#endif
}

} // namespace
