// devsim: a video server for a controller to talk to; prints every message it receives, with its
// name and arguments.
#include "cli.h"
#include "devsim.h"
#include "options.h"
#include "output.h"
#include "paths.h"
#include "recorder.h"

#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

const char kUsage[] =
    "usage: devsim udp ADDRESS PORT [OPTION...]\n"
    "       devsim tcp ADDRESS PORT [OPTION...]\n"
    "       devsim serial [LINK] [OPTION...]\n"
    "Plays a video server: Sony 9-pin (as a deck answers it), Odetics and Louth commands drive\n"
    "one model (transport, a position moving in real time, edit points, a clip store) that every\n"
    "sense answers from; prints each command as hex bytes, its name and its arguments.\n"
    "options:\n"
    "  --pcap FILE    write every link's traffic, the serial line's too, to FILE, a new pcap\n"
    "                 file for the dissector (vlm.lua, among Wireshark's plugins or in the\n"
    "                 build tree as tools/wireshark/vlm.lua)\n";

const char kUsageEnd[] =
    "  -h, --help     print this help and exit\n"
    "ADDRESS is an IPv4 address or a host name; PORT 0 lets the system choose. Options may come\n"
    "before or after the link.\n";

// One line a message received: its bytes in hex (a management datagram's and a TCP message's
// after "mgmt" or its tag; a Sony or Louth frame's alone), two spaces, what it is. A byte from the
// network that is not printable (in a tag, say) is written as \xNN, never sent to a terminal.
void print(const devsim::Received& message) {
    std::string prefix;
    if (message.protocol == devsim::Protocol::management)
        prefix = "mgmt ";
    else if (message.link == devsim::Link::tcp && message.tag != "s9p ")
        prefix = message.tag + " ";
    const devsim::Bytes& shown = message.frame.empty() ? message.wire : message.frame;
    printf("%s\n", cli::printable(prefix + devsim::hex(shown) + "  " + message.text).c_str());
}

int run(int argc, char** argv) {
    std::vector<cli::Option> known = devsim::command_line_options();
    known.push_back({"help", 'h', false});
    known.push_back({"pcap", 0, true}); // the program's own: a recording is not a server's set-up
    const cli::CommandLine line = cli::parse(argc, argv, known);
    std::string pcap; // the recording's file, created once the links are up
    for (const auto& given : line.options) {
        if (given.option->letter == 'h') {
            printf("%s%s%s", kUsage, devsim::kOptionsHelp, kUsageEnd);
            return 0;
        }
        if (given.option->name == std::string_view("pcap"))
            pcap = given.value;
    }
    devsim::DevSim sim;
    const devsim::Links links = devsim::read_command_line(sim, line);
    const cli::StopSignals stop; // before the serving thread starts, which inherits it

    std::vector<std::string> own_links; // pty links made, removed at exit while still ours
    std::string where;
    UniqueFd pcap_file;
    std::optional<devsim::Recorder> recorder;
    try {
        where = devsim::set_up(sim, links, own_links);
        if (!pcap.empty()) {
            pcap_file.reset(cli::create_new_file(pcap));
            try {
                recorder.emplace(pcap_file.get(), sim.pty_path());
            } catch (const std::exception& e) {
                unlink(pcap.c_str()); // made just now, and of no use
                throw std::runtime_error(pcap + ": " + e.what());
            }
        }
    } catch (...) {
        devsim::remove_links(sim, own_links);
        throw;
    }
    sim.on_receive(print);
    if (recorder) // a record lost stops the server, as a line lost does
        sim.on_traffic([&](const devsim::Traffic& traffic) {
            if (!recorder->record(traffic))
                cli::file_lost(pcap, recorder->error());
        });
    sim.start();
    printf("listening on %s\n", where.c_str());

    stop.wait();
    sim.stop();
    devsim::remove_links(sim, own_links);
    if (pcap_file.valid() && close(pcap_file.release()) != 0 && errno != EINTR)
        cli::file_lost(pcap, errno);
    return cli::output_lost() ? 1 : 0;
}

} // namespace

int main(int argc, char** argv) {
    return cli::run("devsim", [&] { return run(argc, argv); });
}
