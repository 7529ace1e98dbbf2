// devsim's command line: the links and the directives read strictly, then the server set up.
#include "options.h"

#include "paths.h"
#include "scenario.h"
#include "values.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace devsim {

const char kOptionsHelp[] =
    "  --scenario FILE  the directives of FILE, after the options (see devsim(1))\n"
    "  --also udp:PORT | tcp:PORT | serial[:LINK]\n"
    "                 serve this link too, on ADDRESS, from the same model (repeatable)\n"
    "  --mgmt PORT    also serve the management protocol on ADDRESS:PORT (UDP)\n"
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
    "  --stall BYTES:MS  the first raw transfer pauses MS ms after BYTES bytes\n";

namespace {

bool is_directive(const std::string& name) {
    const auto all = directives();
    return std::any_of(all.begin(), all.end(), [&](const Directive& d) { return name == d.name; });
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

// Sets up one link (`port` for udp, tcp and mgmt, the pty's symbolic link or "" for serial) and
// says where it listens; the caller prints that line once every link is up, and waits for it.
std::string open_link(DevSim& sim, const std::string& kind, const std::string& address,
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

} // namespace

std::vector<cli::Option> command_line_options() {
    std::vector<cli::Option> all = {
        {"scenario", 0, true}, {"also", 0, true, true}, {"mgmt", 0, true}};
    for (const Directive& d : directives())
        all.push_back({d.name, 0, d.has_value, true});
    return all;
}

namespace {

// Refuses an answer that no link of `o` could give: a Louth refusal where no link hears Louth (a
// UDP link always does: its datagrams of type 5 are Louth), a NAK where none hears Sony 9-pin.
void check_answers(const Links& o, bool louth, bool refuse, bool nak) {
    auto serves = [&](const char* kind) {
        return o.link == kind ||
               std::any_of(o.also.begin(), o.also.end(), [&](auto& l) { return l.first == kind; });
    };
    if (refuse && !serves("udp") && !(louth && serves("serial")))
        throw cli::Refused("--refuse: no link here speaks Louth (udp, or serial with --louth)");
    if (nak && !serves("udp") && !serves("tcp") && !(serves("serial") && !louth))
        throw cli::Refused("--nak: no link here speaks Sony 9-pin");
}

} // namespace

Links read_command_line(DevSim& sim, const cli::CommandLine& line) {
    Links o;
    bool louth = false, refuse = false, nak = false;
    for (const auto& [option, value] : line.options) {
        const std::string name = option->name;
        if (name == "scenario")
            o.scenario = value;
        else if (name == "also")
            o.also.push_back(also_link(value));
        else if (name == "mgmt")
            o.mgmt_port = cli::port(value, true, "--mgmt");
        else if (is_directive(name))
            apply_option(sim, name, value);
        louth = louth || name == "louth";
        refuse = refuse || name == "refuse";
        nak = nak || name == "nak";
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
                               ? std::string("usage: ") + cli::program() + " " + o.link +
                                     " ADDRESS PORT [OPTION...]"
                           : o.link == "serial" ? std::string("usage: ") + cli::program() +
                                                      " serial [LINK] [OPTION...]"
                           : w.empty() ? std::string("no link (udp, tcp or serial)")
                                       : "unknown link " + cli::quote(o.link));
    }
    const bool louth_link =
        o.link != "tcp" ||
        std::any_of(o.also.begin(), o.also.end(), [](auto& l) { return l.first != "tcp"; });
    if (louth && !louth_link)
        throw cli::Refused("--louth needs a udp or serial link");
    check_answers(o, louth, refuse, nak);
    return o;
}

std::string set_up(DevSim& sim, const Links& links, std::vector<std::string>& own_links) {
    if (!links.scenario.empty()) {
        const Bytes scenario = cli::read_file(links.scenario);
        std::istringstream in(std::string(scenario.begin(), scenario.end()));
        std::string error;
        if (!load_scenario(sim, in, error))
            throw std::runtime_error(links.scenario + ": " + error);
    }
    std::string where;
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
    return where;
}

void remove_links(const DevSim& sim, const std::vector<std::string>& own_links) {
    for (const std::string& link : own_links)
        cli::remove_own_link(link, sim.pty_path());
}

} // namespace devsim
