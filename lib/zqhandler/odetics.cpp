// Odetics builders: fixed two- and three-byte frames through s9p_misc, the ID, timecode and
// device-ID forms composed field by field.
#include <zqhandler/odetics.h>

#include "fields.h"
#include "sony9p.h"

namespace {

using Frame = FrameBytes<S9P_MAX_FRAME - 1>;

int fixed(t_s9p_command* cmd, uint8_t cmd1, uint8_t cmd2) {
    const uint8_t frame[] = {cmd1, cmd2};
    return s9p_misc(cmd, frame, 2);
}

int composed(t_s9p_command* cmd, const Frame& frame) {
    return cmd ? s9p_set_frame(*cmd, frame.bytes()) : -1;
}

// The preset forms: CMD1 is the base, plus 4 with a timecode and 8 with an ID; the timecode
// comes before the ID. A null ID or timecode selects the form without it.
int preset(t_s9p_command* cmd, uint8_t base, uint8_t cmd2, const char* id, const char* tc) {
    const uint8_t cmd1 = static_cast<uint8_t>(base | (tc ? 0x04 : 0) | (id ? 0x08 : 0));
    Frame frame;
    frame.byte(cmd1).byte(cmd2);
    if (tc)
        frame.timecode(tc);
    if (id)
        frame.clip_id(id);
    return composed(cmd, frame);
}

int with_id(t_s9p_command* cmd, uint8_t cmd1, uint8_t cmd2, const char* id) {
    return composed(cmd, Frame().byte(cmd1).byte(cmd2).clip_id(id));
}

} // namespace

int odetics_autoskip(t_s9p_command* cmd) {
    return fixed(cmd, 0xA0, 0x01);
}
int odetics_recordCueUp(t_s9p_command* cmd, const char* id, const char* tc) {
    return preset(cmd, 0xA0, 0x02, id, tc);
}
int odetics_inPreview(t_s9p_command* cmd, const char* id, const char* tc) {
    return preset(cmd, 0xA0, 0x04, id, tc);
}
int odetics_outPreview(t_s9p_command* cmd, const char* tc) {
    return preset(cmd, 0xA0, 0x05, nullptr, tc);
}
int odetics_preview_inreset(t_s9p_command* cmd) {
    return fixed(cmd, 0xA0, 0x06);
}
int odetics_preview_outreset(t_s9p_command* cmd) {
    return fixed(cmd, 0xA0, 0x07);
}
int odetics_eraseAllID(t_s9p_command* cmd) {
    return fixed(cmd, 0xA0, 0x10);
}
int odetics_eraseID(t_s9p_command* cmd, const char* id) {
    return with_id(cmd, 0xA8, 0x10, id);
}
int odetics_eraseSegment(t_s9p_command* cmd, const char* first_tc, const char* second_tc) {
    return composed(cmd, Frame().byte(0xA8).byte(0x11).timecode(first_tc).timecode(second_tc));
}
int odetics_sense_firstID(t_s9p_command* cmd) {
    return fixed(cmd, 0xA0, 0x14);
}
int odetics_sense_nextID(t_s9p_command* cmd) {
    return fixed(cmd, 0xA0, 0x15);
}
int odetics_sense_id_status(t_s9p_command* cmd, const char* id) {
    return with_id(cmd, 0xA8, 0x18, id);
}
int odetics_sense_storage(t_s9p_command* cmd) {
    return fixed(cmd, 0xA0, 0x1C);
}
int odetics_set_deviceID(t_s9p_command* cmd, const uint8_t device_id[8]) {
    Frame frame;
    frame.byte(0xA8).byte(0x20);
    for (size_t i = 0; i < kIdBytes; ++i)
        frame.byte(device_id ? device_id[i] : 0);
    return composed(cmd, frame);
}
int odetics_sense_deviceID(t_s9p_command* cmd) {
    return fixed(cmd, 0xA0, 0x21);
}
int odetics_inreset(t_s9p_command* cmd) {
    return fixed(cmd, 0x40, 0x20);
}
int odetics_outreset(t_s9p_command* cmd) {
    return fixed(cmd, 0x40, 0x21);
}
int odetics_automode(t_s9p_command* cmd, int on) {
    return fixed(cmd, 0x40, on ? 0x41 : 0x40);
}
int odetics_inPreset(t_s9p_command* cmd, const char* id, const char* tc) {
    return preset(cmd, 0x40, 0x14, id, tc);
}
int odetics_outPreset(t_s9p_command* cmd, const char* tc) {
    return preset(cmd, 0x40, 0x15, nullptr, tc);
}
int odetics_sense_odetics(t_s9p_command* cmd) {
    return fixed(cmd, 0x60, 0xAA);
}
int odetics_sense_loadedID(t_s9p_command* cmd) {
    const uint8_t frame[] = {0x61, 0xC1, 0x01};
    return s9p_misc(cmd, frame, 3);
}
int odetics_sense_lengthID(t_s9p_command* cmd, const char* id) {
    return composed(cmd, Frame().byte(0x69).byte(0xC1).byte(0x03).clip_id(id));
}
