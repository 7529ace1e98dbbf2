// The server's set-up as directives: one a line in a scenario file, or one an option on devsim's
// command line ("--clip NEWS" is the directive "clip NEWS"), read by the same code so that a
// failure can be played again either way. Blank lines and lines starting with '#' are skipped;
// timecodes are HH:MM:SS:FF, labels that exist at the standard in force; numbers are decimal,
// octal (0...) or hexadecimal (0x...):
//   standard 25|29.97df|30|50|59.94df
//   clip ID [START LENGTH]        a clip in the store (with no timecodes: empty, after the last)
//   sense CMD2[.SEL]=HEX          a sense's value
//   local on|off                  the front panel's local switch
//   louth                         the UDP and serial links speak Louth
//   nak BITS | refuse BYTE | silent | delay MS | corrupt
//                                 every answer: a NAK, a Louth refusal, none, late, corrupted
//   at N FAULT                    the N-th command (from 1, every link together) gets FAULT
//   at frame TIMECODE FAULT       the first command once the position comes to TIMECODE gets it
//   stall BYTES:MS                the first raw transfer pauses MS ms after BYTES bytes
//   version A:B | diskinfo FILE | gop FILE | log FILE | entry N:FILE | picture CODE:FILE
//   refuse-uploads                what the transfers and the management endpoint hold and take
// where FAULT is nak BITS, refuse BYTE, silent, delay MS, corrupt, restart MS (the server
// restarts: its links drop for MS ms) or close (the server closes the TCP connection).
#pragma once

#include "devsim.h"

#include <istream>
#include <span>
#include <string>

namespace devsim {

struct Directive {
    const char* name;
    bool has_value;
};
// Every directive, each also an option of devsim's command line.
std::span<const Directive> directives();

// Applies the directive `name` given as the option "--name" with `value` (null when it takes
// none); throws cli::Refused naming the option, or std::runtime_error for a file it cannot read.
void apply_option(DevSim& sim, const std::string& name, const char* value);

// Applies the directives to `sim` in order; on the first line it cannot read, stops and returns
// false with `error` "line N: what" (the line's words quoted, never raw bytes).
bool load_scenario(DevSim& sim, std::istream& in, std::string& error);

} // namespace devsim
