// What the emulator hears and says, in words: one table of names per protocol (Sony 9-pin with its
// Odetics and media commands, Louth, the connection protocol's tags, the management codes), and
// the text of each frame's arguments, as the log prints it beside the hex:
// "24 31 00 00 10 00 65  CUE UP WITH DATA 00:10:00:00". The Sony and Louth names, and how each
// command's data reads, come from tools/common/command_names.txt, as the dissector's do.
#pragma once

#include "wire.h"

#include <cstdint>
#include <span>
#include <string>

namespace devsim {

// How a frame's data reads (the decoders are in names.cpp): the DATA of the table's rows. Some
// read alike here and apart in the dissector, which gives their parts fields of their own.
enum class Args : uint8_t {
    none,
    hex,         // the bytes in hex
    status,      // status bytes, in hex
    tc,          // a BCD timecode
    tc_or_none,  // a timecode, or nothing
    tc2,         // two timecodes
    tc_id,       // the Odetics preset forms: nothing, a timecode, an ID, a timecode then an ID
    tc_ub,       // a timecode, then 4 bytes of user bits
    id,          // an 8-byte clip ID
    id_list,     // Louth: an ID of a list, or fewer bytes at its end
    speed,       // a speed byte (64 is play speed, each 32 more ten times faster)
    steps,       // a frame count, or none for one frame
    value,       // one byte, in decimal
    mode,        // Louth: a mode byte, in decimal
    granted,     // Louth: whether a port was granted, 1 or 0
    found,       // Louth: whether an ID is stored, 1 or 0
    flag,        // one byte, on or off
    field,       // a 32-bit field number
    clip,        // a clip number, 4 BCD digits
    clips,       // two clip numbers
    clip_save,   // a clip number and two 32-bit values
    text,        // ASCII
    time_select, // the current time sense's sources
    status_range,
    nak,         // the NAK's error bits
    selector,    // a selector byte, which the row's name already tells
    selector_id, // a selector byte, then an ID
    file,        // a selector byte, then a file name padded with zero bytes
    gpi,         // F0, the transitions, the levels
    section,     // a menu section number
    section_bytes,
    selector_value,
    // Louth
    port,
    open_port, // a port and its lock flag
    id_tcs,    // an ID, then two timecodes when given
    jog,           // a signed frame count, one byte or four
    var,           // a signed whole speed and a fraction byte
    what,          // which status bytes or position a request asks for, in hex
    position,      // which position, then a timecode
    active_id,     // which ID, then the ID
    system_status, // the IDs stored and the storage left, in hex
};

// One row of the Sony table: a frame is known by CMD1 (exactly, or any data count of CMD1's group),
// CMD2 and, where it tells commands apart, the first data byte.
struct SonyName {
    uint8_t cmd1;
    bool any_count;
    uint8_t cmd2;
    int16_t selector; // -1: any
    const char* name;
    Args args;
};

// The row of a Sony-family frame (CMD1, CMD2, data; a checksum may follow), or null for a frame
// that neither the public tables nor this system's server define. Answers (groups 1, 7 and 8) have
// rows too.
const SonyName* sony_name(std::span<const uint8_t> frame);

// The texts, each "NAME arguments": a whole Sony frame with its checksum; a Louth answer or frame
// (02, count, CMD1, CMD2, data, checksum); a connection-protocol message (its 12-byte header and a
// "s9p " frame), from the controller or from the device; a management datagram.
std::string describe_sony(std::span<const uint8_t> frame);
std::string describe_louth(std::span<const uint8_t> frame);
std::string describe_stream(std::span<const uint8_t> message, bool from_device);
std::string describe_mgmt(std::span<const uint8_t> datagram, bool from_device);

} // namespace devsim
