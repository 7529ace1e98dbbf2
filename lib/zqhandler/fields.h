// Field encoders shared by the builders of every protocol: clip IDs, media file names and
// timecodes as they go on the wire. Each encoding lives here once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <zqhandler/tc.h>

// A clip ID or a media file name on the wire: always this many bytes, never terminated.
inline constexpr size_t kIdBytes = 8;
// A timecode on the wire: frames, seconds, minutes, hours in BCD (see tc_tcstr2bcd).
inline constexpr size_t kTcBytes = 4;

// The first eight characters of `text` (fewer when it is shorter), then `pad` up to eight bytes;
// null is eight pad bytes. Writes exactly kIdBytes bytes at `out`.
inline void put_padded(uint8_t* out, const char* text, uint8_t pad) {
    const size_t n = text ? strnlen(text, kIdBytes) : 0;
    memset(out, pad, kIdBytes);
    if (n)
        memcpy(out, text, n);
}

// A clip ID (Louth and Odetics): padded with spaces.
inline void put_clip_id(uint8_t* out, const char* id) {
    put_padded(out, id, ' ');
}

// A file name of the server's media commands: padded with zero bytes.
inline void put_media_name(uint8_t* out, const char* name) {
    put_padded(out, name, 0);
}

// A timecode string as its kTcBytes BCD bytes at `out`; text tc_tcstr2bcd refuses, and null,
// give the zero timecode.
inline void put_timecode(uint8_t* out, const char* tc) {
    tc_tcstr2bcd(out, tc ? tc : "");
}
