// Odetics builders: the fixed frames as one table, the ID, timecode and device-ID forms composed
// field by field.
#include "fields.h"
#include "sony9p_private.h"

#include <zqhandler/odetics.h>

// Every fixed frame, CMD1 to the last data byte: X(builder, bytes...).
#define ODETICS_FIXED_FRAMES(X)                                                                    \
    X(odetics_autoskip, 0xA0, 0x01)                                                                \
    X(odetics_preview_inreset, 0xA0, 0x06)                                                         \
    X(odetics_preview_outreset, 0xA0, 0x07)                                                        \
    X(odetics_eraseAllID, 0xA0, 0x10)                                                              \
    X(odetics_sense_firstID, 0xA0, 0x14)                                                           \
    X(odetics_sense_nextID, 0xA0, 0x15)                                                            \
    X(odetics_sense_storage, 0xA0, 0x1C)                                                           \
    X(odetics_sense_deviceID, 0xA0, 0x21)                                                          \
    X(odetics_inreset, 0x40, 0x20)                                                                 \
    X(odetics_outreset, 0x40, 0x21)                                                                \
    X(odetics_sense_odetics, 0x60, 0xAA)                                                           \
    X(odetics_sense_loadedID, 0x61, 0xC1, 0x01)

ODETICS_FIXED_FRAMES(ZQ_FIXED_BUILDER)

namespace {

// The preset forms: CMD1 is the base, plus 4 with a timecode and 8 with an ID; the timecode
// comes before the ID. A null ID or timecode selects the form without it.
int preset(t_s9p_command* cmd, uint8_t base, uint8_t cmd2, const char* id, const char* tc) {
    FrameBytes frame(static_cast<uint8_t>(base | (tc ? 0x04 : 0) | (id ? 0x08 : 0)), cmd2);
    if (tc)
        frame.timecode(tc);
    if (id)
        frame.clip_id(id);
    return s9p_set_frame(cmd, frame.frame());
}

int with_id(t_s9p_command* cmd, uint8_t cmd2, const char* id) {
    return s9p_set_frame(cmd, FrameBytes(0xA8, cmd2).clip_id(id).frame());
}

} // namespace

int odetics_recordCueUp(t_s9p_command* cmd, const char* id, const char* tc) {
    return preset(cmd, 0xA0, 0x02, id, tc);
}
int odetics_inPreview(t_s9p_command* cmd, const char* id, const char* tc) {
    return preset(cmd, 0xA0, 0x04, id, tc);
}
int odetics_outPreview(t_s9p_command* cmd, const char* tc) {
    return preset(cmd, 0xA0, 0x05, nullptr, tc);
}
int odetics_inPreset(t_s9p_command* cmd, const char* id, const char* tc) {
    return preset(cmd, 0x40, 0x14, id, tc);
}
int odetics_outPreset(t_s9p_command* cmd, const char* tc) {
    return preset(cmd, 0x40, 0x15, nullptr, tc);
}
int odetics_eraseID(t_s9p_command* cmd, const char* id) {
    return with_id(cmd, 0x10, id);
}
int odetics_sense_id_status(t_s9p_command* cmd, const char* id) {
    return with_id(cmd, 0x18, id);
}
int odetics_eraseSegment(t_s9p_command* cmd, const char* first_tc, const char* second_tc) {
    return s9p_set_frame(cmd,
                         FrameBytes(0xA8, 0x11).timecode(first_tc).timecode(second_tc).frame());
}
int odetics_set_deviceID(t_s9p_command* cmd, const uint8_t device_id[8]) {
    static constexpr uint8_t kZeros[kIdBytes] = {};
    return s9p_set_frame(
        cmd, FrameBytes(0xA8, 0x20).append({device_id ? device_id : kZeros, kIdBytes}).frame());
}
int odetics_automode(t_s9p_command* cmd, int on) {
    return s9p_set_frame(cmd, FrameBytes(0x40, on ? 0x41 : 0x40).frame());
}
int odetics_sense_lengthID(t_s9p_command* cmd, const char* id) {
    return s9p_set_frame(cmd, FrameBytes(0x69, 0xC1).byte(0x03).clip_id(id).frame());
}
