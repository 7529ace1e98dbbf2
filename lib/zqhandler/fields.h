// What the builders of every protocol share: the field encoders (clip IDs, media file names,
// timecodes, clip numbers, 32-bit values), the one composer of a computed frame, and the fixed
// Sony-family frames as tables checked when the library is compiled. Each encoding lives here once.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <zqhandler/sony9p.h>
#include <zqhandler/tc.h>

#include "wire.h"

// A clip ID or a media file name on the wire: always this many bytes, never terminated.
inline constexpr size_t kIdBytes = 8;
// A timecode on the wire: frames, seconds, minutes, hours in BCD (see tc_tcstr2bcd).
inline constexpr size_t kTcBytes = 4;
// The largest clip number with a BCD form.
inline constexpr int kMaxClip = 9999;

// The first eight characters of `text` (fewer when it is shorter), then `pad` up to eight bytes;
// null is eight pad bytes. Writes exactly kIdBytes bytes at `out`.
inline void put_padded(uint8_t* out, const char* text, uint8_t pad) {
    const size_t n = text ? strnlen(text, kIdBytes) : 0;
    memset(out, pad, kIdBytes);
    if (n)
        memcpy(out, text, n);
}

// A timecode string as its kTcBytes BCD bytes at `out`; text tc_tcstr2bcd refuses, and null,
// give the zero timecode.
inline void put_timecode(uint8_t* out, const char* tc) {
    tc_tcstr2bcd(out, tc ? tc : "");
}

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

// CMD1, CMD2 and the data of a computed frame, gathered field by field; the protocol frames them
// with its own start and checksum (s9p_set_frame, louth_misc). Holds the longest computed frame
// of any protocol (a Louth ID and two timecodes); a field that would not fit is left out whole.
class FrameBytes {
  public:
    FrameBytes(uint8_t cmd1, uint8_t cmd2) : bytes_{cmd1, cmd2} {}

    FrameBytes& byte(uint8_t value) {
        return put(1, [&](uint8_t* p) { *p = value; });
    }
    FrameBytes& be32(uint32_t value) {
        return put(4, [&](uint8_t* p) { put_be32(p, value); });
    }
    // A clip ID (Louth and Odetics): padded with spaces.
    FrameBytes& clip_id(const char* id) {
        return put(kIdBytes, [&](uint8_t* p) { put_padded(p, id, ' '); });
    }
    // A file name of the server's media commands: padded with zero bytes.
    FrameBytes& media_name(const char* name) {
        return put(kIdBytes, [&](uint8_t* p) { put_padded(p, name, 0); });
    }
    FrameBytes& timecode(const char* tc) {
        return put(kTcBytes, [&](uint8_t* p) { put_timecode(p, tc); });
    }
    FrameBytes& clip(int clip) {
        return put(2, [&](uint8_t* p) { put_clip_bcd(p, clip); });
    }
    FrameBytes& append(std::span<const uint8_t> bytes) {
        return put(bytes.size(), [&](uint8_t* p) { std::copy(bytes.begin(), bytes.end(), p); });
    }
    std::span<const uint8_t> frame() const { return {bytes_.data(), size_}; }

  private:
    template <typename Write> FrameBytes& put(size_t count, Write&& write) {
        if (bytes_.size() - size_ >= count) {
            write(bytes_.data() + size_);
            size_ += count;
        }
        return *this;
    }

    std::array<uint8_t, 2 + kIdBytes + 2 * kTcBytes> bytes_{};
    size_t size_ = 2;
};

// A fixed Sony-family frame, CMD1 to the last data byte. Made only while the library is
// compiled: a CMD1 whose data count is not the number of data bytes that follow stops the build.
struct FixedFrame {
    std::array<uint8_t, 6> bytes;
    int count;
};

template <typename... Byte> consteval FixedFrame fixed_frame(Byte... bytes) {
    static_assert(sizeof...(bytes) >= 2 && sizeof...(bytes) <= 6);
    const FixedFrame frame{{static_cast<uint8_t>(bytes)...}, static_cast<int>(sizeof...(bytes))};
    if ((frame.bytes[0] & 0x0F) + 2 != frame.count)
        throw "CMD1 announces another data count than the frame carries";
    return frame;
}

// The builder `int name(t_s9p_command*)` of one row X(name, bytes...) of a module's table of fixed
// frames: its frame goes to s9p_misc.
#define ZQ_FIXED_BUILDER(name, ...)                                                                \
    int name(t_s9p_command* cmd) {                                                                 \
        constexpr FixedFrame kFrame = fixed_frame(__VA_ARGS__);                                    \
        return s9p_misc(cmd, kFrame.bytes.data(), kFrame.count);                                   \
    }
