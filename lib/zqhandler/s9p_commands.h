// The Sony catalogue, the library's side: the clip-number BCD both ways, for the builders and for
// the operations that read clip numbers out of answers.
#pragma once

#include <cstdint>
#include <zqhandler/s9p_commands.h>

// The largest clip number with a BCD form.
inline constexpr int kMaxClip = 9999;

// Writes clip (0 to kMaxClip) as four BCD digits, thousands first, in out[0..1].
inline void put_clip_bcd(uint8_t* out, int clip) {
    const int value =
        ((clip / 1000 * 16 + clip % 1000 / 100) * 16 + clip % 100 / 10) * 16 + clip % 10;
    out[0] = static_cast<uint8_t>(value >> 8);
    out[1] = static_cast<uint8_t>(value);
}

// The clip number of the BCD pair in[0..1]; a nibble above 9 counts at its face value.
inline int get_clip_bcd(const uint8_t* in) {
    return (in[0] >> 4) * 1000 + (in[0] & 0x0F) * 100 + (in[1] >> 4) * 10 + (in[1] & 0x0F);
}
