// The Sony command catalogue: the fixed frames as one table, and the builders with computed
// arguments around the shared encoders (speed, clip BCD, 32-bit fields, timecodes).
#include "s9p_commands.h"

#include "fields.h"
#include "sony9p.h"
#include "wire.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <initializer_list>

namespace {

// Every fixed frame, CMD1 to the last data byte: X(builder name without s9p_, bytes...).
#define S9P_FIXED_FRAMES(X)                                                                        \
    X(stop, 0x20, 0x00)                                                                            \
    X(play, 0x20, 0x01)                                                                            \
    X(record, 0x20, 0x02)                                                                          \
    X(eject, 0x20, 0x0F)                                                                           \
    X(FF, 0x20, 0x10)                                                                              \
    X(RW, 0x20, 0x20)                                                                              \
    X(EE_off, 0x20, 0x60)                                                                          \
    X(EE_on, 0x20, 0x61)                                                                           \
    X(initialize, 0x30, 0x04)                                                                      \
    X(remount, 0x30, 0x07)                                                                         \
    X(reset, 0x34, 0x09, 'A', 'S', 'A', 'P')                                                       \
    X(sense_clip_range, 0x61, 0xC1, 0x02)                                                          \
    X(menu_save_flash, 0x40, 0xC2)                                                                 \
    X(menu_recall_current, 0x40, 0xC3)                                                             \
    X(menu_recall_flash, 0x40, 0xC4)                                                               \
    X(menu_preset_default, 0x40, 0xC5)                                                             \
    X(sense_status, 0x61, 0x20, 0x0A)                                                              \
    X(sense_errors, 0x61, 0xC1, 0x00)                                                              \
    X(sense_tc, 0x61, 0x0C, 0x04)                                                                  \
    X(sense_device_type, 0x00, 0x11)                                                               \
    X(sense_compRatio, 0x61, 0x94, 0x01)                                                           \
    X(sense_protocol_version, 0x61, 0xB0, 0x00)                                                    \
    X(sense_version, 0x60, 0x95)                                                                   \
    X(sense_productName, 0x60, 0xB1)                                                               \
    X(sense_serialNumber, 0x60, 0xB2)                                                              \
    X(sense_preroll, 0x60, 0x31)                                                                   \
    X(sense_postroll, 0x60, 0x3C)                                                                  \
    X(sense_speed, 0x60, 0x2E)                                                                     \
    X(sense_frameMode, 0x60, 0x38)                                                                 \
    X(sense_recordInhibit, 0x60, 0x3E)                                                             \
    X(sense_servoRef, 0x60, 0x33)                                                                  \
    X(sense_timerMode, 0x60, 0x36)                                                                 \
    X(sense_inputSource, 0x60, 0x50)                                                               \
    X(sense_syncOffset, 0x60, 0x78)                                                                \
    X(sense_resolution, 0x60, 0x90)                                                                \
    X(sense_chaseMode, 0x60, 0x91)                                                                 \
    X(sense_zqCapacity, 0x60, 0x9F)                                                                \
    X(sense_diskName, 0x60, 0xA1)                                                                  \
    X(sense_currentField, 0x60, 0xA2)                                                              \
    X(sense_cacheSize, 0x60, 0xA8)                                                                 \
    X(sense_stepRec, 0x60, 0xA9)                                                                   \
    X(sense_nrAudioChannel, 0x60, 0xAD)                                                            \
    X(sense_videoStd, 0x60, 0xAE)                                                                  \
    X(sense_hardware, 0x60, 0xB0)                                                                  \
    X(sense_ipAddress, 0x60, 0xB3)                                                                 \
    X(sense_field0, 0x60, 0xB4)                                                                    \
    X(sense_lastField, 0x60, 0xB5)                                                                 \
    X(sense_loop_mode, 0x60, 0xB7)

struct FixedFrame {
    std::array<uint8_t, 6> bytes;
    int count;
};

template <typename... Byte> constexpr FixedFrame fixed(Byte... bytes) {
    return {{static_cast<uint8_t>(bytes)...}, static_cast<int>(sizeof...(bytes))};
}

#define S9P_INDEX(name, ...) name,
enum class Fixed : size_t { S9P_FIXED_FRAMES(S9P_INDEX) count };
#undef S9P_INDEX

#define S9P_ROW(name, ...) fixed(__VA_ARGS__),
constexpr FixedFrame kFixedFrames[] = {S9P_FIXED_FRAMES(S9P_ROW)};
#undef S9P_ROW
static_assert(std::size(kFixedFrames) == static_cast<size_t>(Fixed::count));

// Every fixed frame announces its own data count: s9p_misc never refuses one.
constexpr bool counts_match() {
    for (const FixedFrame& f : kFixedFrames)
        if ((f.bytes[0] & 0x0F) + 2 != f.count)
            return false;
    return true;
}
static_assert(counts_match(), "CMD1 of a fixed frame announces the wrong data count");

int build_fixed(t_s9p_command* cmd, Fixed which) {
    const FixedFrame& frame = kFixedFrames[static_cast<size_t>(which)];
    return s9p_misc(cmd, frame.bytes.data(), frame.count);
}

// A computed frame (CMD1 .. last data byte); refuses a null record.
int build(t_s9p_command* cmd, std::initializer_list<uint8_t> frame) {
    return cmd ? s9p_set_frame(*cmd, frame) : -1;
}

// The speed byte N of the jog, variable-play and shuttle commands.
uint8_t speed_byte(int speed) {
    if (speed <= 0)
        return 0;
    if (speed <= 100)
        return static_cast<uint8_t>(32.0 * (std::log10(speed / 100.0) + 2.0));
    if (speed < 150)
        return 64;
    if (speed < 350)
        return 74;
    if (speed < 750)
        return 86;
    return 96;
}

int build_speed(t_s9p_command* cmd, uint8_t cmd2, int speed) {
    return build(cmd, {0x21, cmd2, speed_byte(speed)});
}

int build_byte(t_s9p_command* cmd, uint8_t cmd1, uint8_t cmd2, int value) {
    const uint8_t frame[] = {cmd1, cmd2, static_cast<uint8_t>(value)};
    return s9p_misc(cmd, frame, 3);
}

int build_field(t_s9p_command* cmd, uint8_t cmd1, uint8_t cmd2, uint32_t field) {
    uint8_t frame[6] = {cmd1, cmd2};
    put_be32(frame + 2, field);
    return s9p_misc(cmd, frame, 6);
}

bool clip_ok(int clip) {
    return clip >= 0 && clip <= kMaxClip;
}

int build_clip_pair(t_s9p_command* cmd, uint8_t cmd2, int clip, int other_clip) {
    if (!cmd)
        return -1;
    if (!clip_ok(clip) || !clip_ok(other_clip))
        return fail(cmd, S9P_INVAL_ARG);
    uint8_t frame[6] = {0x44, cmd2};
    put_clip_bcd(frame + 2, clip);
    put_clip_bcd(frame + 4, other_clip);
    return s9p_set_frame(*cmd, frame);
}

} // namespace

// The fixed-frame builders, one per row of the table.
#define S9P_BUILDER(name, ...)                                                                     \
    int s9p_##name(t_s9p_command* cmd) {                                                           \
        return build_fixed(cmd, Fixed::name);                                                      \
    }
S9P_FIXED_FRAMES(S9P_BUILDER)
#undef S9P_BUILDER

int s9p_standby(t_s9p_command* cmd, int on) {
    return build(cmd, {0x20, static_cast<uint8_t>(on ? 0x05 : 0x04)});
}

int s9p_cueWithData(t_s9p_command* cmd, const char* tc) {
    if (!tc) {
        const uint8_t frame[] = {0x20, 0x31};
        return s9p_misc(cmd, frame, 2);
    }
    if (!cmd)
        return -1;
    uint8_t frame[2 + kTcBytes] = {0x24, 0x31};
    put_timecode(frame + 2, tc);
    return s9p_set_frame(*cmd, frame);
}

int s9p_jog_forward(t_s9p_command* cmd, int speed) {
    return build_speed(cmd, 0x11, speed);
}
int s9p_var_forward(t_s9p_command* cmd, int speed) {
    return build_speed(cmd, 0x12, speed);
}
int s9p_shuttle_forward(t_s9p_command* cmd, int speed) {
    return build_speed(cmd, 0x13, speed);
}
int s9p_step_forward(t_s9p_command* cmd, int count) {
    return build_byte(cmd, 0x21, 0x14, count);
}
int s9p_jog_reverse(t_s9p_command* cmd, int speed) {
    return build_speed(cmd, 0x21, speed);
}
int s9p_var_reverse(t_s9p_command* cmd, int speed) {
    return build_speed(cmd, 0x22, speed);
}
int s9p_shuttle_reverse(t_s9p_command* cmd, int speed) {
    return build_speed(cmd, 0x23, speed);
}
int s9p_step_reverse(t_s9p_command* cmd, int count) {
    return build_byte(cmd, 0x21, 0x24, count);
}

int s9p_preset_channel(t_s9p_command* cmd, int channel) {
    return build_byte(cmd, 0x31, 0x10, channel);
}

int s9p_preset_current_field(t_s9p_command* cmd, uint32_t field) {
    return build_field(cmd, 0x24, 0x9D, field);
}
int s9p_preset_field0(t_s9p_command* cmd, uint32_t field) {
    return build_field(cmd, 0x44, 0xB4, field);
}
int s9p_preset_lastField(t_s9p_command* cmd, uint32_t field) {
    return build_field(cmd, 0x44, 0xB5, field);
}

int s9p_timermode(t_s9p_command* cmd, int mode) {
    return build_byte(cmd, 0x41, 0x36, mode);
}
int s9p_loopmode(t_s9p_command* cmd, int on) {
    return build_byte(cmd, 0x41, 0xB7, on ? 1 : 0);
}

int s9p_preset_clip_prev(t_s9p_command* cmd, int clip, int other_clip) {
    return build_clip_pair(cmd, 0x96, clip, other_clip);
}
int s9p_preset_clip_next(t_s9p_command* cmd, int clip, int other_clip) {
    return build_clip_pair(cmd, 0x97, clip, other_clip);
}

int s9p_save_clip_parameters(t_s9p_command* cmd, int clip, uint32_t value1, uint32_t value2) {
    if (!cmd)
        return -1;
    if (!clip_ok(clip))
        return fail(cmd, S9P_INVAL_ARG);
    uint8_t frame[12] = {0x2A, 0xAC};
    put_clip_bcd(frame + 2, clip);
    put_be32(frame + 4, value1);
    put_be32(frame + 8, value2);
    return s9p_set_frame(*cmd, frame);
}

int s9p_sense_clip_parameters(t_s9p_command* cmd, int clip) {
    if (!cmd)
        return -1;
    if (!clip_ok(clip))
        return fail(cmd, S9P_INVAL_ARG);
    uint8_t frame[4] = {0x62, 0x9A};
    put_clip_bcd(frame + 2, clip);
    return s9p_misc(cmd, frame, 4);
}

int s9p_menu_commit_section(t_s9p_command* cmd, int section) {
    return build(cmd, {0x41, 0xC1, static_cast<uint8_t>(section)});
}
int s9p_menu_read_section(t_s9p_command* cmd, int section) {
    return build(cmd, {0x61, 0xC0, static_cast<uint8_t>(section)});
}

int s9p_menu_save_section(t_s9p_command* cmd, int section, const uint8_t* bytes, int count) {
    if (!cmd)
        return -1;
    if (count < 0 || count > S9P_MENU_SECTION_MAX || (count > 0 && !bytes))
        return fail(cmd, S9P_INVAL_ARG);
    uint8_t frame[3 + S9P_MENU_SECTION_MAX] = {static_cast<uint8_t>(0x41 + count), 0xC0,
                                               static_cast<uint8_t>(section)};
    std::copy_n(bytes, count, frame + 3);
    return s9p_set_frame(*cmd, {frame, static_cast<size_t>(3 + count)});
}

int s9p_sense_status_range(t_s9p_command* cmd, int first, int count) {
    return build_byte(cmd, 0x61, 0x20, (first & 0x0F) * 16 + (count & 0x0F));
}
