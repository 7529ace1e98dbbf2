// devsim: a video server for a controller to talk to; prints every message it receives.
#include "devsim.h"
#include "scenario.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

const char kUsage[] =
    "usage: devsim udp ADDRESS PORT [OPTION...]\n"
    "       devsim tcp ADDRESS PORT [OPTION...]\n"
    "       devsim serial [LINK] [OPTION...]\n"
    "Plays a video server: Sony 9-pin, Odetics and Louth commands drive one model (transport, a\n"
    "position moving in real time, a clip store) that every sense answers from; prints each\n"
    "command as hex bytes.\n"
    "options:\n"
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

struct Options {
    std::string link;
    std::string address = "127.0.0.1";
    uint16_t port = 0;
    std::string pty_link; // serial: a symbolic link to the pty, for controllers given a path
    std::vector<std::pair<std::string, std::string>> also; // more links: kind, port or pty link
    devsim::Reply reply;
    std::vector<std::string> senses, clips;
    devsim::Standard standard = devsim::Standard::pal25;
    std::string scenario;
    bool louth = false;
    int mgmt_port = -1;
    std::vector<std::function<void(devsim::DevSim&)>> contents; // applied before the start
};

[[noreturn]] void usage() {
    usage_exit(kUsage);
}

long number(const char* text) {
    return number_argument(text, kUsage);
}

bool valid_sense(const char* text) {
    devsim::Model model;
    devsim::SonyAnswers scratch(model);
    return devsim::set_sense_from_text(scratch, text);
}

devsim::Bytes file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        perror(path.c_str());
        exit(1);
    }
    return devsim::Bytes(std::istreambuf_iterator<char>(in), {});
}

// "A:B" into its two numbers; "N:FILE" into the number and the path.
std::pair<long, std::string> pair_argument(const std::string& text) {
    size_t colon = text.find(':');
    if (colon == std::string::npos)
        usage();
    return {number(text.substr(0, colon).c_str()), text.substr(colon + 1)};
}

// The contents and faults of the transfers and the management endpoint.
bool content_option(Options& o, const std::string& option, const char* value) {
    using devsim::DevSim;
    auto add = [&](std::function<void(DevSim&)> apply) { o.contents.push_back(std::move(apply)); };
    if (option == "--refuse-uploads") {
        add([](DevSim& sim) {
            sim.transfers().accept_uploads(false);
            sim.mgmt().accept_uploads(false);
        });
        return true;
    }
    if (!value)
        return false;
    const std::string v = value;
    if (option == "--mgmt") {
        o.mgmt_port = static_cast<int>(number(value));
        if (o.mgmt_port < 0 || o.mgmt_port > 65535)
            usage();
    } else if (option == "--version") {
        auto [first, second] = pair_argument(v);
        uint32_t words[2] = {static_cast<uint32_t>(first),
                             static_cast<uint32_t>(number(second.c_str()))};
        add([=](DevSim& sim) { sim.transfers().set_version(words[0], words[1]); });
    } else if (option == "--diskinfo") {
        add([bytes = file(v)](DevSim& sim) {
            sim.transfers().set_diskinfo(bytes);
            sim.mgmt().set_diskinfo(bytes);
        });
    } else if (option == "--gop") {
        add([bytes = file(v)](DevSim& sim) { sim.transfers().set_gop(bytes); });
    } else if (option == "--log") {
        add([bytes = file(v)](DevSim& sim) { sim.mgmt().set_log(bytes); });
    } else if (option == "--entry") {
        auto [entry_number, path] = pair_argument(v);
        add([entry = static_cast<uint32_t>(entry_number), bytes = file(path)](DevSim& sim) {
            sim.transfers().set_file_entry(entry, bytes);
        });
    } else if (option == "--picture") {
        auto [picture_code, path] = pair_argument(v);
        add([code = static_cast<uint16_t>(picture_code), bytes = file(path)](DevSim& sim) {
            sim.mgmt().set_picture(code, bytes);
        });
    } else if (option == "--stall") {
        auto [count, ms] = pair_argument(v);
        const auto after = static_cast<size_t>(count);
        const int pause = static_cast<int>(number(ms.c_str()));
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
    if (kind == "serial" || ((kind == "udp" || kind == "tcp") && number(rest.c_str()) >= 0 &&
                             number(rest.c_str()) <= 65535))
        return {kind, rest};
    usage();
}

Options parse(int argc, char** argv) {
    Options o;
    int i = 1;
    if (i >= argc)
        usage();
    o.link = argv[i++];
    if (o.link == "udp" || o.link == "tcp") {
        if (i + 2 > argc)
            usage();
        o.address = argv[i++];
        long port = number(argv[i++]);
        if (port < 0 || port > 65535)
            usage();
        o.port = static_cast<uint16_t>(port);
    } else if (o.link == "serial") {
        if (i < argc && strncmp(argv[i], "--", 2) != 0)
            o.pty_link = argv[i++];
    } else {
        usage();
    }
    for (; i < argc; ++i) {
        std::string option = argv[i];
        bool has_value = i + 1 < argc;
        if (option == "--nak" && has_value)
            o.reply = devsim::Reply::nak(static_cast<uint8_t>(number(argv[++i])));
        else if (option == "--delay" && has_value)
            o.reply.delay_ms = static_cast<int>(number(argv[++i]));
        else if (option == "--sense" && has_value && valid_sense(argv[i + 1]))
            o.senses.push_back(argv[++i]);
        else if (option == "--clip" && has_value)
            o.clips.push_back(argv[++i]);
        else if (option == "--standard" && has_value && devsim::standard_from_text(argv[i + 1]))
            o.standard = *devsim::standard_from_text(argv[++i]);
        else if (option == "--scenario" && has_value)
            o.scenario = argv[++i];
        else if (option == "--also" && has_value)
            o.also.push_back(also_link(argv[++i]));
        else if (option == "--louth")
            o.louth = true;
        else if (option == "--refuse" && has_value)
            o.reply.louth = {0x05, static_cast<uint8_t>(number(argv[++i]))};
        else if (option == "--silent")
            o.reply.silent = true;
        else if (option == "--corrupt")
            o.reply.corrupt_checksum = true;
        else if (content_option(o, option, has_value ? argv[i + 1] : nullptr))
            i += option == "--refuse-uploads" ? 0 : 1;
        else
            usage();
    }
    const bool louth_link =
        o.link != "tcp" ||
        std::any_of(o.also.begin(), o.also.end(), [](auto& l) { return l.first != "tcp"; });
    if (o.louth && !louth_link)
        usage();
    return o;
}

void print(const devsim::Received& message, uint16_t mgmt_port) {
    if (message.link == devsim::Link::udp && mgmt_port != 0 && message.local_port == mgmt_port) {
        printf("mgmt %s\n", devsim::hex(message.wire).c_str());
    } else if (message.link == devsim::Link::tcp && message.tag != "s9p ") {
        printf("%s %s\n", message.tag.c_str(), devsim::hex(message.wire).c_str());
    } else {
        printf("%s\n", devsim::hex(message.frame).c_str());
    }
}

// Sets up one link (`port` for udp and tcp, the pty's symbolic link or "" for serial) and says
// where it listens; the caller prints that line once every link is up, and waits for it.
std::string open_link(devsim::DevSim& sim, const std::string& kind, const std::string& address,
                      uint16_t port, const std::string& pty_link) {
    if (kind == "udp")
        return "udp " + address + ":" + std::to_string(sim.listen_udp(address.c_str(), port));
    if (kind == "tcp")
        return "tcp " + address + ":" + std::to_string(sim.listen_tcp(address.c_str(), port));
    std::string path = sim.open_pty();
    if (!pty_link.empty()) {
        unlink(pty_link.c_str());
        if (symlink(path.c_str(), pty_link.c_str()) != 0) {
            perror(pty_link.c_str());
            exit(1);
        }
        return "serial " + pty_link + " -> " + path;
    }
    return "serial " + path;
}

} // namespace

int main(int argc, char** argv) {
    Options options = parse(argc, argv);
    setvbuf(stdout, nullptr, _IOLBF, 0);

    // The serving thread inherits this mask, so the signals reach sigwait below.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    devsim::DevSim sim;
    std::string where;
    try {
        where = open_link(sim, options.link, options.address, options.port, options.pty_link);
        for (const auto& [kind, rest] : options.also)
            where +=
                ", " + open_link(sim, kind, options.address,
                                 kind == "serial" ? 0 : static_cast<uint16_t>(number(rest.c_str())),
                                 kind == "serial" ? rest : "");
        if (options.mgmt_port >= 0)
            where += ", mgmt " + options.address + ":" +
                     std::to_string(sim.listen_mgmt(options.address.c_str(),
                                                    static_cast<uint16_t>(options.mgmt_port)));
    } catch (const std::exception& e) {
        fprintf(stderr, "devsim: %s\n", e.what());
        return 1;
    }
    if (options.louth) // every link that carries Louth
        for (devsim::Link link : {devsim::Link::udp, devsim::Link::serial})
            sim.set_protocol(link, devsim::Protocol::louth);
    sim.set_default(options.reply);
    sim.model().set_standard(options.standard);
    for (const std::string& sense : options.senses)
        devsim::set_sense_from_text(sim.sony(), sense);
    for (const std::string& clip : options.clips)
        sim.model().append_clip(clip, 0);
    for (const auto& apply : options.contents)
        apply(sim);
    if (!options.scenario.empty()) {
        std::ifstream in(options.scenario);
        std::string error;
        if (!in) {
            perror(options.scenario.c_str());
            return 1;
        }
        if (!devsim::load_scenario(sim, in, error)) {
            fprintf(stderr, "devsim: %s: %s\n", options.scenario.c_str(), error.c_str());
            return 1;
        }
    }
    sim.on_receive([port = sim.mgmt_port()](const devsim::Received& m) { print(m, port); });
    sim.start();
    printf("listening on %s\n", where.c_str());

    int signal = 0;
    sigwait(&stop_signals, &signal);
    sim.stop();
    if (!options.pty_link.empty())
        unlink(options.pty_link.c_str());
    for (const auto& [kind, rest] : options.also)
        if (kind == "serial" && !rest.empty())
            unlink(rest.c_str());
    return 0;
}
