/* The Sony command catalogue: one builder per command the library sends.
 *
 * Every builder fills the record `cmd` (provided by the caller) with one frame, CMD1 to checksum,
 * and its `len`, and sends nothing. It returns 0, or -1 when it refuses its arguments: then
 * err_status is S9P_INVAL_ARG and no byte of `data` or `len` is written. A null `cmd` returns -1
 * and writes nothing. Builders keep no pointer to any argument and may run on any thread.
 *
 * Encodings of the arguments:
 * - Speed (jog, variable play, shuttle), in percent of play speed, as one byte N, the device
 *   running at 10^(N/32 - 2) times play speed: 0 and below give 0; 1 to 100 the integer part of
 *   32 x (log10(speed / 100) + 2) (1 gives 0, 10 gives 32, 50 gives 54, 100 gives 64); 101 to
 *   149 give 64, 150 to 349 74, 350 to 749 86, 750 and above 96.
 * - Clip number: 0 to 9999 as four BCD digits in two bytes, thousands first (1234 is 0x12 0x34).
 *   A clip number outside 0 to 9999 has no BCD form and is refused (-1, S9P_INVAL_ARG): sent
 *   anyway, it would name another clip.
 * - Field number and clip parameter value: 32 bits, big-endian.
 * - Step count, channel, timer mode and menu section: the low 8 bits of the value.
 * - Timecode: "HH:MM:SS:FF" (";" before the frames for drop-frame) as 4 BCD bytes, frames first
 *   (see tc_tcstr2bcd); text that tc_tcstr2bcd refuses is sent as 00:00:00:00.
 * - On/off: any value other than 0 is on. */
#ifndef ZQHANDLER_S9P_COMMANDS_H
#define ZQHANDLER_S9P_COMMANDS_H

#include <stdint.h>
#include <zqhandler/sony9p.h>
#include <zqhandler/zq_api.h>

ZQ_BEGIN_DECLS

/* The most bytes a menu section write carries: CMD1 0x4F announces 15 data bytes, the section
 * number and 14 bytes of the section. */
#define S9P_MENU_SECTION_MAX 14

/* ---- Transport control ---- */
ZQ_API int s9p_stop(t_s9p_command* cmd);            /* 20 00 */
ZQ_API int s9p_play(t_s9p_command* cmd);            /* 20 01 */
ZQ_API int s9p_record(t_s9p_command* cmd);          /* 20 02 */
ZQ_API int s9p_standby(t_s9p_command* cmd, int on); /* 20 05 on, 20 04 off */
ZQ_API int s9p_eject(t_s9p_command* cmd);           /* 20 0F */
ZQ_API int s9p_FF(t_s9p_command* cmd);              /* 20 10 */
ZQ_API int s9p_RW(t_s9p_command* cmd);              /* 20 20 */
ZQ_API int s9p_EE_off(t_s9p_command* cmd);          /* 20 60 */
ZQ_API int s9p_EE_on(t_s9p_command* cmd);           /* 20 61 */
/* 24 31 and the timecode; a null timecode gives 20 31 (cue to the preset in-point). */
ZQ_API int s9p_cueWithData(t_s9p_command* cmd, const char* tc);
ZQ_API int s9p_jog_forward(t_s9p_command* cmd, int speed);     /* 21 11 N */
ZQ_API int s9p_var_forward(t_s9p_command* cmd, int speed);     /* 21 12 N */
ZQ_API int s9p_shuttle_forward(t_s9p_command* cmd, int speed); /* 21 13 N */
ZQ_API int s9p_step_forward(t_s9p_command* cmd, int count);    /* 21 14 count */
ZQ_API int s9p_jog_reverse(t_s9p_command* cmd, int speed);     /* 21 21 N */
ZQ_API int s9p_var_reverse(t_s9p_command* cmd, int speed);     /* 21 22 N */
ZQ_API int s9p_shuttle_reverse(t_s9p_command* cmd, int speed); /* 21 23 N */
ZQ_API int s9p_step_reverse(t_s9p_command* cmd, int count);    /* 21 24 count */

/* ---- Device set-up ---- */
ZQ_API int s9p_initialize(t_s9p_command* cmd);                  /* 30 04 */
ZQ_API int s9p_remount(t_s9p_command* cmd);                     /* 30 07 */
ZQ_API int s9p_preset_channel(t_s9p_command* cmd, int channel); /* 31 10 channel */
ZQ_API int s9p_reset(t_s9p_command* cmd);                       /* 34 09 "ASAP" */

/* ---- Presets, modes and clips ---- */
ZQ_API int s9p_preset_current_field(t_s9p_command* cmd, uint32_t field); /* 24 9D field */
ZQ_API int s9p_preset_field0(t_s9p_command* cmd, uint32_t field);        /* 44 B4 field */
ZQ_API int s9p_preset_lastField(t_s9p_command* cmd, uint32_t field);     /* 44 B5 field */
ZQ_API int s9p_timermode(t_s9p_command* cmd, int mode);                  /* 41 36 mode */
ZQ_API int s9p_loopmode(t_s9p_command* cmd, int on);                     /* 41 B7 01 / 00 */
/* 44 96 (prev) or 44 97 (next), the clip and the other clip. */
ZQ_API int s9p_preset_clip_prev(t_s9p_command* cmd, int clip, int other_clip);
ZQ_API int s9p_preset_clip_next(t_s9p_command* cmd, int clip, int other_clip);
/* 2A AC, the clip, value 1, value 2: 13 bytes with the checksum. */
ZQ_API int s9p_save_clip_parameters(t_s9p_command* cmd, int clip, uint32_t value1, uint32_t value2);
ZQ_API int s9p_sense_clip_parameters(t_s9p_command* cmd, int clip); /* 62 9A clip */
ZQ_API int s9p_sense_clip_range(t_s9p_command* cmd);                /* 61 C1 02 */

/* ---- Menus ---- */
ZQ_API int s9p_menu_save_flash(t_s9p_command* cmd);                  /* 40 C2 */
ZQ_API int s9p_menu_recall_current(t_s9p_command* cmd);              /* 40 C3 */
ZQ_API int s9p_menu_recall_flash(t_s9p_command* cmd);                /* 40 C4 */
ZQ_API int s9p_menu_preset_default(t_s9p_command* cmd);              /* 40 C5 */
ZQ_API int s9p_menu_commit_section(t_s9p_command* cmd, int section); /* 41 C1 section */
ZQ_API int s9p_menu_read_section(t_s9p_command* cmd, int section);   /* 61 C0 section */
/* CMD1 0x41 + count, C0, the section, then `count` bytes: `len` is count + 4. A count below 0 or
 * above S9P_MENU_SECTION_MAX, or bytes null with a count above 0, is refused (-1, S9P_INVAL_ARG).
 * No byte is read from `bytes` when count is 0. */
ZQ_API int s9p_menu_save_section(t_s9p_command* cmd, int section, const uint8_t* bytes, int count);

/* ---- Senses (answered by a 7x frame unless noted) ---- */
ZQ_API int s9p_sense_status(t_s9p_command* cmd); /* 61 20 0A */
/* 61 20, then (first & 0x0F) x 16 + (count & 0x0F): `count` status bytes from byte `first`. */
ZQ_API int s9p_sense_status_range(t_s9p_command* cmd, int first, int count);
ZQ_API int s9p_sense_errors(t_s9p_command* cmd);           /* 61 C1 00 */
ZQ_API int s9p_sense_tc(t_s9p_command* cmd);               /* 61 0C 04 */
ZQ_API int s9p_sense_device_type(t_s9p_command* cmd);      /* 00 11, answered 12 11 */
ZQ_API int s9p_sense_compRatio(t_s9p_command* cmd);        /* 61 94 01 */
ZQ_API int s9p_sense_protocol_version(t_s9p_command* cmd); /* 61 B0 00 */
ZQ_API int s9p_sense_version(t_s9p_command* cmd);          /* 60 95 */
ZQ_API int s9p_sense_productName(t_s9p_command* cmd);      /* 60 B1 */
ZQ_API int s9p_sense_serialNumber(t_s9p_command* cmd);     /* 60 B2 */
ZQ_API int s9p_sense_preroll(t_s9p_command* cmd);          /* 60 31 */
ZQ_API int s9p_sense_postroll(t_s9p_command* cmd);         /* 60 3C */
ZQ_API int s9p_sense_speed(t_s9p_command* cmd);            /* 60 2E */
ZQ_API int s9p_sense_frameMode(t_s9p_command* cmd);        /* 60 38 */
ZQ_API int s9p_sense_recordInhibit(t_s9p_command* cmd);    /* 60 3E */
ZQ_API int s9p_sense_servoRef(t_s9p_command* cmd);         /* 60 33 */
ZQ_API int s9p_sense_timerMode(t_s9p_command* cmd);        /* 60 36 */
ZQ_API int s9p_sense_inputSource(t_s9p_command* cmd);      /* 60 50 */
ZQ_API int s9p_sense_syncOffset(t_s9p_command* cmd);       /* 60 78 */
ZQ_API int s9p_sense_resolution(t_s9p_command* cmd);       /* 60 90 */
ZQ_API int s9p_sense_chaseMode(t_s9p_command* cmd);        /* 60 91 */
ZQ_API int s9p_sense_zqCapacity(t_s9p_command* cmd);       /* 60 9F */
ZQ_API int s9p_sense_diskName(t_s9p_command* cmd);         /* 60 A1 */
ZQ_API int s9p_sense_currentField(t_s9p_command* cmd);     /* 60 A2 */
ZQ_API int s9p_sense_cacheSize(t_s9p_command* cmd);        /* 60 A8 */
ZQ_API int s9p_sense_stepRec(t_s9p_command* cmd);          /* 60 A9 */
ZQ_API int s9p_sense_nrAudioChannel(t_s9p_command* cmd);   /* 60 AD */
ZQ_API int s9p_sense_videoStd(t_s9p_command* cmd);         /* 60 AE */
ZQ_API int s9p_sense_hardware(t_s9p_command* cmd);         /* 60 B0 */
ZQ_API int s9p_sense_ipAddress(t_s9p_command* cmd);        /* 60 B3 */
ZQ_API int s9p_sense_field0(t_s9p_command* cmd);           /* 60 B4 */
ZQ_API int s9p_sense_lastField(t_s9p_command* cmd);        /* 60 B5 */
ZQ_API int s9p_sense_loop_mode(t_s9p_command* cmd);        /* 60 B7 */

ZQ_END_DECLS

#endif
