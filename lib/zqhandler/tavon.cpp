// Builders of the server's media commands: fixed frames through s9p_misc, the file queries with
// their zero-padded name field, the audio output setters composed with their true data count.
#include <zqhandler/tavon.h>

#include "fields.h"
#include "sony9p.h"

namespace {

int frame3(t_s9p_command* cmd, uint8_t cmd1, uint8_t cmd2, uint8_t data) {
    const uint8_t frame[] = {cmd1, cmd2, data};
    return s9p_misc(cmd, frame, 3);
}

// A file query: 0x69 CMD2 0x01 and the name field; without a name 0x61 CMD2 0x01.
int file_query(t_s9p_command* cmd, uint8_t cmd2, const char* name) {
    uint8_t frame[3 + kIdBytes] = {0x69, cmd2, 0x01};
    if (!name) {
        frame[0] = 0x61;
        return s9p_misc(cmd, frame, 3);
    }
    put_media_name(frame + 3, name);
    return s9p_misc(cmd, frame, sizeof frame);
}

int audio_output(t_s9p_command* cmd, uint8_t selector, int value) {
    if (!cmd)
        return -1;
    const uint8_t frame[] = {0x42, 0xB4, selector, static_cast<uint8_t>(value)};
    return s9p_set_frame(*cmd, frame);
}

} // namespace

int tavon_sense_capture(t_s9p_command* cmd) {
    const uint8_t frame[] = {0x60, 0xB2};
    return s9p_misc(cmd, frame, 2);
}
int tavon_sense_current_vinfo(t_s9p_command* cmd) {
    return frame3(cmd, 0x61, 0xB3, 0x00);
}
int tavon_sense_startup_vinfo(t_s9p_command* cmd) {
    return frame3(cmd, 0x61, 0xB3, 0x02);
}
int tavon_sense_current_ainfo(t_s9p_command* cmd) {
    return frame3(cmd, 0x61, 0xB4, 0x00);
}
int tavon_sense_startup_ainfo(t_s9p_command* cmd) {
    return frame3(cmd, 0x61, 0xB4, 0x02);
}
int tavon_sense_file_vinfo(t_s9p_command* cmd, const char* name) {
    return file_query(cmd, 0xBB, name);
}
int tavon_sense_file_ainfo(t_s9p_command* cmd, const char* name) {
    return file_query(cmd, 0xBC, name);
}
int tavon_ccmode(t_s9p_command* cmd, int on) {
    const uint8_t frame[] = {0x40, static_cast<uint8_t>(on ? 0x01 : 0x00)};
    return s9p_misc(cmd, frame, 2);
}
int tavon_set_cc_foreground(t_s9p_command* cmd, int value) {
    return frame3(cmd, 0x41, 0x03, static_cast<uint8_t>(value));
}
int tavon_set_cc_background(t_s9p_command* cmd, int value) {
    return frame3(cmd, 0x41, 0x04, static_cast<uint8_t>(value));
}
int tavon_set_video_format(t_s9p_command* cmd, int value) {
    return frame3(cmd, 0x41, 0x05, static_cast<uint8_t>(value));
}
int tavon_set_video_color_space(t_s9p_command* cmd, int value) {
    return frame3(cmd, 0x41, 0x06, static_cast<uint8_t>(value));
}
int tavon_set_video_aspect_ratio(t_s9p_command* cmd, int value) {
    return frame3(cmd, 0x41, 0x07, static_cast<uint8_t>(value));
}
int tavon_set_cc_geometry(t_s9p_command* cmd, int value) {
    return frame3(cmd, 0x41, 0x08, static_cast<uint8_t>(value));
}
int tavon_set_audio_rendering(t_s9p_command* cmd, int value) {
    return audio_output(cmd, 0x00, value);
}
int tavon_set_audio_spdif(t_s9p_command* cmd, int value) {
    return audio_output(cmd, 0x01, value);
}
