/* Builders of the Odetics extensions of Sony 9-pin: clips by 8-character ID, presets and
 * previews, erasure, the ID list, the device ID and automatic mode. Each fills `cmd` (frame and
 * checksum, `len`) and returns 0, or -1 when `cmd` is null; none sends anything.
 *
 * IDs: 8 bytes on the wire, the first eight characters padded with spaces; an empty or, where an
 * ID is required, a null ID is eight spaces. In the preset forms (inPreset, inPreview,
 * recordCueUp) a null ID or a null timecode selects the form without it: CMD1 is the base, plus 4
 * with a timecode, plus 8 with an ID; the timecode comes first. Timecodes are "HH:MM:SS:FF" (";"
 * before the frames for drop-frame) and go out as 4 BCD bytes through tc_tcstr2bcd: text it
 * refuses is sent as the zero timecode. odetics_eraseSegment sends a null timecode as zero too. */
#ifndef ZQHANDLER_ODETICS_H
#define ZQHANDLER_ODETICS_H

#include <stdint.h>
#include <zqhandler/sony9p.h>
#include <zqhandler/zq_api.h>

ZQ_BEGIN_DECLS

ZQ_API int odetics_autoskip(t_s9p_command* cmd);
ZQ_API int odetics_recordCueUp(t_s9p_command* cmd, const char* id, const char* tc);
ZQ_API int odetics_inPreview(t_s9p_command* cmd, const char* id, const char* tc);
ZQ_API int odetics_outPreview(t_s9p_command* cmd, const char* tc);
ZQ_API int odetics_preview_inreset(t_s9p_command* cmd);
ZQ_API int odetics_preview_outreset(t_s9p_command* cmd);
ZQ_API int odetics_eraseAllID(t_s9p_command* cmd);
ZQ_API int odetics_eraseID(t_s9p_command* cmd, const char* id);
ZQ_API int odetics_eraseSegment(t_s9p_command* cmd, const char* first_tc, const char* second_tc);
ZQ_API int odetics_sense_firstID(t_s9p_command* cmd);
ZQ_API int odetics_sense_nextID(t_s9p_command* cmd);
ZQ_API int odetics_sense_id_status(t_s9p_command* cmd, const char* id);
ZQ_API int odetics_sense_storage(t_s9p_command* cmd);
/* The 8 bytes of `device_id` are copied unchanged, zero bytes included; null sends 8 zeros. */
ZQ_API int odetics_set_deviceID(t_s9p_command* cmd, const uint8_t device_id[8]);
ZQ_API int odetics_sense_deviceID(t_s9p_command* cmd);
ZQ_API int odetics_inreset(t_s9p_command* cmd);
ZQ_API int odetics_outreset(t_s9p_command* cmd);
/* Any non-zero `on` is on: 0x40 0x41; off: 0x40 0x40. */
ZQ_API int odetics_automode(t_s9p_command* cmd, int on);
ZQ_API int odetics_inPreset(t_s9p_command* cmd, const char* id, const char* tc);
ZQ_API int odetics_outPreset(t_s9p_command* cmd, const char* tc);
ZQ_API int odetics_sense_odetics(t_s9p_command* cmd);
ZQ_API int odetics_sense_loadedID(t_s9p_command* cmd);
ZQ_API int odetics_sense_lengthID(t_s9p_command* cmd, const char* id);

ZQ_END_DECLS

#endif
