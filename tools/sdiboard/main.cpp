// sdiboard: an emulated SDI board for people: drive its GPI lines from the keyboard and watch the
// GPO register change as the daemon writes it.
#include "cli.h"
#include "options.h"
#include "output.h"
#include "sdiboard.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

const char* const kUsage =
    "usage: sdiboard [-s PATH] [--absent | --stuck-scratch | --short | --late] [--all]\n";
const char* const kCommands =
    "Commands, one per line on standard input:\n"
    "  gpi HEX     drive the eight GPI lines (bit n = line n), e.g. gpi 05\n"
    "  pulse N     raise and drop GPI line N (0-7) before the next poll\n"
    "  show        print the GPI and GPO registers\n"
    "  quit        stop (end of input does the same)\n";

std::mutex printing;

std::string bits(uint8_t value) {
    std::string text;
    for (int line = 7; line >= 0; --line)
        text += (value >> line & 1) ? '1' : '0';
    return text;
}

void printWrite(const sdiboard::Transfer& write, bool all) {
    std::lock_guard lock(printing);
    if (write.reg == sdiboard::kGpoRegister)
        printf("GPO <- 0x%02X  lines 7..0: %s\n", write.value, bits(write.value).c_str());
    else if (all)
        printf("register 0x%02X <- 0x%02X\n", write.reg, write.value);
}

bool nothingMore(std::istringstream& words) {
    std::string more;
    return !(words >> more);
}

// The command's one argument, a number from `low` to `high`; false for anything else.
bool parseNumber(std::istringstream& words, int base, int low, int high, int* value) {
    std::string word;
    if (!(words >> word) || !nothingMore(words))
        return false;
    char* end = nullptr;
    long number = strtol(word.c_str(), &end, base);
    if (*end != '\0' || number < low || number > high)
        return false;
    *value = static_cast<int>(number);
    return true;
}

// Runs one command line; false on "quit".
bool command(sdiboard::Board& board, const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    int value = 0;
    if (!(words >> verb))
        return true;
    std::lock_guard lock(printing);
    if (verb == "quit" && nothingMore(words))
        return false;
    if (verb == "gpi" && parseNumber(words, 16, 0, 0xFF, &value)) {
        board.setGpi(static_cast<uint8_t>(value));
    } else if (verb == "pulse" && parseNumber(words, 10, 0, 7, &value)) {
        board.pulse(value);
    } else if (verb == "show" && nothingMore(words)) {
        printf("GPI 0x%02X (as the last poll saw it)  GPO 0x%02X\n",
               board.registerValue(sdiboard::kGpiRegister),
               board.registerValue(sdiboard::kGpoRegister));
    } else {
        printf("? %s  (gpi HEX, pulse 0-7, show, quit)\n", cli::quote(line).c_str());
    }
    return true;
}

// Runs the commands of standard input until its end, "quit", a stop signal or a lost line.
void serve(sdiboard::Board& board, const cli::StopSignals& stop) {
    std::string pending;
    char bytes[512];
    while (!stop.wait(STDIN_FILENO)) {
        const ssize_t n = read(STDIN_FILENO, bytes, sizeof bytes);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) { // the end of the input ends its last line too
            if (!pending.empty())
                command(board, pending);
            return;
        }
        pending.append(bytes, static_cast<size_t>(n));
        for (size_t end; (end = pending.find('\n')) != std::string::npos;) {
            const std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            if (!command(board, line))
                return;
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    static constexpr cli::Option kHelp[] = {{"help", 'h', false}};
    std::vector<cli::Option> known(std::begin(sdiboard::kCommandLineOptions),
                                   std::end(sdiboard::kCommandLineOptions));
    known.push_back(kHelp[0]);
    return cli::run("sdiboard", [&] {
        const cli::CommandLine line = cli::parse(argc, argv, known);
        if (!line.words.empty())
            throw cli::Refused("unexpected argument " + cli::quote(line.words[0]));
        for (const auto& given : line.options)
            if (given.option->letter == 'h') {
                printf("%s%s%s", kUsage, sdiboard::kOptionsHelp, kCommands);
                return 0;
            }
        const sdiboard::Options options = sdiboard::read_options(line);
        const cli::StopSignals stop; // before the board's thread starts, which inherits it
        sdiboard::Board board(options.path, options.fault); // its socket goes with it
        board.onWrite(
            [all = options.all](const sdiboard::Transfer& write) { printWrite(write, all); });
        printf("SDI board emulator on %s; type gpi HEX, pulse N, show or quit\n",
               options.path.c_str());
        serve(board, stop);
        return cli::output_lost() ? 1 : 0;
    });
}
