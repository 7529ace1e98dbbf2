// zqctl's transport commands and senses, in their Sony and Louth forms, the raw frame and watch.
#include "zqctl.h"

#include "cli.h"
#include "output.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <thread>
#include <zqhandler/zqhandler_louth.h>
#include <zqhandler/zqhandler_sony.h>

namespace zqctl {
namespace {

// The named bits of the Sony status bytes 0 to 2.
struct StatusBit {
    int byte;
    uint8_t mask;
    const char* name;
};
constexpr StatusBit kStatusBits[] = {
    {0, 0x01, "local"},   {0, 0x04, "hard-error"},   {0, 0x20, "cassette-out"},
    {1, 0x01, "play"},    {1, 0x02, "record"},       {1, 0x04, "fast-forward"},
    {1, 0x08, "rewind"},  {1, 0x10, "eject"},        {1, 0x20, "stop"},
    {1, 0x80, "standby"}, {2, 0x01, "cue-complete"}, {2, 0x02, "still"},
    {2, 0x04, "reverse"}, {2, 0x08, "var"},          {2, 0x10, "jog"},
    {2, 0x20, "shuttle"}, {2, 0x80, "servo-lock"},
};

// The senses by name, as zqhandler_cmd_sense_basic knows them.
struct SenseName {
    const char* name;
    e_basic_sense sense;
};
constexpr SenseName kSenses[] = {
    {"status", BAS_SENSE_STATUS},
    {"errors", BAS_SENSE_ERRORS},
    {"product", BAS_SENSE_PRODUCT},
    {"version", BAS_SENSE_VERSION},
    {"timecode", BAS_SENSE_TC},
    {"serial", BAS_SENSE_SERIAL},
    {"odetics", BAS_SENSE_ODETICS_CAPABILITY},
    {"storage", BAS_SENSE_ODETICS_STORAGE},
    {"device-id", BAS_SENSE_ODETICS_DEVICE_ID},
    {"loaded-id", BAS_SENSE_LOADED_ID},
    {"device-type", BAS_SENSE_DEVICE_TYPE},
    {"preroll", BAS_SENSE_PREROLL},
    {"postroll", BAS_SENSE_POSTROLL},
    {"speed", BAS_SENSE_SPEED},
    {"frame-mode", BAS_SENSE_FRAME_MODE},
    {"record-inhibit", BAS_SENSE_REC_INHIBIT},
    {"timer-mode", BAS_SENSE_TIMER_MODE},
    {"servo-ref", BAS_SENSE_SERVO_REF},
    {"input-source", BAS_SENSE_INPUT_SOURCE},
    {"sync-offset", BAS_SENSE_SYNC_OFFSET},
    {"resolution", BAS_SENSE_RESOLUTION},
    {"chase-mode", BAS_SENSE_CHASE_MODE},
    {"comp-ratio", BAS_SENSE_COMP_RATIO},
    {"current-field", BAS_SENSE_CURRENT_FIELD},
    {"capacity", BAS_SENSE_ZQ_CAPACITY},
    {"disk-name", BAS_SENSE_DISK_NAME},
    {"cache-size", BAS_SENSE_CACHE_SIZE},
    {"step-record", BAS_SENSE_STEP_REC},
    {"audio-channels", BAS_SENSE_NR_AUDIO_CHANNEL},
    {"video-standard", BAS_SENSE_VIDEO_STD},
    {"ip-address", BAS_SENSE_IP_ADDRESS},
    {"field0", BAS_SENSE_FIELD0},
    {"hardware", BAS_SENSE_HARDWARE},
    {"last-field", BAS_SENSE_LAST_FIELD},
    {"protocol-version", BAS_SENSE_PROTOCOL_VERSION},
    {"loop-mode", BAS_SENSE_LOOP_MODE},
};

// A Sony frame built from bytes (raw) carries at most this many data bytes: the frame builder
// takes the low four bits of its count of bytes, CMD1 and CMD2 included.
constexpr int kMiscMaxData = 13;

[[noreturn]] void louth_only(const char* operation, const char* instead) {
    refused(operation, std::string("not a Louth command") + (*instead ? "; " : "") + instead);
}

// A basic command in the protocol of the session (Louth has no eject, fast forward or rewind).
int basic(Session& s, const char* operation, e_basic_command command) {
    if (s.louth && (command == BAS_CMD_EJECT || command == BAS_CMD_FF || command == BAS_CMD_RW))
        louth_only(operation, "");
    int result = s.louth ? zqhandler_cmd_louth_basic(s.handle(), command, s.unit)
                         : zqhandler_cmd_basic(s.handle(), command);
    return result == 0 ? 0 : failed(s, operation);
}

#define BASIC(word, command) [](Session& s, Args) { return basic(s, word, command); }

int step(Session& s, Args args) {
    // Sony carries the count in one byte, its sign in the command.
    const int64_t count = args.empty() ? 1 : cli::integer(args[0], -255, 255, "step");
    if (s.louth && count != 1)
        louth_only("step", "Louth steps one frame forward");
    int result = s.louth ? zqhandler_cmd_louth_basic(s.handle(), BAS_CMD_STEP_FWD, s.unit)
                         : zqhandler_cmd_step(s.handle(), static_cast<int>(count));
    return result == 0 ? 0 : failed(s, "step");
}

// jog, var and shuttle: a signed speed in percent of play speed, up to the 1000 % the Sony speed
// byte reaches (Louth var: in hundredths, up to what its signed byte of whole speeds carries;
// Louth jog: frames).
int motion(Session& s, const char* operation, const char* speed_text) {
    const std::string word = operation;
    if (s.louth && word == "shuttle")
        louth_only(operation, "use var");
    const int64_t limit = !s.louth ? 1000 : word == "var" ? 12799 : INT32_MAX;
    const auto speed = static_cast<int32_t>(cli::integer(speed_text, -limit, limit, operation));
    int result = -1;
    if (s.louth) {
        result = word == "jog" ? zqhandler_cmd_louth_jog(s.handle(), s.unit, speed)
                               : zqhandler_cmd_louth_var_play(s.handle(), s.unit, speed);
    } else {
        auto run = word == "jog"   ? zqhandler_cmd_jog
                   : word == "var" ? zqhandler_cmd_var_play
                                   : zqhandler_cmd_shuttle;
        result = run(s.handle(), speed);
    }
    return result == 0 ? 0 : failed(s, operation);
}

int cue(Session& s, Args args) {
    if (s.louth)
        louth_only("cue", "use clip cue ID");
    cli::timecode(args[0], s.rate, "cue");
    // The library sends a label as drop-frame by its ";"; a ":" would name another frame.
    const std::string tc = args[0];
    if (s.rate.drop && tc[8] != ';')
        refused("cue", cli::quote(tc) + " at a drop-frame standard is written " +
                           cli::quote(tc.substr(0, 8) + ";" + tc.substr(9)));
    return zqhandler_cmd_cueWithData(s.handle(), args[0]) == 0 ? 0 : failed(s, "cue");
}

// The status bytes in hex, and the bits a controller reads by name (Sony).
int status(Session& s, Args) {
    uint8_t bytes[256] = {};
    int n = s.louth ? zqhandler_cmd_louth_sense_status(s.handle(), s.unit, bytes)
                    : zqhandler_cmd_sense_status(s.handle(), bytes);
    if (n < 0)
        return failed(s, "status");
    const std::string hex = hex_bytes({bytes, static_cast<size_t>(n)});
    std::vector<std::string> flags;
    std::string text = hex;
    for (const StatusBit& bit : kStatusBits)
        if (!s.louth && bit.byte < n && (bytes[bit.byte] & bit.mask)) {
            text += (flags.empty() ? "  " : " ") + std::string(bit.name);
            flags.push_back(bit.name);
        }
    print_line(s, s.json ? cli::json_text({{"status", hex}, {"flags", flags}}) : text);
    return 0;
}

// The current timecode as a string, or "" on failure.
bool read_timecode(Session& s, std::string& tc) {
    uint8_t text[256] = {};
    int result = s.louth ? zqhandler_cmd_louth_sense_basic(s.handle(), BAS_SENSE_TC, s.unit, text)
                         : zqhandler_cmd_sense_timecode(s.handle(), BAS_SENSE_TC,
                                                        reinterpret_cast<char*>(text));
    tc = reinterpret_cast<char*>(text);
    return result >= 0;
}

int timecode(Session& s, Args) {
    std::string tc;
    if (!read_timecode(s, tc))
        return failed(s, "timecode");
    print_text(s, "timecode", tc);
    return 0;
}

int sense(Session& s, const std::string& name) {
    const SenseName* found = nullptr;
    for (const SenseName& known : kSenses)
        if (name == known.name)
            found = &known;
    if (!found)
        refused("sense", "no sense named " + cli::quote(name));
    uint8_t out[256] = {};
    int n = s.louth ? zqhandler_cmd_louth_sense_basic(s.handle(), found->sense, s.unit, out)
                    : zqhandler_cmd_sense_basic(s.handle(), found->sense, out);
    if (n < 0)
        return failed(s, "sense " + name);
    if (found->sense == BAS_SENSE_IP_ADDRESS || (s.louth && found->sense == BAS_SENSE_TC))
        print_text(s, found->name, reinterpret_cast<char*>(out));
    else
        print_bytes(s, found->name, {out, static_cast<size_t>(n)});
    return 0;
}

// Any frame, given as hex bytes without its checksum; prints the whole answer.
int raw(Session& s, Args args) {
    std::vector<uint8_t> frame;
    for (const std::string word : args) {
        if (word.empty() || word.size() > 2 ||
            word.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
            refused("raw", cli::quote(word) + " is not a hex byte");
        frame.push_back(static_cast<uint8_t>(std::stoul(word, nullptr, 16)));
    }
    const int count = static_cast<int>(frame.size());
    const std::string announced = "CMD1 " + hex_bytes({frame.data(), 1}) + " announces " +
                                  std::to_string(frame[0] & 0x0F) + " data bytes";
    if (!s.louth && (frame[0] & 0x0F) > kMiscMaxData)
        refused("raw", announced + ", more than the " + std::to_string(kMiscMaxData) +
                           " a frame built here carries");
    if (!s.louth && count != (frame[0] & 0x0F) + 2)
        refused("raw", announced);
    if (s.louth) {
        if (zqhandler_cmd_louth_misc(s.handle(), frame.data(), count) != 0)
            return failed(s, "raw");
        const t_louth_command& answer = s.zqh->data.louth.last_rcv;
        print_bytes(s, "answer", {answer.data, answer.len});
        return 0;
    }
    uint8_t answer[S9P_MAX_FRAME];
    int n = zqhandler_cmd_sense_misc(s.handle(), frame.data(), count, answer);
    if (n < 0)
        return failed(s, "raw");
    print_bytes(s, "answer", {answer, static_cast<size_t>(n)});
    return 0;
}

volatile sig_atomic_t interrupted = 0;

// Status and timecode at the session's rate; one line per change, until interrupted.
int watch(Session& s, Args) {
    signal(SIGINT, [](int) { interrupted = 1; });
    signal(SIGTERM, [](int) { interrupted = 1; });
    const auto period = std::chrono::duration<double>(1.0 / s.rate_hz);
    std::string last;
    int64_t lines = 0;
    for (auto next = std::chrono::steady_clock::now(); !interrupted;
         next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(period)) {
        std::this_thread::sleep_until(next);
        uint8_t bytes[256] = {};
        std::string tc;
        int n = s.louth ? zqhandler_cmd_louth_sense_status(s.handle(), s.unit, bytes)
                        : zqhandler_cmd_sense_status(s.handle(), bytes);
        if (n < 0 || !read_timecode(s, tc))
            return failed(s, "watch");
        const std::string hex = hex_bytes({bytes, static_cast<size_t>(n)});
        const std::string line =
            s.json ? cli::json_text({{"timecode", tc}, {"status", hex}}) : tc + "  " + hex;
        if (line == last)
            continue;
        print_line(s, line);
        if (cli::output_lost())
            return 1;
        last = line;
        if (s.count > 0 && ++lines >= s.count)
            break;
    }
    return 0;
}

const Command kCommands[] = {
    {"play", "", 0, 0, BASIC("play", BAS_CMD_PLAY), "play"},
    {"stop", "", 0, 0, BASIC("stop", BAS_CMD_STOP), "stop"},
    {"still", "", 0, 0, BASIC("still", BAS_CMD_STILL), "still (standby on)"},
    {"continue", "", 0, 0, BASIC("continue", BAS_CMD_CONTINUE), "leave still"},
    {"record", "", 0, 0, BASIC("record", BAS_CMD_RECORD), "record"},
    {"eject", "", 0, 0, BASIC("eject", BAS_CMD_EJECT), "eject (Sony)"},
    {"ff", "", 0, 0, BASIC("ff", BAS_CMD_FF), "fast forward (Sony)"},
    {"rw", "", 0, 0, BASIC("rw", BAS_CMD_RW), "rewind (Sony)"},
    {"step", "[N]", 0, 1, step, "step N frames, -255 to 255 (negative: back; Louth: one)"},
    {"jog", "SPEED", 1, 1, [](Session& s, Args a) { return motion(s, "jog", a[0]); },
     "jog at SPEED percent (to 1000), negative in reverse (Louth: frames)"},
    {"var", "SPEED", 1, 1, [](Session& s, Args a) { return motion(s, "var", a[0]); },
     "variable play at SPEED percent, negative in reverse"},
    {"shuttle", "SPEED", 1, 1, [](Session& s, Args a) { return motion(s, "shuttle", a[0]); },
     "shuttle at SPEED percent, negative in reverse (Sony)"},
    {"cue", "TIMECODE", 1, 1, cue, "cue to HH:MM:SS:FF, a label of --standard (Sony)"},
    {"status", "", 0, 0, status, "the status bytes and their named bits"},
    {"timecode", "", 0, 0, timecode, "the current timecode"},
    {"device type", "", 0, 0, [](Session& s, Args) { return sense(s, "device-type"); },
     "the device type bytes"},
    {"sense", "NAME", 1, 1, [](Session& s, Args a) { return sense(s, a[0]); },
     "any basic sense by name (zqctl sense list names them)"},
    {"sense list", "", 0, 0,
     [](Session& s, Args) {
         std::vector<std::string> names;
         for (const SenseName& known : kSenses)
             names.push_back(known.name);
         print_list(s, "senses", names);
         return 0;
     },
     "the names of the senses"},
    {"raw", "HEX...", 2, 17, raw, "any frame (no checksum); prints the answer in hex"},
    {"watch", "", 0, 0, watch, "print status and timecode at each change, until interrupted"},
};

} // namespace

std::span<const Command> transport_commands() {
    return kCommands;
}

} // namespace zqctl
