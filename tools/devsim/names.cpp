// The names of the frames of every protocol the emulator speaks, and their arguments as text. The
// dissector (tools/wireshark/vlm.lua) keeps a table of its own with the same names; the dissector
// stage of scripts/test checks the two row by row.
#include "names.h"

#include "model.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <toolkit.h>

namespace devsim {

namespace {

using A = Args;
constexpr bool any = true;

// clang-format off
constexpr SonyName kSony[] = {
    // System control, and the device's plain answers.
    {0x00, false, 0x0C, -1, "LOCAL DISABLE", A::none},
    {0x00, false, 0x11, -1, "DEVICE TYPE REQUEST", A::none},
    {0x00, false, 0x1D, -1, "LOCAL ENABLE", A::none},
    {0x10, false, 0x01, -1, "ACK", A::none},
    {0x11, false, 0x12, -1, "NAK", A::nak},
    {0x12, false, 0x11, -1, "DEVICE TYPE", A::hex},
    // Transport control.
    {0x20, false, 0x00, -1, "STOP", A::none},
    {0x20, false, 0x01, -1, "PLAY", A::none},
    {0x20, false, 0x02, -1, "RECORD", A::none},
    {0x20, false, 0x04, -1, "STANDBY OFF", A::none},
    {0x20, false, 0x05, -1, "STANDBY ON", A::none},
    {0x20, false, 0x0F, -1, "EJECT", A::none},
    {0x20, false, 0x10, -1, "FAST FWD", A::none},
    {0x20, any, 0x11, -1, "JOG FWD", A::speed},
    {0x20, any, 0x12, -1, "VAR FWD", A::speed},
    {0x20, any, 0x13, -1, "SHUTTLE FWD", A::speed},
    {0x20, any, 0x14, -1, "FRAME STEP FWD", A::steps},
    {0x20, false, 0x20, -1, "REWIND", A::none},
    {0x20, any, 0x21, -1, "JOG REV", A::speed},
    {0x20, any, 0x22, -1, "VAR REV", A::speed},
    {0x20, any, 0x23, -1, "SHUTTLE REV", A::speed},
    {0x20, any, 0x24, -1, "FRAME STEP REV", A::steps},
    {0x20, false, 0x30, -1, "PREROLL", A::none},
    {0x20, false, 0x31, -1, "CUE UP", A::none},
    {0x24, false, 0x31, -1, "CUE UP WITH DATA", A::tc},
    {0x20, false, 0x34, -1, "SYNC PLAY", A::none},
    {0x21, false, 0x38, -1, "PROGRAM SPEED PLAY +", A::speed},
    {0x21, false, 0x39, -1, "PROGRAM SPEED PLAY -", A::speed},
    {0x20, false, 0x40, -1, "PREVIEW", A::none},
    {0x20, false, 0x41, -1, "REVIEW", A::none},
    {0x20, false, 0x42, -1, "AUTO EDIT", A::none},
    {0x20, false, 0x43, -1, "OUTPOINT PREVIEW", A::none},
    {0x20, false, 0x60, -1, "FULL EE OFF", A::none},
    {0x20, false, 0x61, -1, "FULL EE ON", A::none},
    {0x20, false, 0x63, -1, "SELECT EE ON", A::none},
    {0x20, false, 0x64, -1, "EDIT OFF", A::none},
    {0x20, false, 0x65, -1, "EDIT ON", A::none},
    {0x20, false, 0x6A, -1, "FREEZE OFF", A::none},
    {0x20, false, 0x6B, -1, "FREEZE ON", A::none},
    {0x24, false, 0x9D, -1, "PRESET CURRENT FIELD", A::field},
    {0x2A, false, 0xAC, -1, "SAVE CLIP PARAMETERS", A::clip_save},
    // Device set-up.
    {0x30, false, 0x04, -1, "INITIALIZE", A::none},
    {0x30, false, 0x07, -1, "REMOUNT", A::none},
    {0x31, false, 0x10, -1, "PRESET CHANNEL", A::value},
    {0x34, false, 0x09, -1, "RESET", A::text},
    // Preset and select.
    {0x40, false, 0x00, -1, "CLOSED CAPTION OFF", A::none},
    {0x40, false, 0x01, -1, "CLOSED CAPTION ON", A::none},
    {0x44, false, 0x00, -1, "TIMER-1 PRESET", A::tc},
    {0x41, false, 0x03, -1, "CAPTION FOREGROUND", A::value},
    {0x41, false, 0x04, -1, "CAPTION BACKGROUND", A::value},
    {0x44, false, 0x04, -1, "TIME CODE PRESET", A::tc},
    {0x41, false, 0x05, -1, "VIDEO FORMAT", A::value},
    {0x44, false, 0x05, -1, "USER BITS PRESET", A::hex},
    {0x41, false, 0x06, -1, "VIDEO COLOR SPACE", A::value},
    {0x41, false, 0x07, -1, "VIDEO ASPECT RATIO", A::value},
    {0x41, false, 0x08, -1, "CAPTION GEOMETRY", A::value},
    {0x40, false, 0x10, -1, "IN ENTRY", A::none},
    {0x40, false, 0x11, -1, "OUT ENTRY", A::none},
    {0x40, false, 0x12, -1, "AUDIO IN ENTRY", A::none},
    {0x40, false, 0x13, -1, "AUDIO OUT ENTRY", A::none},
    {0x44, false, 0x14, -1, "IN DATA PRESET", A::tc},
    {0x40, any, 0x14, -1, "IN PRESET", A::tc_id},
    {0x44, false, 0x15, -1, "OUT DATA PRESET", A::tc},
    {0x40, false, 0x15, -1, "OUT PRESET", A::none},
    {0x44, false, 0x16, -1, "AUDIO IN DATA PRESET", A::tc},
    {0x44, false, 0x17, -1, "AUDIO OUT DATA PRESET", A::tc},
    {0x40, false, 0x18, -1, "IN SHIFT +", A::none},
    {0x40, false, 0x19, -1, "IN SHIFT -", A::none},
    {0x40, false, 0x1A, -1, "OUT SHIFT +", A::none},
    {0x40, false, 0x1B, -1, "OUT SHIFT -", A::none},
    {0x40, false, 0x1C, -1, "AUDIO IN SHIFT +", A::none},
    {0x40, false, 0x1D, -1, "AUDIO IN SHIFT -", A::none},
    {0x40, false, 0x1E, -1, "AUDIO OUT SHIFT +", A::none},
    {0x40, false, 0x1F, -1, "AUDIO OUT SHIFT -", A::none},
    {0x40, false, 0x20, -1, "IN RESET", A::none},
    {0x40, false, 0x21, -1, "OUT RESET", A::none},
    {0x40, false, 0x22, -1, "AUDIO IN RESET", A::none},
    {0x40, false, 0x23, -1, "AUDIO OUT RESET", A::none},
    {0x40, false, 0x24, -1, "IN RECALL", A::none},
    {0x40, false, 0x25, -1, "OUT RECALL", A::none},
    {0x40, false, 0x26, -1, "AUDIO IN RECALL", A::none},
    {0x40, false, 0x27, -1, "AUDIO OUT RECALL", A::none},
    {0x40, any, 0x30, -1, "EDIT PRESET", A::hex},
    {0x44, false, 0x31, -1, "PREROLL TIME PRESET", A::tc},
    {0x41, false, 0x36, -1, "TIMER MODE SELECT", A::value},
    {0x40, false, 0x40, -1, "AUTO MODE OFF", A::none},
    {0x40, false, 0x41, -1, "AUTO MODE ON", A::none},
    {0x44, false, 0x96, -1, "PRESET PREVIOUS CLIP", A::clips},
    {0x44, false, 0x97, -1, "PRESET NEXT CLIP", A::clips},
    {0x44, false, 0xB4, -1, "PRESET FIELD 0", A::field},
    {0x44, false, 0xB5, -1, "PRESET LAST FIELD", A::field},
    {0x42, false, 0xB4, 0x00, "AUDIO RENDERING", A::selector_value},
    {0x42, false, 0xB4, 0x01, "AUDIO S/PDIF", A::selector_value},
    {0x41, false, 0xB7, -1, "LOOP MODE", A::flag},
    {0x43, false, 0xBF, 0xF0, "GPI ACTIVITY", A::gpi},
    {0x40, any, 0xC0, -1, "MENU SAVE SECTION", A::section_bytes},
    {0x41, false, 0xC1, -1, "MENU COMMIT SECTION", A::section},
    {0x40, false, 0xC2, -1, "MENU SAVE FLASH", A::none},
    {0x40, false, 0xC3, -1, "MENU RECALL CURRENT", A::none},
    {0x40, false, 0xC4, -1, "MENU RECALL FLASH", A::none},
    {0x40, false, 0xC5, -1, "MENU PRESET DEFAULT", A::none},
    // Sense requests.
    {0x61, false, 0x0C, -1, "CURRENT TIME SENSE", A::time_select},
    {0x61, false, 0x0C, 0x04, "CURRENT TIME SENSE", A::selector}, // this system's: the position
    {0x60, false, 0x10, -1, "IN DATA SENSE", A::none},
    {0x60, false, 0x11, -1, "OUT DATA SENSE", A::none},
    {0x60, false, 0x12, -1, "AUDIO IN DATA SENSE", A::none},
    {0x60, false, 0x13, -1, "AUDIO OUT DATA SENSE", A::none},
    {0x61, false, 0x20, -1, "STATUS SENSE", A::status_range},
    {0x61, false, 0x21, -1, "EXTENDED STATUS SENSE", A::status_range},
    {0x60, false, 0x2E, -1, "SPEED SENSE", A::none},
    {0x61, false, 0x30, -1, "EDIT PRESET SENSE", A::value},
    {0x60, false, 0x31, -1, "PREROLL TIME SENSE", A::none},
    {0x60, false, 0x33, -1, "SERVO REFERENCE SENSE", A::none},
    {0x60, false, 0x36, -1, "TIMER MODE SENSE", A::none},
    {0x60, false, 0x38, -1, "FRAME MODE SENSE", A::none},
    {0x60, false, 0x3C, -1, "POSTROLL TIME SENSE", A::none},
    {0x60, false, 0x3E, -1, "RECORD INHIBIT SENSE", A::none},
    {0x60, false, 0x50, -1, "INPUT SOURCE SENSE", A::none},
    {0x60, false, 0x78, -1, "SYNC OFFSET SENSE", A::none},
    {0x60, false, 0x90, -1, "RESOLUTION SENSE", A::none},
    {0x60, false, 0x91, -1, "CHASE MODE SENSE", A::none},
    {0x61, false, 0x94, -1, "COMPRESSION RATIO SENSE", A::value},
    {0x60, false, 0x95, -1, "VERSION SENSE", A::none},
    {0x62, false, 0x9A, -1, "CLIP PARAMETERS SENSE", A::clip},
    {0x60, false, 0x9F, -1, "CAPACITY SENSE", A::none},
    {0x60, false, 0xA1, -1, "DISK NAME SENSE", A::none},
    {0x60, false, 0xA2, -1, "CURRENT FIELD SENSE", A::none},
    {0x60, false, 0xA8, -1, "CACHE SIZE SENSE", A::none},
    {0x60, false, 0xA9, -1, "STEP RECORD SENSE", A::none},
    {0x60, false, 0xAA, -1, "ODETICS CAPABILITY SENSE", A::none},
    {0x60, false, 0xAD, -1, "AUDIO CHANNELS SENSE", A::none},
    {0x60, false, 0xAE, -1, "VIDEO STANDARD SENSE", A::none},
    {0x60, false, 0xB0, -1, "HARDWARE SENSE", A::none},
    {0x61, false, 0xB0, -1, "PROTOCOL VERSION SENSE", A::value},
    {0x60, false, 0xB1, -1, "PRODUCT NAME SENSE", A::none},
    {0x60, false, 0xB2, -1, "SERIAL NUMBER OR CAPTURE STATUS SENSE", A::none},
    {0x60, false, 0xB3, -1, "IP ADDRESS SENSE", A::none},
    {0x61, false, 0xB3, 0x00, "CURRENT VIDEO INFO SENSE", A::selector},
    {0x61, false, 0xB3, 0x02, "START-UP VIDEO INFO SENSE", A::selector},
    {0x61, false, 0xB4, 0x00, "CURRENT AUDIO INFO SENSE", A::selector},
    {0x61, false, 0xB4, 0x02, "START-UP AUDIO INFO SENSE", A::selector},
    {0x60, any, 0xBB, 0x01, "FILE VIDEO INFO SENSE", A::file},
    {0x60, any, 0xBC, 0x01, "FILE AUDIO INFO SENSE", A::file},
    {0x60, false, 0xB4, -1, "FIELD 0 SENSE", A::none},
    {0x60, false, 0xB5, -1, "LAST FIELD SENSE", A::none},
    {0x60, false, 0xB7, -1, "LOOP MODE SENSE", A::none},
    {0x61, false, 0xC0, -1, "MENU SECTION SENSE", A::section},
    {0x61, false, 0xC1, 0x00, "ERROR SENSE", A::selector},
    {0x61, false, 0xC1, 0x01, "LOADED ID SENSE", A::selector},
    {0x61, false, 0xC1, 0x02, "CLIP RANGE SENSE", A::selector},
    {0x69, false, 0xC1, 0x03, "ID LENGTH SENSE", A::selector_id},
    // Sense answers (the others are named for their sense: "... DATA").
    {0x74, false, 0x00, -1, "TIMER-1 DATA", A::tc},
    {0x74, false, 0x01, -1, "TIMER-2 DATA", A::tc},
    {0x74, false, 0x04, -1, "LTC TIME DATA", A::tc},
    {0x74, false, 0x05, -1, "LTC USER BITS DATA", A::hex},
    {0x74, false, 0x06, -1, "VITC TIME DATA", A::tc},
    {0x74, false, 0x07, -1, "VITC USER BITS DATA", A::hex},
    {0x78, false, 0x04, -1, "LTC TIME AND USER BITS DATA", A::tc_ub},
    {0x78, false, 0x06, -1, "VITC TIME AND USER BITS DATA", A::tc_ub},
    {0x74, false, 0x14, -1, "CORRECTED LTC TIME DATA", A::tc},
    {0x78, false, 0x14, -1, "CORRECTED LTC TIME AND USER BITS DATA", A::tc_ub},
    {0x74, false, 0x16, -1, "HOLD VITC TIME DATA", A::tc},
    {0x78, false, 0x16, -1, "HOLD VITC TIME AND USER BITS DATA", A::tc_ub},
    {0x74, false, 0x10, -1, "IN DATA", A::tc},
    {0x74, false, 0x11, -1, "OUT DATA", A::tc},
    {0x74, false, 0x12, -1, "AUDIO IN DATA", A::tc},
    {0x74, false, 0x13, -1, "AUDIO OUT DATA", A::tc},
    {0x70, any, 0x20, -1, "STATUS DATA", A::hex},
    {0x70, any, 0x21, -1, "EXTENDED STATUS DATA", A::hex},
    {0x74, false, 0x31, -1, "PREROLL TIME DATA", A::tc},
    // Odetics, and its answers.
    {0xA0, false, 0x01, -1, "AUTO SKIP", A::none},
    {0xA0, any, 0x02, -1, "RECORD CUE UP", A::tc_id},
    {0xA0, any, 0x04, -1, "PREVIEW IN PRESET", A::tc_id},
    {0xA0, any, 0x05, -1, "PREVIEW OUT PRESET", A::tc_id},
    {0xA0, false, 0x06, -1, "PREVIEW IN RESET", A::none},
    {0xA0, false, 0x07, -1, "PREVIEW OUT RESET", A::none},
    {0xA0, false, 0x10, -1, "ERASE ALL IDS", A::none},
    {0xA8, false, 0x10, -1, "ERASE ID", A::id},
    {0xA8, false, 0x11, -1, "ERASE SEGMENT", A::tc2},
    {0xA0, false, 0x14, -1, "LIST FIRST ID", A::none},
    {0xA0, false, 0x15, -1, "LIST NEXT ID", A::none},
    {0xA8, false, 0x18, -1, "ID STATUS REQUEST", A::id},
    {0xA0, false, 0x1C, -1, "STORAGE TIME SENSE", A::none},
    {0xA8, false, 0x20, -1, "SET DEVICE ID", A::text},
    {0xA0, false, 0x21, -1, "DEVICE ID REQUEST", A::none},
    {0x88, false, 0x14, -1, "FIRST ID", A::id},
    {0x88, false, 0x15, -1, "NEXT ID", A::id},
    {0x80, false, 0x14, -1, "END OF ID LIST", A::none},
    {0x80, false, 0x15, -1, "END OF ID LIST", A::none},
    {0x81, false, 0x18, -1, "ID STATUS", A::value},
    {0x84, false, 0x1C, -1, "STORAGE TIME DATA", A::tc},
    {0x88, false, 0x21, -1, "DEVICE ID", A::text},
};
// clang-format on

struct LouthName {
    uint8_t kind; // CMD1's high nibble
    uint8_t cmd2;
    const char* name;
    Args args;
};

// Louth (VDCP): commands, and the sense answers (CMD2 with bit 7 set).
constexpr LouthName kLouth[] = {
    {0x1, 0x00, "STOP", A::none},
    {0x1, 0x01, "PLAY", A::none},
    {0x1, 0x02, "RECORD", A::none},
    {0x1, 0x03, "FREEZE", A::none},
    {0x1, 0x04, "STILL", A::none},
    {0x1, 0x05, "STEP", A::none},
    {0x1, 0x06, "CONTINUE", A::none},
    {0x1, 0x07, "JOG", A::jog},
    {0x1, 0x08, "VARIABLE PLAY", A::var},
    {0x1, 0x09, "UNFREEZE", A::none},
    {0x1, 0x0A, "EE MODE", A::value},
    {0x2, 0x21, "CLOSE PORT", A::port},
    {0x2, 0x22, "SELECT PORT", A::port},
    {0x2, 0x23, "RECORD INIT", A::id_tcs},
    {0x2, 0x24, "PLAY CUE", A::id},
    {0x2, 0x25, "CUE WITH DATA", A::id_tcs},
    {0x2, 0x26, "DELETE ID", A::id},
    {0x2, 0x29, "CLEAR", A::none},
    {0x3, 0x01, "OPEN PORT", A::open_port},
    {0x3, 0x02, "NEXT", A::none},
    {0x3, 0x05, "PORT STATUS REQUEST", A::hex},
    {0x3, 0x06, "POSITION REQUEST", A::hex},
    {0x3, 0x07, "ACTIVE ID REQUEST", A::none},
    {0x3, 0x10, "SYSTEM STATUS REQUEST", A::hex},
    {0x3, 0x11, "ID LIST", A::none},
    {0x3, 0x14, "ID SIZE REQUEST", A::id},
    {0x3, 0x16, "ID REQUEST", A::id},
    {0x3, 0x81, "PORT GRANT", A::value},
    {0x3, 0x82, "NEXT ID", A::id},
    {0x3, 0x85, "PORT STATUS", A::hex},
    {0x3, 0x86, "POSITION", A::what_tc},
    {0x3, 0x87, "ACTIVE ID", A::what_id},
    {0x3, 0x90, "SYSTEM STATUS", A::hex},
    {0x3, 0x91, "ID LIST", A::id},
    {0x3, 0x94, "ID SIZE", A::tc},
    {0x3, 0x96, "ID", A::value},
};

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

// The text of `d` read as `args`; the bytes in hex when they do not have its form.
std::string args_text(Args args, std::span<const uint8_t> d) {
    const size_t n = d.size();
    auto tc = [&](size_t at) { return bcd_text(d.data() + at); };
    auto id = [&](size_t at) { return text_of(d.subspan(at, 8)); };
    switch (args) {
    case A::none:
        return n == 0 ? "" : hex_of(d);
    case A::tc:
        if (n == 4)
            return tc(0);
        break;
    case A::tc2:
        if (n == 8)
            return tc(0) + " " + tc(4);
        break;
    case A::tc_id:
        if (n == 0 || n == 4 || n == 8 || n == 12)
            return n == 0 ? "" : n == 4 ? tc(0) : n == 8 ? id(0) : tc(0) + " " + id(4);
        break;
    case A::tc_ub:
        if (n == 8)
            return tc(0) + " user bits " + hex_of(d.subspan(4));
        break;
    case A::id:
        if (n == 8)
            return id(0);
        break;
    case A::speed:
        if (n == 1)
            return format("speed %lld (%lld%% of play)", d[0],
                          std::lround(100 * std::pow(10.0, d[0] / 32.0 - 2)));
        break;
    case A::steps:
        if (n <= 1)
            return n == 0 ? "" : format("%lld frames", d[0]);
        break;
    case A::value:
        if (n == 1)
            return std::to_string(d[0]);
        break;
    case A::flag:
        if (n == 1)
            return d[0] ? "on" : "off";
        break;
    case A::field:
        if (n == 4)
            return std::to_string(be32(d.data()));
        break;
    case A::clip:
        if (n == 2)
            return format("clip %lld", clip_number(d));
        break;
    case A::clips:
        if (n == 4)
            return format("clips %lld %lld", clip_number(d), clip_number(d.subspan(2)));
        break;
    case A::clip_save:
        if (n == 10)
            return format("clip %lld", clip_number(d)) +
                   format(" values %lld %lld", be32(&d[2]), be32(&d[6]));
        break;
    case A::text:
        return text_of(d);
    case A::time_select:
        if (n == 1)
            return d[0] & 0x3F ? names_of_bits(d[0], kTimeSources, 6, "+") : hex_of(d);
        break;
    case A::status_range:
        if (n == 1)
            return format("bytes %lld to %lld", d[0] >> 4, (d[0] >> 4) + (d[0] & 0x0F) - 1);
        break;
    case A::nak:
        if (n == 1)
            return d[0] ? names_of_bits(d[0], kNakBits, 8, ", ") : "no error bits";
        break;
    case A::selector:
        if (n == 1)
            return "";
        break;
    case A::selector_id:
        if (n == 9)
            return id(1);
        break;
    case A::file:
        if (n == 1 || n == 9)
            return n == 1 ? "" : text_of(d.subspan(1));
        break;
    case A::gpi:
        if (n == 3)
            return "transitions " + hex_of(d.subspan(1, 1)) + " levels " + hex_of(d.subspan(2));
        break;
    case A::section:
        if (n == 1)
            return format("section %lld", d[0]);
        break;
    case A::section_bytes:
        if (n >= 1)
            return format("section %lld", d[0]) + (n > 1 ? " " + hex_of(d.subspan(1)) : "");
        break;
    case A::selector_value:
        if (n == 2)
            return std::to_string(d[1]);
        break;
    case A::port:
        if (n == 1)
            return format("port %lld", d[0] & 0x80 ? -(d[0] & 0x7F) : d[0]);
        break;
    case A::open_port:
        if (n == 2)
            return args_text(A::port, d.first(1)) + (d[1] ? " locked" : "");
        break;
    case A::id_tcs:
        if (n == 8 || n == 16)
            return id(0) + (n == 16 ? " " + tc(8) + " " + tc(12) : "");
        break;
    case A::jog:
        if (n == 1 || n == 4)
            return format("%lld frames", n == 1 ? static_cast<int8_t>(d[0]) : signed_be32(d));
        break;
    case A::var:
        if (n == 3)
            return format("speed %lld + %lld/256", static_cast<int8_t>(d[0]), d[1]);
        break;
    case A::what_tc:
        if (n == 5)
            return tc(1);
        break;
    case A::what_id:
        if (n >= 1)
            return text_of(d.subspan(1));
        break;
    case A::hex:
        break;
    }
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
