// The names of the frames of every protocol the emulator speaks, and their arguments as text. The
// Sony and Louth rows come from the table the dissector's are made from too.
#include "names.h"

#include "model.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>
#include <toolkit.h>

namespace devsim {

namespace {

using A = Args;

struct LouthName {
    uint8_t kind; // CMD1's high nibble
    uint8_t cmd2;
    const char* name;
    Args args;
};

// The rows of kSony and kLouth, made by the build from tools/common/command_names.txt.
#include "command_names.inc"

// The connection protocol's tags, as a request and as the device's answer.
struct StreamName {
    const char* tag;
    const char* request;
    const char* answer; // arg1 is a size in the answers that announce one
};
constexpr StreamName kStream[] = {
    {"ver ", "VERSION REQUEST", "VERSION"},
    {"gfif", "DISK INFORMATION REQUEST", "DISK INFORMATION"},
    {"uuuu", "FILE ENTRY REQUEST", "FILE ENTRY"},
    {"cggp", "GOP REQUEST", "GOP"},
    {"data", "DATA REQUEST", nullptr},
    {"ggop", "GOP REQUEST (OLDER FORM)", nullptr},
    {"pgop", "GOP UPLOAD", nullptr},
    {"aliv", "KEEP-ALIVE", nullptr},
    {"pgac", nullptr, "UPLOAD ACCEPTED"},
    {"pgna", nullptr, "UPLOAD REFUSED"},
};

constexpr const char* kNakBits[8] = {"unknown command", "bit 1",   "checksum error", "bit 3",
                                     "parity error",    "overrun", "framing error",  "time-out"};
constexpr const char* kTimeSources[6] = {"LTC", "VITC", "TIMER-1", "TIMER-2", "LTC UB", "VITC UB"};

std::string format(const char* f, long long a, long long b = 0) {
    char out[64];
    snprintf(out, sizeof out, f, a, b);
    return out;
}

// Printable ASCII as it is, anything else as '.', trailing blanks and zero bytes dropped.
std::string text_of(std::span<const uint8_t> d) {
    std::string t;
    for (uint8_t b : d)
        t += b >= 0x20 && b < 0x7F ? static_cast<char>(b) : '.';
    const size_t end = t.find_last_not_of(" .");
    return t.substr(0, end == std::string::npos ? 0 : end + 1);
}

std::string hex_of(std::span<const uint8_t> d) {
    return hex(Bytes(d.begin(), d.end()));
}

std::string names_of_bits(uint8_t bits, const char* const* names, size_t count,
                          const char* joiner) {
    std::string out;
    for (size_t i = 0; i < count; ++i)
        if (bits & (1u << i))
            out += (out.empty() ? "" : joiner) + std::string(names[i]);
    return out;
}

int64_t signed_be32(std::span<const uint8_t> d) {
    return static_cast<int32_t>(be32(d.data()));
}

int clip_number(std::span<const uint8_t> d) {
    return from_bcd(d[0]) * 100 + from_bcd(d[1]);
}

// What a decoder makes of data of its form; nothing for data of another form, which the log then
// shows in hex.
using Text = std::optional<std::string>;

template <typename F> Text when(bool has_form, F text) {
    return has_form ? Text(text()) : std::nullopt;
}

std::string tc_at(std::span<const uint8_t> d, size_t at) {
    return bcd_text(d.data() + at);
}

std::string id_at(std::span<const uint8_t> d, size_t at) {
    return text_of(d.subspan(at, 8));
}

// Timecodes, IDs and text.
Text time_and_id_text(Args args, std::span<const uint8_t> d) {
    const size_t n = d.size();
    switch (args) {
    case A::tc:
        return when(n == 4, [&] { return tc_at(d, 0); });
    case A::tc_or_none:
        return when(n == 0 || n == 4, [&] { return n == 0 ? "" : tc_at(d, 0); });
    case A::tc2:
        return when(n == 8, [&] { return tc_at(d, 0) + " " + tc_at(d, 4); });
    case A::tc_id:
        return when(n == 0 || n == 4 || n == 8 || n == 12, [&] {
            return n == 0   ? ""
                   : n == 4 ? tc_at(d, 0)
                   : n == 8 ? id_at(d, 0)
                            : tc_at(d, 0) + " " + id_at(d, 4);
        });
    case A::tc_ub:
        return when(n == 8, [&] { return tc_at(d, 0) + " user bits " + hex_of(d.subspan(4)); });
    case A::position:
        return when(n == 5, [&] { return tc_at(d, 1); });
    case A::id:
    case A::id_list:
        return when(n == 8, [&] { return id_at(d, 0); });
    case A::selector_id:
        return when(n == 9, [&] { return id_at(d, 1); });
    case A::id_tcs:
        return when(n == 8 || n == 16, [&] {
            return id_at(d, 0) + (n == 16 ? " " + tc_at(d, 8) + " " + tc_at(d, 12) : "");
        });
    case A::file:
        return when(n == 1 || n == 9, [&] { return n == 1 ? "" : text_of(d.subspan(1)); });
    case A::active_id:
        return when(n >= 1, [&] { return text_of(d.subspan(1)); });
    case A::text:
        return text_of(d);
    default:
        return std::nullopt;
    }
}

// Numbers: values, speeds, counts, clips, menu sections, ports.
Text number_text(Args args, std::span<const uint8_t> d) {
    const size_t n = d.size();
    switch (args) {
    case A::value:
    case A::mode:
    case A::granted:
    case A::found:
        return when(n == 1, [&] { return std::to_string(d[0]); });
    case A::flag:
        return when(n == 1, [&] { return d[0] ? "on" : "off"; });
    case A::field:
        return when(n == 4, [&] { return std::to_string(be32(d.data())); });
    case A::speed:
        return when(n == 1, [&] {
            return format("speed %lld (%lld%% of play)", d[0],
                          std::lround(100 * std::pow(10.0, d[0] / 32.0 - 2)));
        });
    case A::steps:
        return when(n <= 1, [&] { return n == 0 ? "" : format("%lld frames", d[0]); });
    case A::clip:
        return when(n == 2, [&] { return format("clip %lld", clip_number(d)); });
    case A::clips:
        return when(n == 4, [&] {
            return format("clips %lld %lld", clip_number(d), clip_number(d.subspan(2)));
        });
    case A::clip_save:
        return when(n == 10, [&] {
            return format("clip %lld", clip_number(d)) +
                   format(" values %lld %lld", be32(&d[2]), be32(&d[6]));
        });
    case A::section:
        return when(n == 1, [&] { return format("section %lld", d[0]); });
    case A::section_bytes:
        return when(n >= 1, [&] {
            return format("section %lld", d[0]) + (n > 1 ? " " + hex_of(d.subspan(1)) : "");
        });
    case A::selector_value:
        return when(n == 2, [&] { return std::to_string(d[1]); });
    case A::port:
        return when(n == 1,
                    [&] { return format("port %lld", d[0] & 0x80 ? -(d[0] & 0x7F) : d[0]); });
    case A::open_port:
        return when(n == 2,
                    [&] { return *number_text(A::port, d.first(1)) + (d[1] ? " locked" : ""); });
    case A::jog:
        return when(n == 1 || n == 4, [&] {
            return format("%lld frames", n == 1 ? static_cast<int8_t>(d[0]) : signed_be32(d));
        });
    case A::var:
        return when(n == 3, [&] {
            return format("speed %lld + %lld/256", static_cast<int8_t>(d[0]), d[1]);
        });
    default:
        return std::nullopt;
    }
}

// Bits and selectors.
Text bits_text(Args args, std::span<const uint8_t> d) {
    const size_t n = d.size();
    switch (args) {
    case A::nak:
        return when(n == 1, [&] {
            return d[0] ? names_of_bits(d[0], kNakBits, 8, ", ") : "no error bits";
        });
    case A::time_select:
        return when(n == 1, [&] {
            return d[0] & 0x3F ? names_of_bits(d[0], kTimeSources, 6, "+") : hex_of(d);
        });
    case A::status_range:
        return when(n == 1, [&] {
            return format("bytes %lld to %lld", d[0] >> 4, (d[0] >> 4) + (d[0] & 0x0F) - 1);
        });
    case A::gpi:
        return when(n == 3, [&] {
            return "transitions " + hex_of(d.subspan(1, 1)) + " levels " + hex_of(d.subspan(2));
        });
    case A::selector: // the row's name tells what it selects
        return when(n == 1, [] { return ""; });
    default:
        return std::nullopt;
    }
}

// The text of `d` read as `args`: the bytes in hex for the kinds read as hex (none with data,
// hex, status ...) and for data of another form than its kind's.
std::string args_text(Args args, std::span<const uint8_t> d) {
    for (auto family : {time_and_id_text, number_text, bits_text})
        if (Text text = family(args, d))
            return *text;
    return hex_of(d);
}

std::string joined(const char* name, const std::string& args) {
    return args.empty() ? name : std::string(name) + " " + args;
}

} // namespace

const SonyName* sony_name(std::span<const uint8_t> frame) {
    if (frame.size() < 2)
        return nullptr;
    const uint8_t cmd1 = frame[0], cmd2 = frame[1];
    const int first = frame.size() > 2 && (cmd1 & 0x0F) ? frame[2] : -1;
    const SonyName* found = nullptr;
    // An exact CMD1 before a group's row; a row for the selector before one for any.
    auto rank = [&](const SonyName& r) {
        return (r.any_count ? 0 : 2) + (r.selector >= 0 ? 1 : 0);
    };
    for (const SonyName& r : kSony) {
        const bool cmd1_fits = r.any_count ? (r.cmd1 >> 4) == (cmd1 >> 4) : r.cmd1 == cmd1;
        if (!cmd1_fits || r.cmd2 != cmd2 || (r.selector >= 0 && r.selector != first))
            continue;
        if (!found || rank(r) > rank(*found))
            found = &r;
    }
    return found;
}

std::string describe_sony(std::span<const uint8_t> frame) {
    if (frame.size() < 3 || frame.size() != (frame[0] & 0x0Fu) + 3)
        return "INCOMPLETE FRAME";
    const auto data = frame.subspan(2, frame.size() - 3);
    std::string text;
    if (const SonyName* row = sony_name(frame)) {
        text = joined(row->name, args_text(row->args, data));
    } else if ((frame[0] >> 4) == 0x7 || (frame[0] >> 4) == 0x8) {
        // An answer named for its request: "PRODUCT NAME SENSE" answered "PRODUCT NAME DATA".
        const SonyName* sense = nullptr;
        const uint8_t first = data.empty() ? 0 : data[0];
        const int request_group = (frame[0] >> 4) == 0x7 ? 0x6 : 0xA;
        for (uint8_t cmd1 : {0x60, 0x61, 0x62, 0x69, 0xA0, 0xA8})
            if (!sense && (cmd1 >> 4) == request_group)
                sense = sony_name(Bytes{cmd1, frame[1], first});
        std::string name = sense ? sense->name : "SENSE";
        if (name.ends_with(" SENSE") || name.ends_with(" REQUEST"))
            name.erase(name.rfind(' '));
        text = joined((name + " DATA").c_str(), hex_of(data));
    } else {
        text = joined("UNDEFINED", hex_of(frame.first(2)));
    }
    if (byte_sum(frame.first(frame.size() - 1)) != frame.back())
        text += " (bad checksum)";
    return text;
}

std::string describe_louth(std::span<const uint8_t> f) {
    if (f.size() == 1 && f[0] == 0x04)
        return "ACK";
    if (f.size() == 2 && f[0] == 0x05)
        return joined("NAK", args_text(A::nak, f.subspan(1)));
    if (f.size() < 5 || f[0] != 0x02 || f.size() != f[1] + 3u)
        return "INCOMPLETE FRAME";
    const auto data = f.subspan(4, f.size() - 5);
    const auto row = std::find_if(std::begin(kLouth), std::end(kLouth), [&](const LouthName& r) {
        return r.kind == f[2] >> 4 && r.cmd2 == f[3];
    });
    std::string text = row == std::end(kLouth) ? joined("UNDEFINED", hex_of(f.subspan(2, 2)))
                                               : joined(row->name, args_text(row->args, data));
    if (f[2] & 0x0F)
        text += format(" (unit %lld)", f[2] & 0x0F);
    if (static_cast<uint8_t>(byte_sum(f.subspan(2))) != 0)
        text += " (bad checksum)";
    return text;
}

std::string describe_stream(std::span<const uint8_t> m, bool from_device) {
    if (m.size() < kStreamHeader)
        return "INCOMPLETE MESSAGE";
    const std::string tag(m.begin(), m.begin() + 4);
    const uint32_t arg1 = be32(&m[4]), arg2 = be32(&m[8]);
    if (tag == "s9p ")
        return "SONY FRAME " + describe_sony(m.subspan(kStreamHeader));
    const auto row = std::find_if(std::begin(kStream), std::end(kStream),
                                  [&](const StreamName& r) { return tag == r.tag; });
    const char* name = row == std::end(kStream) ? nullptr
                       : from_device            ? row->answer
                                                : row->request;
    if (!name)
        return "UNKNOWN TAG " + text_of(m.first(4));
    if (tag == "ver " && from_device)
        return format("VERSION %lld.%lld", arg1, arg2);
    if (from_device && row->request) // an answer announcing the size of what "data" sends
        return std::string(name) + format(" %lld bytes", arg1);
    if (tag == "uuuu")
        return std::string(name) + format(" %lld", arg1);
    if (tag == "pgop")
        return std::string(name) + format(" %lld bytes", arg2);
    return name;
}

std::string describe_mgmt(std::span<const uint8_t> d, bool from_device) {
    if (d.size() < kDatagramHeader || be16(d.data()) != kMgmtDatagram)
        return "NOT A MANAGEMENT DATAGRAM";
    const uint16_t code = be16(&d[4]);
    const long size = static_cast<long>(d.size() - kDatagramHeader);
    static constexpr const char* kRequests[] = {"PUT DISK INFORMATION", "GET DISK INFORMATION",
                                                "GET LOG"};
    static constexpr const char* kAnswers[] = {"UPLOAD ACCEPTED", "DISK INFORMATION", "LOG"};
    const char* const* names = from_device ? kAnswers : kRequests;
    std::string name =
        code < 3 ? names[code] : format(from_device ? "PICTURE %lld" : "GET PICTURE %lld", code);
    return size > 0 ? name + format(" %lld bytes", size) : name;
}

} // namespace devsim
