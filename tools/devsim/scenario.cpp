// Scenario files: one directive a line.
#include "scenario.h"

#include "cli.h"
#include "values.h"

#include <array>
#include <cstdint>
#include <sstream>
#include <vector>

namespace devsim {

namespace {

// A timecode at the model's standard, in frames.
int64_t frames_at(const Model& model, const std::string& text, const std::string& what) {
    const auto rate = cli::timecode_rate(standard_name(model.standard()), "standard");
    const std::array<int, 4> parts = cli::timecode(text, rate, what.c_str());
    uint8_t bcd[4];
    for (int i = 0; i < 4; ++i)
        bcd[i] = static_cast<uint8_t>(parts[3 - i] / 10 << 4 | parts[3 - i] % 10);
    return bcd_to_frames(model.standard(), bcd);
}

[[noreturn]] void usage(const char* form) {
    throw cli::Refused(std::string("usage: ") + form);
}

// The fault named by the words from `at`.
Reply fault(const std::vector<std::string>& words, size_t at) {
    const size_t left = words.size() - at;
    const std::string name = left > 0 ? words[at] : "";
    Reply reply;
    if (left == 1 && name == "silence")
        reply = Reply::silence();
    else if (left == 1 && name == "corrupt")
        reply.corrupt_checksum = true;
    else if (left == 2 && name == "nak" && words[at + 1].size() <= 2 &&
             words[at + 1].find_first_not_of("0123456789abcdefABCDEF") == std::string::npos)
        reply = Reply::nak(static_cast<uint8_t>(std::stoul("0" + words[at + 1], nullptr, 16)));
    else if (left == 2 && name == "delay")
        reply = Reply::late(static_cast<int>(cli::integer(words[at + 1], 0, 3600000, "delay")));
    else
        throw cli::Refused("FAULT is nak BITS (hexadecimal), silence, delay MS or corrupt, not " +
                           cli::quote(name));
    return reply;
}

// Applies one directive; throws cli::Refused with what is wrong.
void directive(DevSim& sim, const std::vector<std::string>& w) {
    const size_t n = w.size();
    const std::string& name = w[0];
    if (name == "standard") {
        if (n != 2)
            usage("standard 25|29.97df|30|50|59.94df");
        auto standard = standard_from_text(w[1]);
        if (!standard)
            throw cli::Refused("no standard named " + cli::quote(w[1]));
        sim.model().set_standard(*standard);
    } else if (name == "clip") {
        if (n != 4)
            usage("clip ID START LENGTH");
        sim.model().add_clip(cli::clip_id(w[1], "clip"), frames_at(sim.model(), w[2], name),
                             frames_at(sim.model(), w[3], name));
    } else if (name == "sense") {
        if (n != 2 || !set_sense_from_text(sim.sony(), w[1]))
            usage("sense CMD2[.SEL]=HEX");
    } else if (name == "local") {
        if (n != 2 || (w[1] != "on" && w[1] != "off"))
            usage("local on|off");
        sim.model().set_local(w[1] == "on");
    } else if (name == "at" && n >= 2 && w[1] == "frame") {
        if (n < 4)
            usage("at frame TIMECODE FAULT");
        sim.fault_at_frame(frames_at(sim.model(), w[2], "at frame"), fault(w, 3));
    } else if (name == "at") {
        if (n < 3)
            usage("at N FAULT");
        sim.fault_at_command(static_cast<size_t>(cli::integer(w[1], 1, INT32_MAX, "at")),
                             fault(w, 2));
    } else if (name == "stall") {
        if (n != 3)
            usage("stall BYTES MS");
        sim.transfers().stall_next(static_cast<size_t>(cli::integer(w[1], 0, UINT32_MAX, "stall")),
                                   static_cast<int>(cli::integer(w[2], 0, 3600000, "stall")));
    } else {
        throw cli::Refused("unknown directive " + cli::quote(name));
    }
}

} // namespace

bool load_scenario(DevSim& sim, std::istream& in, std::string& error) {
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        std::istringstream words_in(line);
        std::vector<std::string> words;
        for (std::string word; words_in >> word;)
            words.push_back(word);
        if (words.empty() || words[0][0] == '#')
            continue;
        // A sense value may hold spaces: the rest of the line is its text.
        if (words[0] == "sense" && words.size() > 2) {
            std::string rest = line.substr(line.find("sense") + 5);
            rest.erase(0, rest.find_first_not_of(" \t"));
            words = {"sense", rest};
        }
        try {
            directive(sim, words);
        } catch (const cli::Refused& refused) {
            error = "line " + std::to_string(number) + ": " + refused.what();
            return false;
        }
    }
    return true;
}

} // namespace devsim
