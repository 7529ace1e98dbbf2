// The Sony command catalogue: the fixed frames as one table, and the builders with computed
// arguments around the shared composer and encoders (speed, clip BCD, 32-bit fields, timecodes).
#include "fields.h"
#include "sony9p_private.h"

#include <cmath>
#include <initializer_list>
#include <zqhandler/s9p_commands.h>

// Every fixed frame, CMD1 to the last data byte: X(builder, bytes...).
#define S9P_FIXED_FRAMES(X)                                                                        \
    X(s9p_stop, 0x20, 0x00)                                                                        \
    X(s9p_play, 0x20, 0x01)                                                                        \
    X(s9p_record, 0x20, 0x02)                                                                      \
    X(s9p_eject, 0x20, 0x0F)                                                                       \
    X(s9p_FF, 0x20, 0x10)                                                                          \
    X(s9p_RW, 0x20, 0x20)                                                                          \
    X(s9p_EE_off, 0x20, 0x60)                                                                      \
    X(s9p_EE_on, 0x20, 0x61)                                                                       \
    X(s9p_initialize, 0x30, 0x04)                                                                  \
    X(s9p_remount, 0x30, 0x07)                                                                     \
    X(s9p_reset, 0x34, 0x09, 'A', 'S', 'A', 'P')                                                   \
    X(s9p_sense_clip_range, 0x61, 0xC1, 0x02)                                                      \
    X(s9p_menu_save_flash, 0x40, 0xC2)                                                             \
    X(s9p_menu_recall_current, 0x40, 0xC3)                                                         \
    X(s9p_menu_recall_flash, 0x40, 0xC4)                                                           \
    X(s9p_menu_preset_default, 0x40, 0xC5)                                                         \
    X(s9p_sense_status, 0x61, 0x20, 0x0A)                                                          \
    X(s9p_sense_errors, 0x61, 0xC1, 0x00)                                                          \
    X(s9p_sense_tc, 0x61, 0x0C, 0x04)                                                              \
    X(s9p_sense_device_type, 0x00, 0x11)                                                           \
    X(s9p_sense_compRatio, 0x61, 0x94, 0x01)                                                       \
    X(s9p_sense_protocol_version, 0x61, 0xB0, 0x00)                                                \
    X(s9p_sense_version, 0x60, 0x95)                                                               \
    X(s9p_sense_productName, 0x60, 0xB1)                                                           \
    X(s9p_sense_serialNumber, 0x60, 0xB2)                                                          \
    X(s9p_sense_preroll, 0x60, 0x31)                                                               \
    X(s9p_sense_postroll, 0x60, 0x3C)                                                              \
    X(s9p_sense_speed, 0x60, 0x2E)                                                                 \
    X(s9p_sense_frameMode, 0x60, 0x38)                                                             \
    X(s9p_sense_recordInhibit, 0x60, 0x3E)                                                         \
    X(s9p_sense_servoRef, 0x60, 0x33)                                                              \
    X(s9p_sense_timerMode, 0x60, 0x36)                                                             \
    X(s9p_sense_inputSource, 0x60, 0x50)                                                           \
    X(s9p_sense_syncOffset, 0x60, 0x78)                                                            \
    X(s9p_sense_resolution, 0x60, 0x90)                                                            \
    X(s9p_sense_chaseMode, 0x60, 0x91)                                                             \
    X(s9p_sense_zqCapacity, 0x60, 0x9F)                                                            \
    X(s9p_sense_diskName, 0x60, 0xA1)                                                              \
    X(s9p_sense_currentField, 0x60, 0xA2)                                                          \
    X(s9p_sense_cacheSize, 0x60, 0xA8)                                                             \
    X(s9p_sense_stepRec, 0x60, 0xA9)                                                               \
    X(s9p_sense_nrAudioChannel, 0x60, 0xAD)                                                        \
    X(s9p_sense_videoStd, 0x60, 0xAE)                                                              \
    X(s9p_sense_hardware, 0x60, 0xB0)                                                              \
    X(s9p_sense_ipAddress, 0x60, 0xB3)                                                             \
    X(s9p_sense_field0, 0x60, 0xB4)                                                                \
    X(s9p_sense_lastField, 0x60, 0xB5)                                                             \
    X(s9p_sense_loop_mode, 0x60, 0xB7)

S9P_FIXED_FRAMES(ZQ_FIXED_BUILDER)

// The computed frames, each composed with its arguments and framed by s9p_set_frame (which
// refuses a null record).
namespace {

int framed(t_s9p_command* cmd, const FrameBytes& frame) {
    return s9p_set_frame(cmd, frame.frame());
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

int one_byte(t_s9p_command* cmd, uint8_t cmd1, uint8_t cmd2, int value) {
    return framed(cmd, FrameBytes(cmd1, cmd2).byte(static_cast<uint8_t>(value)));
}

int field(t_s9p_command* cmd, uint8_t cmd1, uint8_t cmd2, uint32_t value) {
    return framed(cmd, FrameBytes(cmd1, cmd2).be32(value));
}

// `frame`, unless one of its clip numbers is outside 0 to 9999, which has no BCD form: then the
// record gets S9P_INVAL_ARG and no frame.
int with_clips(t_s9p_command* cmd, std::initializer_list<int> numbers, const FrameBytes& frame) {
    for (int clip : numbers)
        if (clip < 0 || clip > kMaxClip)
            return cmd ? fail(cmd, S9P_INVAL_ARG) : -1;
    return framed(cmd, frame);
}

} // namespace

int s9p_standby(t_s9p_command* cmd, int on) {
    return framed(cmd, FrameBytes(0x20, on ? 0x05 : 0x04));
}

int s9p_cueWithData(t_s9p_command* cmd, const char* tc) {
    return framed(cmd, tc ? FrameBytes(0x24, 0x31).timecode(tc) : FrameBytes(0x20, 0x31));
}

// The motion commands: X(builder, CMD2) of a speed byte, S(builder, CMD2) of a step count.
#define S9P_MOTION_BUILDERS(X, S)                                                                  \
    X(s9p_jog_forward, 0x11)                                                                       \
    X(s9p_var_forward, 0x12)                                                                       \
    X(s9p_shuttle_forward, 0x13)                                                                   \
    S(s9p_step_forward, 0x14)                                                                      \
    X(s9p_jog_reverse, 0x21)                                                                       \
    X(s9p_var_reverse, 0x22)                                                                       \
    X(s9p_shuttle_reverse, 0x23)                                                                   \
    S(s9p_step_reverse, 0x24)

#define S9P_SPEED_BUILDER(name, cmd2)                                                              \
    int name(t_s9p_command* cmd, int percent) {                                                    \
        return one_byte(cmd, 0x21, cmd2, speed_byte(percent));                                     \
    }
#define S9P_STEP_BUILDER(name, cmd2)                                                               \
    int name(t_s9p_command* cmd, int count) {                                                      \
        return one_byte(cmd, 0x21, cmd2, count);                                                   \
    }
S9P_MOTION_BUILDERS(S9P_SPEED_BUILDER, S9P_STEP_BUILDER)

int s9p_preset_channel(t_s9p_command* cmd, int channel) {
    return one_byte(cmd, 0x31, 0x10, channel);
}

int s9p_preset_current_field(t_s9p_command* cmd, uint32_t value) {
    return field(cmd, 0x24, 0x9D, value);
}
int s9p_preset_field0(t_s9p_command* cmd, uint32_t value) {
    return field(cmd, 0x44, 0xB4, value);
}
int s9p_preset_lastField(t_s9p_command* cmd, uint32_t value) {
    return field(cmd, 0x44, 0xB5, value);
}

int s9p_timermode(t_s9p_command* cmd, int mode) {
    return one_byte(cmd, 0x41, 0x36, mode);
}
int s9p_loopmode(t_s9p_command* cmd, int on) {
    return one_byte(cmd, 0x41, 0xB7, on ? 1 : 0);
}

int s9p_preset_clip_prev(t_s9p_command* cmd, int clip, int other_clip) {
    return with_clips(cmd, {clip, other_clip}, FrameBytes(0x44, 0x96).clip(clip).clip(other_clip));
}
int s9p_preset_clip_next(t_s9p_command* cmd, int clip, int other_clip) {
    return with_clips(cmd, {clip, other_clip}, FrameBytes(0x44, 0x97).clip(clip).clip(other_clip));
}

int s9p_save_clip_parameters(t_s9p_command* cmd, int clip, uint32_t value1, uint32_t value2) {
    return with_clips(cmd, {clip}, FrameBytes(0x2A, 0xAC).clip(clip).be32(value1).be32(value2));
}

int s9p_sense_clip_parameters(t_s9p_command* cmd, int clip) {
    return with_clips(cmd, {clip}, FrameBytes(0x62, 0x9A).clip(clip));
}

int s9p_menu_commit_section(t_s9p_command* cmd, int section) {
    return one_byte(cmd, 0x41, 0xC1, section);
}
int s9p_menu_read_section(t_s9p_command* cmd, int section) {
    return one_byte(cmd, 0x61, 0xC0, section);
}

int s9p_menu_save_section(t_s9p_command* cmd, int section, const uint8_t* bytes, int count) {
    if (!cmd)
        return -1;
    if (count < 0 || count > S9P_MENU_SECTION_MAX || (count > 0 && !bytes))
        return fail(cmd, S9P_INVAL_ARG);
    const auto n = static_cast<size_t>(count);
    return framed(cmd, FrameBytes(static_cast<uint8_t>(0x41 + count), 0xC0)
                           .byte(static_cast<uint8_t>(section))
                           .append({bytes, n}));
}

int s9p_sense_status_range(t_s9p_command* cmd, int first, int count) {
    return one_byte(cmd, 0x61, 0x20, (first & 0x0F) * 16 + (count & 0x0F));
}
