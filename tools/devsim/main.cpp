// devsim: a video server for a controller to talk to; prints every message it receives, with its
// name and arguments.
#include "cli.h"
#include "devsim.h"
#include "paths.h"
#include "recorder.h"
#include "scenario.h"
#include "values.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
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
    "  --scenario FILE  the directives of FILE, after the options (see devsim(1))\n"
    "  --also udp:PORT | tcp:PORT | serial[:LINK]\n"
    "                 serve this link too, on ADDRESS, from the same model (repeatable)\n"
    "  --mgmt PORT    also serve the management protocol on ADDRESS:PORT (UDP)\n"
    "  --pcap FILE    write every link's traffic, the serial line's too, to FILE, a new pcap\n"
    "                 file for the dissector (tools/wireshark/vlm.lua)\n"
    "  -h, --help     print this help and exit\n"
    "Every directive of a scenario is an option too (repeatable, applied in order):\n"
    "  --standard STD the video standard: 25 (default), 29.97df, 30, 50 or 59.94df\n"
    "  --clip ID      add an empty clip ID to the clip store (\"ID START LENGTH\" places it)\n"
    "  --sense CMD2[.SEL]=HEX  answer the sense with this CMD2 (and selector) with these bytes\n"
    "  --local on|off the front panel's local switch: transport commands are refused\n"
    "  --louth        udp and serial links: speak Louth instead of Sony 9-pin\n"
    "  --nak BITS     answer every command with a NAK carrying these error bits\n"
    "  --refuse BYTE  Louth: refuse every command (05 BYTE)\n"
    "  --silent       never answer\n"
    "  --delay MS     answer MS milliseconds late\n"
    "  --corrupt      answer with a wrong checksum\n"
    "  --at 'N FAULT' the N-th command gets FAULT: nak BITS, refuse BYTE, silent, delay MS,\n"
    "                 corrupt, restart MS (every link drops for MS ms) or close (TCP)\n"
    "  --version A:B  the version words a \"ver \" request gets\n"
    "  --diskinfo FILE, --gop FILE, --log FILE\n"
    "                 the disk information, the GOP, the log the server holds\n"
    "  --entry N:FILE, --picture CODE:FILE\n"
    "                 file entry N, picture CODE\n"
    "  --refuse-uploads  refuse GOP and disk-information uploads\n"
    "  --stall BYTES:MS  the first raw transfer pauses MS ms after BYTES bytes\n"
    "ADDRESS is an IPv4 address or a host name; PORT 0 lets the system choose. Options may come\n"
    "before or after the link.\n";

// Where the server listens: the link named first, the other links, the management endpoint.
struct Links {
    std::string link;
    std::string address = "127.0.0.1";
    uint16_t port = 0;
    std::string pty_link; // serial: a symbolic link to the pty, for controllers given a path
    std::vector<std::pair<std::string, std::string>> also; // more links: kind, port or pty link
    int mgmt_port = -1;
    std::string scenario;
    std::string pcap; // the recording's file, created once the links are up
};

// The options: the links' own, then every directive.
std::vector<cli::Option> options() {
    std::vector<cli::Option> all = {{"scenario", 0, true},
                                    {"also", 0, true},
                                    {"mgmt", 0, true},
                                    {"pcap", 0, true},
                                    {"help", 'h', false}};
    for (const devsim::Directive& d : devsim::directives())
        all.push_back({d.name, 0, d.has_value});
    return all;
}

// "udp:PORT", "tcp:PORT", "serial" or "serial:LINK" into the kind and the rest.
std::pair<std::string, std::string> also_link(const std::string& text) {
    const size_t colon = text.find(':');
    const std::string kind = text.substr(0, colon),
                      rest = colon == std::string::npos ? "" : text.substr(colon + 1);
    if (kind == "udp" || kind == "tcp")
        return {kind, std::to_string(cli::port(rest, true, "--also"))};
    if (kind == "serial")
        return {kind, rest};
    throw cli::Refused("--also: " + cli::quote(text) +
                       " is not udp:PORT, tcp:PORT or serial[:LINK]");
}

// The command line, its directives applied to `sim`; nullopt after --help.
std::optional<Links> parse(int argc, char** argv, devsim::DevSim& sim) {
    const std::vector<cli::Option> known = options();
    const cli::CommandLine line = cli::parse(argc, argv, known);
    Links o;
    bool louth = false;
    for (const auto& [option, value] : line.options) {
        const std::string name = option->name;
        if (name == "help")
            return std::nullopt;
        if (name == "scenario")
            o.scenario = value;
        else if (name == "also")
            o.also.push_back(also_link(value));
        else if (name == "mgmt")
            o.mgmt_port = cli::port(value, true, "--mgmt");
        else if (name == "pcap")
            o.pcap = value;
        else
            devsim::apply_option(sim, name, value);
        louth = louth || name == "louth";
    }
    const std::vector<const char*>& w = line.words;
    o.link = w.empty() ? "" : w[0];
    if ((o.link == "udp" || o.link == "tcp") && w.size() == 3) {
        o.address = cli::dotted(cli::ipv4_host(w[1], "ADDRESS"));
        o.port = cli::port(w[2], true, "PORT");
    } else if (o.link == "serial" && w.size() <= 2) {
        o.pty_link = w.size() == 2 ? w[1] : "";
    } else {
        throw cli::Refused(o.link == "udp" || o.link == "tcp"
                               ? "usage: devsim " + o.link + " ADDRESS PORT [OPTION...]"
                           : o.link == "serial"
                               ? std::string("usage: devsim serial [LINK] [OPTION...]")
                           : w.empty() ? std::string("no link (udp, tcp or serial)")
                                       : "unknown link " + cli::quote(o.link));
    }
    const bool louth_link =
        o.link != "tcp" ||
        std::any_of(o.also.begin(), o.also.end(), [](auto& l) { return l.first != "tcp"; });
    if (louth && !louth_link)
        throw cli::Refused("--louth needs a udp or serial link");
    return o;
}

// One line a message received: its bytes in hex (a management datagram's and a TCP message's
// after "mgmt" or its tag; a Sony or Louth frame's alone), two spaces, what it is.
void print(const devsim::Received& message) {
    std::string prefix;
    if (message.protocol == devsim::Protocol::management)
        prefix = "mgmt ";
    else if (message.link == devsim::Link::tcp && message.tag != "s9p ")
        prefix = message.tag + " ";
    const devsim::Bytes& shown = message.frame.empty() ? message.wire : message.frame;
    printf("%s%s  %s\n", prefix.c_str(), devsim::hex(shown).c_str(), message.text.c_str());
}

// Sets up one link (`port` for udp, tcp and mgmt, the pty's symbolic link or "" for serial) and
// says where it listens; the caller prints that line once every link is up, and waits for it.
std::string open_link(devsim::DevSim& sim, const std::string& kind, const std::string& address,
                      uint16_t port, const std::string& pty_link) {
    const std::string where = kind + " " + address + ":" + std::to_string(port);
    try {
        if (kind == "udp")
            return "udp " + address + ":" + std::to_string(sim.listen_udp(address.c_str(), port));
        if (kind == "tcp")
            return "tcp " + address + ":" + std::to_string(sim.listen_tcp(address.c_str(), port));
        if (kind == "mgmt")
            return "mgmt " + address + ":" + std::to_string(sim.listen_mgmt(address.c_str(), port));
    } catch (const std::exception& e) {
        throw std::runtime_error(where + ": " + e.what());
    }
    if (pty_link.empty())
        return "serial " + sim.open_pty();
    cli::claim_pty_link(pty_link);
    const std::string path = sim.open_pty();
    if (symlink(path.c_str(), pty_link.c_str()) != 0)
        throw std::runtime_error(pty_link + ": " + strerror(errno));
    return "serial " + pty_link + " -> " + path;
}

int run(int argc, char** argv) {
    devsim::DevSim sim;
    const std::optional<Links> parsed = parse(argc, argv, sim);
    if (!parsed) {
        fputs(kUsage, stdout);
        return 0;
    }
    const Links& links = *parsed;
    if (!links.scenario.empty()) {
        const devsim::Bytes scenario = cli::read_file(links.scenario);
        std::istringstream in(std::string(scenario.begin(), scenario.end()));
        std::string error;
        if (!devsim::load_scenario(sim, in, error))
            return cli::failure(links.scenario + ": " + error);
    }

    // The serving thread inherits this mask, so the signals reach sigwait below.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    std::vector<std::string> own_links; // pty links made, removed at exit while still ours
    auto remove_links = [&] {
        for (const std::string& link : own_links)
            cli::remove_own_link(link, sim.pty_path());
    };
    std::string where;
    devsim::UniqueFd pcap_file;
    std::optional<devsim::Recorder> recorder;
    try {
        auto open = [&](const std::string& kind, uint16_t port, const std::string& link) {
            where += (where.empty() ? "" : ", ") + open_link(sim, kind, links.address, port, link);
            if (!link.empty())
                own_links.push_back(link);
        };
        open(links.link, links.port, links.pty_link);
        for (const auto& [kind, rest] : links.also)
            open(kind, kind == "serial" ? 0 : static_cast<uint16_t>(std::stoi(rest)),
                 kind == "serial" ? rest : "");
        if (links.mgmt_port >= 0)
            open("mgmt", static_cast<uint16_t>(links.mgmt_port), "");
        if (!links.pcap.empty()) {
            pcap_file.reset(cli::create_new_file(links.pcap));
            try {
                recorder.emplace(pcap_file.get(), sim.pty_path());
            } catch (const std::exception& e) {
                unlink(links.pcap.c_str()); // made just now, and of no use
                throw std::runtime_error(links.pcap + ": " + e.what());
            }
        }
    } catch (...) {
        remove_links();
        throw;
    }
    sim.on_receive(print);
    if (recorder)
        sim.on_traffic([&](const devsim::Traffic& traffic) {
            const bool was_recording = recorder->error() == 0;
            if (!recorder->record(traffic) && was_recording)
                cli::failure(links.pcap + ": " + strerror(recorder->error()) +
                             "; nothing more is recorded");
        });
    sim.start();
    printf("listening on %s\n", where.c_str());

    int signal = 0;
    sigwait(&stop_signals, &signal);
    sim.stop();
    remove_links();
    return recorder && recorder->error() != 0 ? 1 : 0;
}

} // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return cli::run("devsim", [&] { return run(argc, argv); });
}
