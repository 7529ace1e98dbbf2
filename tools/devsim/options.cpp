// devsim's command line: the links and options read strictly, then the server set up from them.
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
    "  --sense CMD2[.SEL]=HEX  answer the sense with this CMD2 (and selector) with these data "
    "bytes\n"
    "  --clip ID      add an empty clip ID to the clip store (repeatable; listed in this order)\n"
    "  --standard STD the video standard: 25 (default), 29.97df, 30, 50 or 59.94df\n"
    "  --scenario FILE  standard, clips, sense values and faults from FILE (see devsim(1))\n"
    "  --also udp:PORT | tcp:PORT | serial[:LINK]\n"
    "                 serve this link too, on ADDRESS, from the same model (repeatable)\n"
    "  --louth        udp and serial links: speak Louth instead of Sony 9-pin\n"
    "  --refuse BYTE  Louth: refuse every command (05 BYTE)\n"
    "  --nak BITS     answer every command with a NAK carrying these error bits\n"
    "  --silent       never answer\n"
    "  --delay MS     answer MS milliseconds late\n"
    "  --corrupt      answer with a wrong checksum\n"
    "  --mgmt PORT    also serve the management protocol on ADDRESS:PORT (UDP)\n"
    "  --version A:B  the version words a \"ver \" request gets\n"
    "  --diskinfo FILE, --gop FILE, --log FILE\n"
    "                 the disk information, the GOP, the log the server holds\n"
    "  --entry N:FILE, --picture CODE:FILE\n"
    "                 file entry N, picture CODE\n"
    "  --refuse-uploads  refuse GOP and disk-information uploads\n"
    "  --stall BYTES:MS  the first raw transfer pauses MS ms after BYTES bytes\n";

namespace {

constexpr int64_t kMaxMs = 3600 * 1000;

bool valid_sense(const char* text) {
    devsim::Model model;
    devsim::SonyAnswers scratch(model);
    return devsim::set_sense_from_text(scratch, text);
}

// "A:B" into its two parts.
std::pair<std::string, std::string> pair_argument(const std::string& option, const char* text) {
    const std::string v = text;
    const size_t colon = v.find(':');
    if (colon == std::string::npos)
        throw cli::Refused(option + ": " + cli::quote(v) + " is not of the form A:B");
    return {v.substr(0, colon), v.substr(colon + 1)};
}

// The contents and faults of the transfers and the management endpoint; false for another option.
bool content_option(Options& o, const std::string& option, const char* value) {
    using devsim::DevSim;
    auto add = [&](std::function<void(DevSim&)> apply) { o.contents.push_back(std::move(apply)); };
    auto word = [&](const std::string& text, int64_t high) {
        return cli::integer(text, 0, high, option.c_str(), true);
    };
    if (option == "--refuse-uploads") {
        add([](DevSim& sim) {
            sim.transfers().accept_uploads(false);
            sim.mgmt().accept_uploads(false);
        });
    } else if (option == "--mgmt") {
        o.mgmt_port = cli::port(value, true, "--mgmt");
    } else if (option == "--version") {
        auto [first, second] = pair_argument(option, value);
        const auto words = std::make_pair(static_cast<uint32_t>(word(first, UINT32_MAX)),
                                          static_cast<uint32_t>(word(second, UINT32_MAX)));
        add([=](DevSim& sim) { sim.transfers().set_version(words.first, words.second); });
    } else if (option == "--diskinfo") {
        add([bytes = cli::read_file(value)](DevSim& sim) {
            sim.transfers().set_diskinfo(bytes);
            sim.mgmt().set_diskinfo(bytes);
        });
    } else if (option == "--gop") {
        add([bytes = cli::read_file(value)](DevSim& sim) { sim.transfers().set_gop(bytes); });
    } else if (option == "--log") {
        add([bytes = cli::read_file(value)](DevSim& sim) { sim.mgmt().set_log(bytes); });
    } else if (option == "--entry") {
        auto [entry_number, path] = pair_argument(option, value);
        add([entry = static_cast<uint32_t>(word(entry_number, UINT32_MAX)),
             bytes = cli::read_file(path)](DevSim& sim) {
            sim.transfers().set_file_entry(entry, bytes);
        });
    } else if (option == "--picture") {
        auto [picture_code, path] = pair_argument(option, value);
        add([code = static_cast<uint16_t>(word(picture_code, 0xFFFF)),
             bytes = cli::read_file(path)](DevSim& sim) { sim.mgmt().set_picture(code, bytes); });
    } else if (option == "--stall") {
        auto [count, ms] = pair_argument(option, value);
        const auto after = static_cast<size_t>(word(count, UINT32_MAX));
        const int pause = static_cast<int>(word(ms, kMaxMs));
        add([=](DevSim& sim) { sim.transfers().stall_next(after, pause); });
    } else {
        return false;
    }
    return true;
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

} // namespace

std::optional<Options> read_options(const cli::CommandLine& line) {
    Options o;
    for (const auto& [option, value] : line.options) {
        const std::string name = std::string("--") + option->name;
        if (name == "--help")
            return std::nullopt;
        if (name == "--nak")
            o.reply = devsim::Reply::nak(
                static_cast<uint8_t>(cli::integer(value, 0, 255, "--nak", true)));
        else if (name == "--delay")
            o.reply.delay_ms = static_cast<int>(cli::integer(value, 0, kMaxMs, "--delay", true));
        else if (name == "--sense" && valid_sense(value))
            o.senses.push_back(value);
        else if (name == "--sense")
            throw cli::Refused("--sense: " + cli::quote(value) +
                               " is not CMD2[.SEL]=HEX (at most 15 bytes)");
        else if (name == "--clip")
            o.clips.push_back(cli::clip_id(value, "--clip"));
        else if (name == "--standard" && devsim::standard_from_text(value))
            o.standard = *devsim::standard_from_text(value);
        else if (name == "--standard")
            throw cli::Refused("--standard: no standard named " + cli::quote(value) + " (" +
                               cli::kStandards + ")");
        else if (name == "--scenario")
            o.scenario = value;
        else if (name == "--also")
            o.also.push_back(also_link(value));
        else if (name == "--louth")
            o.louth = true;
        else if (name == "--refuse")
            o.reply.louth = {0x05,
                             static_cast<uint8_t>(cli::integer(value, 0, 255, "--refuse", true))};
        else if (name == "--silent")
            o.reply.silent = true;
        else if (name == "--corrupt")
            o.reply.corrupt_checksum = true;
        else
            content_option(o, name, value);
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
    if (o.louth && !louth_link)
        throw cli::Refused("--louth needs a udp or serial link");
    return o;
}

std::string set_up(DevSim& sim, const Options& options, std::vector<std::string>& own_links) {
    const Bytes scenario = options.scenario.empty() ? Bytes{} : cli::read_file(options.scenario);
    std::string where;
    auto open = [&](const std::string& kind, uint16_t port, const std::string& link) {
        where += (where.empty() ? "" : ", ") + open_link(sim, kind, options.address, port, link);
        if (!link.empty())
            own_links.push_back(link);
    };
    open(options.link, options.port, options.pty_link);
    for (const auto& [kind, rest] : options.also)
        open(kind, kind == "serial" ? 0 : static_cast<uint16_t>(std::stoi(rest)),
             kind == "serial" ? rest : "");
    if (options.mgmt_port >= 0)
        open("mgmt", static_cast<uint16_t>(options.mgmt_port), "");
    if (options.louth) // every link that carries Louth
        for (Link link : {Link::udp, Link::serial})
            sim.set_protocol(link, Protocol::louth);
    sim.set_default(options.reply);
    sim.model().set_standard(options.standard);
    for (const std::string& sense : options.senses)
        set_sense_from_text(sim.sony(), sense);
    for (const std::string& clip : options.clips)
        sim.model().append_clip(clip, 0);
    for (const auto& apply : options.contents)
        apply(sim);
    std::istringstream in(std::string(scenario.begin(), scenario.end()));
    std::string error;
    if (!load_scenario(sim, in, error))
        throw std::runtime_error(options.scenario + ": " + error);
    return where;
}

void remove_links(const DevSim& sim, const std::vector<std::string>& own_links) {
    for (const std::string& link : own_links)
        cli::remove_own_link(link, sim.pty_path());
}

} // namespace devsim
