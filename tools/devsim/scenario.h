// Scenario files: what a test or a person sets up before the emulator starts, one directive a
// line, so that a failure can be played again. The directives (blank lines and lines starting
// with '#' are skipped; timecodes are HH:MM:SS:FF, labels that exist at the standard in force):
//   standard 25|29.97df|30|50|59.94df
//   clip ID START LENGTH          a clip in the store
//   sense CMD2[.SEL]=HEX          a sense's value, as --sense
//   local on|off                  the status bits' local bit
//   at N FAULT                    the N-th command (from 1, every link together) gets FAULT
//   at frame TIMECODE FAULT       the first command once the position comes to TIMECODE gets it
//   stall BYTES MS                the first raw transfer pauses MS ms after BYTES bytes
// where FAULT is one of: nak BITS (hex), silence, delay MS, corrupt.
#pragma once

#include "devsim.h"

#include <istream>
#include <string>

namespace devsim {

// Applies the directives to `sim` in order; on the first line it cannot read, stops and returns
// false with `error` "line N: what" (the line's words quoted, never raw bytes).
bool load_scenario(DevSim& sim, std::istream& in, std::string& error);

} // namespace devsim
