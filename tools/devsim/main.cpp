// devsim: a video server for a controller to talk to; prints every message it receives.
#include "cli.h"
#include "devsim.h"
#include "options.h"

#include <csignal>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace {

const char kUsage[] =
    "usage: devsim udp ADDRESS PORT [OPTION...]\n"
    "       devsim tcp ADDRESS PORT [OPTION...]\n"
    "       devsim serial [LINK] [OPTION...]\n"
    "Plays a video server: Sony 9-pin, Odetics and Louth commands drive one model (transport, a\n"
    "position moving in real time, a clip store) that every sense answers from; prints each\n"
    "command as hex bytes.\n"
    "options:\n";

const char kUsageEnd[] =
    "  -h, --help     print this help and exit\n"
    "ADDRESS is an IPv4 address or a host name; PORT 0 lets the system choose. Options may come\n"
    "before or after the link.\n";

void print(const devsim::Received& message, uint16_t mgmt_port) {
    if (message.link == devsim::Link::udp && mgmt_port != 0 && message.local_port == mgmt_port) {
        printf("mgmt %s\n", devsim::hex(message.wire).c_str());
    } else if (message.link == devsim::Link::tcp && message.tag != "s9p ") {
        printf("%s %s\n", message.tag.c_str(), devsim::hex(message.wire).c_str());
    } else {
        printf("%s\n", devsim::hex(message.frame).c_str());
    }
}

int run(int argc, char** argv) {
    const std::optional<devsim::Options> parsed =
        devsim::read_options(cli::parse(argc, argv, devsim::kCommandLineOptions));
    if (!parsed) {
        fputs(kUsage, stdout);
        fputs(devsim::kOptionsHelp, stdout);
        fputs(kUsageEnd, stdout);
        return 0;
    }

    // The serving thread inherits this mask, so the signals reach sigwait below.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    devsim::DevSim sim;
    std::vector<std::string> own_links; // pty links made, removed at exit while still ours
    std::string where;
    try {
        where = devsim::set_up(sim, *parsed, own_links);
    } catch (...) {
        devsim::remove_links(sim, own_links);
        throw;
    }
    sim.on_receive([port = sim.mgmt_port()](const devsim::Received& m) { print(m, port); });
    sim.start();
    printf("listening on %s\n", where.c_str());

    int signal = 0;
    sigwait(&stop_signals, &signal);
    sim.stop();
    devsim::remove_links(sim, own_links);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return cli::run("devsim", [&] { return run(argc, argv); });
}
