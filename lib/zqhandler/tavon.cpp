// Builders of the server's media commands: the fixed queries as one table, the settings and file
// queries composed with their value or zero-padded name field, the audio output setters with
// their true data count.
#include "fields.h"
#include "sony9p_private.h"

#include <initializer_list>
#include <zqhandler/tavon.h>

// Every fixed frame, CMD1 to the last data byte: X(builder, bytes...).
#define TAVON_FIXED_FRAMES(X)                                                                      \
    X(tavon_sense_capture, 0x60, 0xB2)                                                             \
    X(tavon_sense_current_vinfo, 0x61, 0xB3, 0x00)                                                 \
    X(tavon_sense_startup_vinfo, 0x61, 0xB3, 0x02)                                                 \
    X(tavon_sense_current_ainfo, 0x61, 0xB4, 0x00)                                                 \
    X(tavon_sense_startup_ainfo, 0x61, 0xB4, 0x02)

TAVON_FIXED_FRAMES(ZQ_FIXED_BUILDER)

// The settings of one value byte after CMD2: X(builder, CMD1, CMD2, the selector before the
// value, or none).
#define TAVON_SETTINGS(X)                                                                          \
    X(tavon_set_cc_foreground, 0x41, 0x03)                                                         \
    X(tavon_set_cc_background, 0x41, 0x04)                                                         \
    X(tavon_set_video_format, 0x41, 0x05)                                                          \
    X(tavon_set_video_color_space, 0x41, 0x06)                                                     \
    X(tavon_set_video_aspect_ratio, 0x41, 0x07)                                                    \
    X(tavon_set_cc_geometry, 0x41, 0x08)                                                           \
    X(tavon_set_audio_rendering, 0x42, 0xB4, 0x00)                                                 \
    X(tavon_set_audio_spdif, 0x42, 0xB4, 0x01)

#define TAVON_SETTING(name, cmd1, cmd2, ...)                                                       \
    int name(t_s9p_command* cmd, int value) {                                                      \
        const std::initializer_list<uint8_t> selector = {__VA_ARGS__};                             \
        return s9p_set_frame(cmd, FrameBytes(cmd1, cmd2)                                           \
                                      .append({selector.begin(), selector.size()})                 \
                                      .byte(static_cast<uint8_t>(value))                           \
                                      .frame());                                                   \
    }
TAVON_SETTINGS(TAVON_SETTING)

namespace {

// A file query: 0x69 CMD2 0x01 and the name field; without a name 0x61 CMD2 0x01.
int file_query(t_s9p_command* cmd, uint8_t cmd2, const char* name) {
    FrameBytes frame(name ? 0x69 : 0x61, cmd2);
    frame.byte(0x01);
    if (name)
        frame.media_name(name);
    return s9p_set_frame(cmd, frame.frame());
}

} // namespace

int tavon_sense_file_vinfo(t_s9p_command* cmd, const char* name) {
    return file_query(cmd, 0xBB, name);
}
int tavon_sense_file_ainfo(t_s9p_command* cmd, const char* name) {
    return file_query(cmd, 0xBC, name);
}
int tavon_ccmode(t_s9p_command* cmd, int on) {
    return s9p_set_frame(cmd, FrameBytes(0x40, on ? 0x01 : 0x00).frame());
}
