// rack: the SDI board emulator and the video server emulator in one process, behind a web page
// that shows the server's front panel and the board's GPI switches and GPO lamps, live.
#include "cli.h"
#include "output.h"
#include "rack.h"
#include "values.h"
#include "web.h"

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

const char kUsage[] =
    "usage: rack [--http ADDRESS:PORT] [BOARD OPTION...] udp ADDRESS PORT [SERVER OPTION...]\n"
    "       rack [--http ADDRESS:PORT] [BOARD OPTION...] tcp ADDRESS PORT [SERVER OPTION...]\n"
    "       rack [--http ADDRESS:PORT] [BOARD OPTION...] serial [LINK] [SERVER OPTION...]\n"
    "Runs the SDI board emulator (as sdiboard) and the video server (as devsim) in one process\n"
    "and serves a page of their front panels; prints what the page's log shows.\n"
    "  --http ADDRESS:PORT  serve the page there (default 127.0.0.1:8080; PORT 0 lets the\n"
    "                       system choose)\n"
    "  -h, --help           print this help and exit\n"
    "board options:\n";
const char kServerOptions[] = "server options:\n";
const char kUsageEnd[] =
    "ADDRESS is an IPv4 address or a host name. Options may come before or after the link.\n";

constexpr uint16_t kGpiEventPort = 42000; // where the daemon sends its GPI events

struct Http {
    std::string address = "127.0.0.1";
    uint16_t port = 8080;
};

Http http_option(const std::string& text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        throw cli::Refused("--http: " + cli::quote(text) + " is not ADDRESS:PORT");
    return {cli::dotted(cli::ipv4_host(text.substr(0, colon), "--http")),
            cli::port(text.substr(colon + 1), true, "--http")};
}

int run(int argc, char** argv) {
    std::vector<cli::Option> known = {{"http", 0, true}, {"help", 'h', false}};
    known.insert(known.end(), std::begin(sdiboard::kCommandLineOptions),
                 std::end(sdiboard::kCommandLineOptions));
    const std::vector<cli::Option> server = devsim::command_line_options();
    known.insert(known.end(), server.begin(), server.end());
    const cli::CommandLine line = cli::parse(argc, argv, known);
    Http http;
    for (const auto& [option, value] : line.options) {
        if (option->letter == 'h') {
            printf("%s%s%s%s%s", kUsage, sdiboard::kOptionsHelp, kServerOptions,
                   devsim::kOptionsHelp, kUsageEnd);
            return 0;
        }
        if (std::string(option->name) == "http")
            http = http_option(value);
    }
    const sdiboard::Options board = sdiboard::read_options(line);
    const std::string page = rack::page_folder();
    if (page.empty())
        return cli::failure("the page's files are neither installed nor in " RACK_PAGE_SOURCE);

    const cli::StopSignals stop; // every thread started from here on inherits it
    signal(SIGPIPE, SIG_IGN);    // a page that goes away fails its write, not the program

    rack::Rack rack(board, line, kGpiEventPort,
                    [](const std::string& text) { printf("%s\n", text.c_str()); });
    rack::Web web(rack, http.address, http.port, page);
    printf("SDI board emulator on %s\nlistening on %s\npage on http://%s:%u/\n",
           rack.board_socket().c_str(), rack.links().c_str(), http.address.c_str(), web.port());

    stop.wait();
    return cli::output_lost() ? 1 : 0;
}

// glibc gives each thread a cache of the small blocks it frees, and only a setting read as the
// program starts turns it off. In the rack, blocks freed by a page's thread stay in that thread's
// cache, a few more each time a rarer size comes by: seventy caches kept the rack growing for
// hours (60 kB in the first hour) before it would level off. So the rack starts itself again,
// once, without them; a setting of the caches that the person gave is kept.
void start_without_thread_caches(char** argv) {
    constexpr const char* kNoCache = "glibc.malloc.tcache_count=0";
    const char* given = getenv("GLIBC_TUNABLES");
    if (given != nullptr && strstr(given, "glibc.malloc.tcache_count") != nullptr)
        return;
    const std::string tunables =
        given != nullptr && *given != '\0' ? std::string(given) + ":" + kNoCache : kNoCache;
    // By its own path, not /proc/self/exe, so that ps and pgrep still know it as rack.
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0)
        return;
    self[length] = '\0';
    if (setenv("GLIBC_TUNABLES", tunables.c_str(), 1) == 0)
        execv(self, argv);
    // Where it cannot, it runs with the caches: it only takes longer to reach its size.
}

} // namespace

int main(int argc, char** argv) {
    start_without_thread_caches(argv);
    // Seventy threads, most of them waiting on a page: one pool of memory for them all, rather
    // than one for each thread that happens to serve a request, keeps the rack's size where it
    // settles over weeks.
    mallopt(M_ARENA_MAX, 1);
    return cli::run("rack", [&] { return run(argc, argv); });
}
