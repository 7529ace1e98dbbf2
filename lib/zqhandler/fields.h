// Field encoders shared by the builders of every protocol: clip IDs, media file names and
// timecodes as they go on the wire. Each encoding lives here once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <zqhandler/tc.h>

#include "wire.h"

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

// The bytes of a frame composed field by field, for builders whose frame is computed. Holds at
// most Capacity bytes: a field that would not fit is left out whole (builders compose fixed
// layouts well inside it).
template <size_t Capacity> class FrameBytes {
  public:
    FrameBytes& byte(uint8_t value) {
        return put(1, [&](uint8_t* p) { *p = value; });
    }
    FrameBytes& be32(uint32_t value) {
        return put(4, [&](uint8_t* p) { put_be32(p, value); });
    }
    FrameBytes& clip_id(const char* id) {
        return put(kIdBytes, [&](uint8_t* p) { put_clip_id(p, id); });
    }
    FrameBytes& media_name(const char* name) {
        return put(kIdBytes, [&](uint8_t* p) { put_media_name(p, name); });
    }
    FrameBytes& timecode(const char* tc) {
        return put(kTcBytes, [&](uint8_t* p) { put_timecode(p, tc); });
    }
    std::span<const uint8_t> bytes() const { return {bytes_, size_}; }

  private:
    template <typename Write> FrameBytes& put(size_t count, Write&& write) {
        if (Capacity - size_ >= count) {
            write(bytes_ + size_);
            size_ += count;
        }
        return *this;
    }

    uint8_t bytes_[Capacity]{};
    size_t size_ = 0;
};
