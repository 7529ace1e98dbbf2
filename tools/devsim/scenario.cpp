// Directives, from a scenario file or the command line.
#include "scenario.h"

#include "cli.h"
#include "paths.h"
#include "values.h"

#include <array>
#include <cstdint>
#include <sstream>
#include <vector>

namespace devsim {

namespace {

constexpr int64_t kMaxMs = 3600 * 1000;

// A directive's value as it came, and the name it goes by in messages ("--delay" or "delay").
struct Value {
    std::string text;
    std::string what;
    const char* form; // the value's form, for a usage line

    std::vector<std::string> words() const {
        std::istringstream in(text);
        std::vector<std::string> w;
        for (std::string word; in >> word;)
            w.push_back(word);
        return w;
    }
    [[noreturn]] void usage() const {
        const std::string name = what[0] == '-' ? what.substr(2) : what;
        throw cli::Refused("usage: " + name + (*form ? " " : "") + form);
    }
    int64_t number(const std::string& word, int64_t low, int64_t high) const {
        return cli::integer(word, low, high, what.c_str(), true);
    }
    // "A:B" into its two parts.
    std::pair<std::string, std::string> pair() const {
        const size_t colon = text.find(':');
        if (colon == std::string::npos)
            throw cli::Refused(what + ": " + cli::quote(text) + " is not of the form A:B");
        return {text.substr(0, colon), text.substr(colon + 1)};
    }
};

// A timecode at the model's standard, in frames.
int64_t frames_at(const Model& model, const std::string& text, const std::string& what) {
    const auto rate = cli::timecode_rate(standard_name(model.standard()), "standard");
    const std::array<int, 4> parts = cli::timecode(text, rate, what.c_str());
    uint8_t bcd[4];
    for (int i = 0; i < 4; ++i)
        bcd[i] = to_bcd(parts[3 - i]);
    return bcd_to_frames(model.standard(), bcd);
}

// The answer the words from `at` name (nak BITS, refuse BYTE, silent, delay MS, corrupt,
// restart MS, close), applied to `reply`.
void answer_change(Reply& reply, const Value& v, const std::vector<std::string>& w, size_t at) {
    const size_t left = w.size() - at;
    const std::string name = left > 0 ? w[at] : "";
    const bool argument = left == 2, alone = left == 1;
    if (alone && (name == "silent" || name == "silence"))
        reply.silent = true;
    else if (alone && name == "corrupt")
        reply.corrupt_checksum = true;
    else if (alone && name == "close")
        reply.close_connection = true;
    else if (argument && name == "nak")
        reply.frame =
            with_checksum({0x11, 0x12, static_cast<uint8_t>(v.number(w[at + 1], 0, 255))});
    else if (argument && name == "refuse")
        reply.louth = {0x05, static_cast<uint8_t>(v.number(w[at + 1], 0, 255))};
    else if (argument && name == "delay")
        reply.delay_ms = static_cast<int>(v.number(w[at + 1], 0, kMaxMs));
    else if (argument && name == "restart")
        reply.restart_ms = static_cast<int>(v.number(w[at + 1], 0, kMaxMs));
    else
        throw cli::Refused(v.what +
                           ": FAULT is nak BITS, refuse BYTE, silent, delay MS, corrupt, "
                           "restart MS or close, not " +
                           cli::quote(name));
}

// Every answer from now on, changed as the directive's name and value say.
void every_answer(DevSim& sim, const std::string& name, const Value& v) {
    Reply reply = sim.default_reply();
    std::vector<std::string> w = v.words();
    w.insert(w.begin(), name);
    answer_change(reply, v, w, 0);
    sim.set_default(reply);
}

using Apply = void (*)(DevSim&, const Value&);
struct Row {
    Directive directive;
    const char* form;
    Apply apply;
};

const Row kRows[] = {
    {{"standard", true},
     "25|29.97df|30|50|59.94df",
     [](DevSim& sim, const Value& v) {
         auto standard = standard_from_text(v.text);
         if (!standard)
             throw cli::Refused(v.what + ": no standard named " + cli::quote(v.text) + " (" +
                                cli::kStandards + ")");
         sim.model().set_standard(*standard);
     }},
    {{"clip", true},
     "ID [START LENGTH]",
     [](DevSim& sim, const Value& v) {
         const auto w = v.words();
         if (w.size() != 1 && w.size() != 3)
             v.usage();
         const std::string id = cli::clip_id(w[0], v.what.c_str());
         if (sim.model().clip(id))
             throw cli::Refused(v.what + ": " + cli::quote(id) + " is in the clip store already");
         if (w.size() == 1)
             sim.model().append_clip(id, 0);
         else
             sim.model().add_clip(id, frames_at(sim.model(), w[1], v.what),
                                  frames_at(sim.model(), w[2], v.what));
     }},
    {{"sense", true},
     "CMD2[.SEL]=HEX",
     [](DevSim& sim, const Value& v) {
         if (!set_sense_from_text(sim.sony(), v.text))
             throw cli::Refused(v.what + ": " + cli::quote(v.text) +
                                " is not CMD2[.SEL]=HEX (at most 15 bytes)");
     }},
    {{"local", true},
     "on|off",
     [](DevSim& sim, const Value& v) {
         if (v.text != "on" && v.text != "off")
             throw cli::Refused(v.what + ": " + cli::quote(v.text) + " is not on or off");
         sim.model().set_local(v.text == "on");
     }},
    {{"louth", false},
     "",
     [](DevSim& sim, const Value&) {
         for (Link link : {Link::udp, Link::serial})
             sim.set_protocol(link, Protocol::louth);
     }},
    {{"nak", true}, "BITS", [](DevSim& sim, const Value& v) { every_answer(sim, "nak", v); }},
    {{"refuse", true}, "BYTE", [](DevSim& sim, const Value& v) { every_answer(sim, "refuse", v); }},
    {{"silent", false}, "", [](DevSim& sim, const Value& v) { every_answer(sim, "silent", v); }},
    {{"delay", true}, "MS", [](DevSim& sim, const Value& v) { every_answer(sim, "delay", v); }},
    {{"corrupt", false}, "", [](DevSim& sim, const Value& v) { every_answer(sim, "corrupt", v); }},
    {{"at", true},
     "N FAULT | at frame TIMECODE FAULT",
     [](DevSim& sim, const Value& v) {
         const auto w = v.words();
         Reply reply;
         if (w.size() >= 3 && w[0] == "frame") {
             const int64_t frame = frames_at(sim.model(), w[1], v.what + " frame");
             answer_change(reply, v, w, 2);
             sim.fault_at_frame(frame, reply);
         } else if (w.size() >= 2 && w[0] != "frame") {
             const auto command = static_cast<size_t>(v.number(w[0], 1, INT32_MAX));
             answer_change(reply, v, w, 1);
             sim.fault_at_command(command, reply);
         } else {
             v.usage();
         }
     }},
    {{"stall", true},
     "BYTES:MS",
     [](DevSim& sim, const Value& v) {
         const auto [count, ms] = v.pair();
         sim.transfers().stall_next(static_cast<size_t>(v.number(count, 0, UINT32_MAX)),
                                    static_cast<int>(v.number(ms, 0, kMaxMs)));
     }},
    {{"version", true},
     "A:B",
     [](DevSim& sim, const Value& v) {
         const auto [first, second] = v.pair();
         sim.transfers().set_version(static_cast<uint32_t>(v.number(first, 0, UINT32_MAX)),
                                     static_cast<uint32_t>(v.number(second, 0, UINT32_MAX)));
     }},
    {{"diskinfo", true},
     "FILE",
     [](DevSim& sim, const Value& v) {
         const Bytes bytes = cli::read_file(v.text);
         sim.transfers().set_diskinfo(bytes);
         sim.mgmt().set_diskinfo(bytes);
     }},
    {{"gop", true},
     "FILE",
     [](DevSim& sim, const Value& v) { sim.transfers().set_gop(cli::read_file(v.text)); }},
    {{"log", true},
     "FILE",
     [](DevSim& sim, const Value& v) { sim.mgmt().set_log(cli::read_file(v.text)); }},
    {{"entry", true},
     "N:FILE",
     [](DevSim& sim, const Value& v) {
         const auto [entry, path] = v.pair();
         const auto number = static_cast<uint32_t>(v.number(entry, 0, UINT32_MAX));
         sim.transfers().set_file_entry(number, cli::read_file(path));
     }},
    {{"picture", true},
     "CODE:FILE",
     [](DevSim& sim, const Value& v) {
         const auto [code, path] = v.pair();
         const auto number = static_cast<uint16_t>(v.number(code, 0, 0xFFFF));
         sim.mgmt().set_picture(number, cli::read_file(path));
     }},
    {{"refuse-uploads", false},
     "",
     [](DevSim& sim, const Value&) {
         sim.transfers().accept_uploads(false);
         sim.mgmt().accept_uploads(false);
     }},
};

const std::array<Directive, std::size(kRows)> kDirectives = [] {
    std::array<Directive, std::size(kRows)> all{};
    for (size_t i = 0; i < all.size(); ++i)
        all[i] = kRows[i].directive;
    return all;
}();

const Row* row_named(const std::string& name) {
    for (const Row& row : kRows)
        if (name == row.directive.name)
            return &row;
    return nullptr;
}

} // namespace

std::span<const Directive> directives() {
    return kDirectives;
}

void apply_option(DevSim& sim, const std::string& name, const char* value) {
    const Row* row = row_named(name);
    if (!row)
        throw cli::Refused("unknown option " + cli::quote("--" + name));
    row->apply(sim, {value ? value : "", "--" + name, row->form});
}

bool load_scenario(DevSim& sim, std::istream& in, std::string& error) {
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const size_t start = line.find_first_not_of(" \t\r");
        if (start == std::string::npos || line[start] == '#')
            continue;
        const size_t end = line.find_first_of(" \t\r", start);
        const std::string name = line.substr(start, end - start);
        std::string value = end == std::string::npos ? "" : line.substr(end);
        value.erase(0, value.find_first_not_of(" \t\r"));
        value.erase(value.find_last_not_of(" \t\r") + 1);
        try {
            const Row* row = row_named(name);
            if (!row)
                throw cli::Refused("unknown directive " + cli::quote(name));
            const Value v{value, name, row->form};
            if (value.empty() == row->directive.has_value)
                v.usage();
            row->apply(sim, v);
        } catch (const std::exception& refused) { // a bad value, or a file it cannot read
            error = "line " + std::to_string(number) + ": " + refused.what();
            return false;
        }
    }
    return true;
}

} // namespace devsim
