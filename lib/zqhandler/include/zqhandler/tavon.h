/* Builders of the server's own media commands, carried as Sony frames: video and audio
 * information of a file, of what plays now and of the start-up configuration, the capture status,
 * closed captions and the video and audio output settings. Each fills `cmd` (frame and checksum,
 * `len`) and returns 0, or -1 when `cmd` is null; none sends anything.
 *
 * File names: a field of exactly 8 bytes, the first eight bytes of the name padded with zero
 * bytes, not terminated; with a null name the field is left out (CMD1 0x61, the selector alone).
 * Setting values: the low 8 bits of `value`, unchanged.
 *
 * The two audio output setters carry two data bytes after CMD2 0xB4 (the selector 0x00 or 0x01,
 * then the value), so their CMD1 is 0x42, the data count Sony framing requires: a device that
 * frames the serial line by CMD1's count (as this library and the emulator do) would read a 0x41
 * frame as one byte shorter and take its checksum for the start of the next frame. */
#ifndef ZQHANDLER_TAVON_H
#define ZQHANDLER_TAVON_H

#include <zqhandler/sony9p.h>
#include <zqhandler/zq_api.h>

ZQ_BEGIN_DECLS

ZQ_API int tavon_sense_capture(t_s9p_command* cmd);
ZQ_API int tavon_sense_current_vinfo(t_s9p_command* cmd);
ZQ_API int tavon_sense_startup_vinfo(t_s9p_command* cmd);
ZQ_API int tavon_sense_current_ainfo(t_s9p_command* cmd);
ZQ_API int tavon_sense_startup_ainfo(t_s9p_command* cmd);
ZQ_API int tavon_sense_file_vinfo(t_s9p_command* cmd, const char* name);
ZQ_API int tavon_sense_file_ainfo(t_s9p_command* cmd, const char* name);
/* Any non-zero `on` is on: 0x40 0x01; off: 0x40 0x00. */
ZQ_API int tavon_ccmode(t_s9p_command* cmd, int on);
ZQ_API int tavon_set_cc_foreground(t_s9p_command* cmd, int value);
ZQ_API int tavon_set_cc_background(t_s9p_command* cmd, int value);
ZQ_API int tavon_set_video_format(t_s9p_command* cmd, int value);
ZQ_API int tavon_set_video_color_space(t_s9p_command* cmd, int value);
ZQ_API int tavon_set_video_aspect_ratio(t_s9p_command* cmd, int value);
ZQ_API int tavon_set_cc_geometry(t_s9p_command* cmd, int value);
ZQ_API int tavon_set_audio_rendering(t_s9p_command* cmd, int value);
ZQ_API int tavon_set_audio_spdif(t_s9p_command* cmd, int value);

ZQ_END_DECLS

#endif
