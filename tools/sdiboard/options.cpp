// The board emulator's options.
#include "options.h"

namespace sdiboard {

const char kOptionsHelp[] =
    "  -s, --socket PATH   socket the daemon's SPI transfers reach (default: $TLAPI_SIM_SOCKET,\n"
    "                      else /tmp/sdiboard.sock)\n"
    "      --absent        play a board that never answers\n"
    "      --stuck-scratch play a board whose register 7 sticks at 0x42 once written\n"
    "      --short         play a board that answers 2 bytes instead of 3\n"
    "      --late          play a board that answers each transfer 50 ms late\n"
    "      --all           print every register write, not only the GPO register\n";

Options read_options(const cli::CommandLine& line) {
    Options o;
    for (const auto& [option, value] : line.options) {
        const std::string name = option->name;
        const auto chosen = name == "absent"          ? Fault::Absent
                            : name == "stuck-scratch" ? Fault::StuckScratch
                            : name == "short"         ? Fault::ShortAnswers
                            : name == "late"          ? Fault::LateAnswers
                                                      : Fault::None;
        if (chosen != Fault::None && o.fault != Fault::None)
            throw cli::Refused("one fault at a time");
        if (chosen != Fault::None)
            o.fault = chosen;
        else if (name == "socket")
            o.path = value;
        else if (name == "all")
            o.all = true;
    }
    return o;
}

} // namespace sdiboard
