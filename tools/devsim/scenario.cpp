// Scenario files: one directive a line.
#include "scenario.h"

#include <cstdlib>
#include <sstream>
#include <vector>

namespace devsim {

namespace {

bool number(const std::string& text, long& value, int base = 10) {
    char* end = nullptr;
    value = std::strtol(text.c_str(), &end, base);
    return !text.empty() && *end == '\0' && value >= 0;
}

// "HH:MM:SS:FF" (or ';' before the frames) into frames at the model's standard.
bool timecode(const Model& model, const std::string& text, int64_t& frames) {
    long parts[4];
    std::istringstream in(text);
    std::string part;
    for (long& p : parts) {
        char separator = 0;
        if (!(in >> p) || p < 0 || p > 99 ||
            (&p != &parts[3] && (!in.get(separator) || (separator != ':' && separator != ';'))))
            return false;
    }
    if (in.get() != EOF)
        return false;
    const uint8_t bcd[4] = {static_cast<uint8_t>(parts[3] / 10 << 4 | parts[3] % 10),
                            static_cast<uint8_t>(parts[2] / 10 << 4 | parts[2] % 10),
                            static_cast<uint8_t>(parts[1] / 10 << 4 | parts[1] % 10),
                            static_cast<uint8_t>(parts[0] / 10 << 4 | parts[0] % 10)};
    frames = bcd_to_frames(model.standard(), bcd);
    return true;
}

// The fault named by the words from `at`; false when they do not name one.
bool fault(const std::vector<std::string>& words, size_t at, Reply& reply) {
    long value = 0;
    const size_t left = words.size() - at;
    if (left == 1 && words[at] == "silence")
        reply = Reply::silence();
    else if (left == 1 && words[at] == "corrupt")
        reply.corrupt_checksum = true;
    else if (left == 2 && words[at] == "nak" && number(words[at + 1], value, 16) && value < 256)
        reply = Reply::nak(static_cast<uint8_t>(value));
    else if (left == 2 && words[at] == "delay" && number(words[at + 1], value))
        reply = Reply::late(static_cast<int>(value));
    else
        return false;
    return true;
}

// One directive; an error message, or empty when it was applied.
std::string directive(DevSim& sim, const std::vector<std::string>& w) {
    const size_t n = w.size();
    long a = 0, b = 0;
    int64_t start = 0, length = 0;
    Reply reply;
    if (w[0] == "standard" && n == 2) {
        auto standard = standard_from_text(w[1]);
        if (!standard)
            return "no standard named '" + w[1] + "'";
        sim.model().set_standard(*standard);
    } else if (w[0] == "clip" && n == 4) {
        if (w[1].size() > 8 || !timecode(sim.model(), w[2], start) ||
            !timecode(sim.model(), w[3], length))
            return "usage: clip ID START LENGTH (an ID of at most 8 bytes, two timecodes)";
        sim.model().add_clip(w[1], start, length);
    } else if (w[0] == "sense" && n == 2) {
        if (!set_sense_from_text(sim.sony(), w[1]))
            return "usage: sense CMD2[.SEL]=HEX";
    } else if (w[0] == "local" && n == 2 && (w[1] == "on" || w[1] == "off")) {
        sim.model().set_local(w[1] == "on");
    } else if (w[0] == "at" && n >= 3 && w[1] == "frame") {
        if (!timecode(sim.model(), w[2], start) || !fault(w, 3, reply))
            return "usage: at frame TIMECODE FAULT";
        sim.fault_at_frame(start, reply);
    } else if (w[0] == "at" && n >= 3) {
        if (!number(w[1], a) || a == 0 || !fault(w, 2, reply))
            return "usage: at N FAULT (N from 1; FAULT nak BITS, silence, delay MS or corrupt)";
        sim.fault_at_command(static_cast<size_t>(a), reply);
    } else if (w[0] == "stall" && n == 3 && number(w[1], a) && number(w[2], b)) {
        sim.transfers().stall_next(static_cast<size_t>(a), static_cast<int>(b));
    } else {
        return "unknown directive '" + w[0] + "'";
    }
    return {};
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
        const std::string message = directive(sim, words);
        if (!message.empty()) {
            error = "line " + std::to_string(number) + ": " + message;
            return false;
        }
    }
    return true;
}

} // namespace devsim
