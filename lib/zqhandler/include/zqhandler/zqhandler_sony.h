/* The handle's Sony operations: the basic transport commands and senses, and one operation per
 * device function (timecode, clips, presets, menus, modes, motion).
 *
 * Each operation is one exchange of zqhandler_cmd_misc (zqhandler.h): one command, one answer,
 * both kept in data.s9p; transport failures and NAKs leave their codes in lasterr as described
 * there. An answer that is not the one the operation accepts is S9P_ERR_PROTOCOL; so is one whose
 * data is read but which holds fewer data bytes than its CMD1 announces (possible on UDP and TCP,
 * where the length comes from the message header).
 *
 * Arguments refused before anything is sent (a value outside a table, a null output, an argument
 * the builder refuses, see s9p_commands.h) return -1 and leave lasterr alone.
 * Output arguments belong to the caller and are written only on success; sizes are given below.
 * "ACK" means: the answer's CMD1 must be 0x10 (CMD2 is not examined) and the result is 0. */
#ifndef ZQHANDLER_ZQHANDLER_SONY_H
#define ZQHANDLER_ZQHANDLER_SONY_H

#include <stdint.h>
#include <zqhandler/basic.h>
#include <zqhandler/tc.h>
#include <zqhandler/zq_api.h>
#include <zqhandler/zqhandler_handle.h>

ZQ_BEGIN_DECLS

/* The output of zqhandler_cmd_sense_basic and zqhandler_cmd_sense_status: 15 data bytes and a
 * terminating zero at most. */
#define ZQ_SENSE_BYTES 16
/* The output of the operations that return an answer's data: 15 bytes at most. */
#define ZQ_SENSE_DATA_MAX 15

/* ---- Table-driven commands and senses ----
 * `command`, `sense` and `which` are e_basic_command and e_basic_sense values, passed as int so
 * that any value a caller holds, in or out of the enumeration, is checked rather than assumed. */

/* Sends the command; ACK. A value outside e_basic_command (below 0, BAS_CMD_LAST or more) is
 * refused before anything is sent. */
ZQ_API int zqhandler_cmd_basic(t_zqhandler* zqh, int command);
/* Sends the sense and checks the answer as the table says; copies the answer's N data bytes
 * (N = its CMD1's low nibble) into `out` (ZQ_SENSE_BYTES), with a zero after them when N is 2
 * or more, and returns N. BAS_SENSE_IP_ADDRESS writes its first four data bytes as the text
 * "a.b.c.d" (NUL-terminated) and returns the text's length. Values outside the table and 34 to
 * 39 are refused before anything is sent. */
ZQ_API int zqhandler_cmd_sense_basic(t_zqhandler* zqh, int sense, uint8_t* out);
/* zqhandler_cmd_sense_basic with BAS_SENSE_STATUS. */
ZQ_API int zqhandler_cmd_sense_status(t_zqhandler* zqh, uint8_t* out);

/* ---- Timecode ---- */

/* `which` BAS_SENSE_TC sends 61 0C 04 and accepts 7x with CMD2 00, 01, 04, 05, 06, 07, 0C, 14, 15,
 * 16 or 17; BAS_SENSE_ODETICS_STORAGE sends A0 1C and accepts 8x. The answer must carry 4 data
 * bytes at least; the first four become the timecode string in `tc` (ZQ_TC_BYTES). Any other
 * `which` is refused before anything is sent. Returns 0. */
ZQ_API int zqhandler_cmd_sense_timecode(t_zqhandler* zqh, int which, char* tc);
/* Cues to the timecode (null: to the preset in-point); ACK. */
ZQ_API int zqhandler_cmd_cueWithData(t_zqhandler* zqh, const char* tc);

/* ---- Clips ---- */

/* Accepts exactly 74 C1: the first and last clip numbers of the device (BCD in the answer). */
ZQ_API int zqhandler_cmd_sense_clip_range(t_zqhandler* zqh, int* first, int* last);
/* Accepts exactly 7C 9A: the clip's two 32-bit values and its two linked clips. */
ZQ_API int zqhandler_cmd_sense_clip_parameters(t_zqhandler* zqh, int clip, uint32_t* value1,
                                               uint32_t* value2, int* clip3, int* clip4);
ZQ_API int zqhandler_cmd_save_clip_parameters(t_zqhandler* zqh, int clip, uint32_t value1,
                                              uint32_t value2);                        /* ACK */
ZQ_API int zqhandler_cmd_preset_clip_prev(t_zqhandler* zqh, int clip, int other_clip); /* ACK */
ZQ_API int zqhandler_cmd_preset_clip_next(t_zqhandler* zqh, int clip, int other_clip); /* ACK */

/* ---- Menus ---- */

ZQ_API int zqhandler_menu_recall_current(t_zqhandler* zqh);              /* ACK */
ZQ_API int zqhandler_menu_recall_flash(t_zqhandler* zqh);                /* ACK */
ZQ_API int zqhandler_menu_preset_default(t_zqhandler* zqh);              /* ACK */
ZQ_API int zqhandler_menu_save_flash(t_zqhandler* zqh);                  /* ACK */
ZQ_API int zqhandler_menu_commit_section(t_zqhandler* zqh, int section); /* ACK */
/* Accepts 7x C0; copies its N data bytes into `out` (ZQ_SENSE_DATA_MAX, no terminator) and
 * returns N. */
ZQ_API int zqhandler_menu_read_section(t_zqhandler* zqh, int section, uint8_t* out);
/* Writes `count` bytes (S9P_MENU_SECTION_MAX at most, else refused) into the section; ACK. */
ZQ_API int zqhandler_menu_save_section(t_zqhandler* zqh, int section, const uint8_t* bytes,
                                       int count);

/* ---- Presets and modes ---- */

ZQ_API int zqhandler_cmd_preset_channel(t_zqhandler* zqh, int channel); /* ACK */
/* ACK. On failure prints on standard output: "zqhandler_send_s9p failed in FILE:LINE\n" with the
 * library's source file and the line of the send, or of the read when the answer failed to come,
 * had a bad checksum or was a NAK; "preset current field failed\n" when the answer is not an
 * ACK. */
ZQ_API int zqhandler_cmd_preset_current(t_zqhandler* zqh, uint32_t field);
ZQ_API int zqhandler_cmd_preset_field0(t_zqhandler* zqh, uint32_t field);    /* ACK */
ZQ_API int zqhandler_cmd_preset_lastField(t_zqhandler* zqh, uint32_t field); /* ACK */
/* ACK; an answer that is not an ACK also prints "loopmode failed\n" (resp. "timermode failed\n")
 * on standard output. Other failures print nothing. */
ZQ_API int zqhandler_cmd_loopmode(t_zqhandler* zqh, int on);
ZQ_API int zqhandler_cmd_timermode(t_zqhandler* zqh, int mode);

/* ---- Motion ---- */

/* A speed in percent of play speed (see s9p_commands.h): forward when 0 or more, reverse with
 * -speed when negative. ACK. */
ZQ_API int zqhandler_cmd_var_play(t_zqhandler* zqh, int speed);
ZQ_API int zqhandler_cmd_shuttle(t_zqhandler* zqh, int speed);
ZQ_API int zqhandler_cmd_jog(t_zqhandler* zqh, int speed);
/* Steps `count` frames (low 8 bits), forward when 0 or more, reverse when negative. ACK. */
ZQ_API int zqhandler_cmd_step(t_zqhandler* zqh, int count);

/* ---- Status ---- */

/* Asks for `count` status bytes from byte `first` (low 4 bits of each); accepts 7x 20; copies
 * its N data bytes into `out` (ZQ_SENSE_DATA_MAX, no terminator) and returns N. */
ZQ_API int zqhandler_cmd_sense_status_range(t_zqhandler* zqh, int first, int count, uint8_t* out);

ZQ_END_DECLS

#endif
