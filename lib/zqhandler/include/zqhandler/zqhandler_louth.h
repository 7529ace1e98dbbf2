/* The handle's Louth operations: each builds one command (see louth.h), sends it on the handle's
 * datagram link or serial line, reads one answer, keeps both in data.louth and judges the answer.
 *
 * Results and errors. 0 (or a count) on success, -1 on failure. A failed send or read stores its
 * transport code in lasterr (S9P_ERR_NOT_CONNECTED on a handle that is not connected or that is
 * connected by TCP, which carries no Louth). An answer of the wrong form, a refusal (0x05) where
 * an acknowledge (the one byte 0x04) is needed, or a sense answer whose CMD1 is not 0x30 plus the
 * unit's nibble is S9P_ERR_PROTOCOL. Arguments refused before anything is sent (a null handle or
 * output buffer where one is needed, a basic command or sense outside the tables below) return -1
 * and leave lasterr as it was; a success leaves it as it was too.
 * Kept records. data.louth.last_sent is the command once sent, data.louth.last_rcv the answer once
 * read; when the send or read fails they keep the previous exchange's, when the answer is judged
 * wrong they hold this one. They overlay data.s9p: an exchange of either protocol overwrites both.
 *
 * Arguments. Only the unit's low four bits are sent. IDs and timecodes are strings read during
 * the call only, encoded as louth.h says (a null ID is eight spaces, a null or unreadable
 * timecode the zero timecode).
 * Frames in datagrams. The datagram header sets an answer's length; an answer frame whose own byte
 * count runs past that length is refused with S9P_ERR_PROTOCOL, so that nothing is read beyond
 * the answer that came.
 *
 * Output buffers belong to the caller and are written only on success: ZQ_LOUTH_OUT_BYTES for
 * status, errors, IDs and sense_basic (up to 250 bytes, and a terminating zero for the IDs),
 * ZQ_TC_BYTES for timecodes. */
#ifndef ZQHANDLER_ZQHANDLER_LOUTH_H
#define ZQHANDLER_ZQHANDLER_LOUTH_H

#include <stdint.h>
#include <zqhandler/basic.h>
#include <zqhandler/louth.h>
#include <zqhandler/tc.h>
#include <zqhandler/zq_api.h>
#include <zqhandler/zqhandler_handle.h>

ZQ_BEGIN_DECLS

/* The output of the status, error, ID and basic sense operations. */
#define ZQ_LOUTH_OUT_BYTES 251

/* An e_basic_command: STOP, PLAY, RECORD, STILL, CONTINUE (resume), ERASE_ALL and STEP_FWD are
 * sent; every other value returns -1 at once. Needs an acknowledge. */
ZQ_API int zqhandler_cmd_louth_basic(t_zqhandler* zqh, int command, int unit);

/* An e_basic_sense; every value but these four returns -1 at once:
 *   STATUS, ERRORS: an answer frame 0x3u 0x85 with a byte count of 3 or more (choice: a smaller
 *     count is S9P_ERR_PROTOCOL, nothing copied); its byte count - 3 bytes from the second data
 *     byte on are copied, not terminated; returns that count.
 *   TC: byte count exactly 7, 0x3u 0x86: the timecode of the 4 BCD bytes after the first data
 *     byte, as a string; returns 11.
 *   LOADED_ID: byte count 3 or more, 0x3u 0x87: n = byte count - 3 bytes from the second data
 *     byte on and a terminating zero, nothing when n is 0; returns n. */
ZQ_API int zqhandler_cmd_louth_sense_basic(t_zqhandler* zqh, int sense, int unit, uint8_t* out);
ZQ_API int zqhandler_cmd_louth_sense_status(t_zqhandler* zqh, int unit, uint8_t* out);
ZQ_API int zqhandler_cmd_louth_sense_errors(t_zqhandler* zqh, int unit, uint8_t* out);

/* The first / next ID of the device's list: an answer 0x3u 0x91 / 0x3u 0x82 with a byte count of
 * 5 or more copies all its data bytes and a terminating zero into `id` and returns their number;
 * a smaller count means the list is done: S9P_NOTFOUND. */
ZQ_API int zqhandler_cmd_louth_sense_firstID(t_zqhandler* zqh, int unit, char* id);
ZQ_API int zqhandler_cmd_louth_sense_nextID(t_zqhandler* zqh, int unit, char* id);

/* An ID's length: an answer 0x3u 0x94; with a byte count of 6 its four BCD bytes go into `tc` as
 * a timecode string, any other count gives "00:00:00:00". `tc` may be null. Returns 0. */
ZQ_API int zqhandler_cmd_louth_sense_id_length(t_zqhandler* zqh, int unit, const char* id,
                                               char* tc);

/* Asks for a port: the answer 0x02 0x03 0x3? 0x81 (any unit) with a data byte of 1 grants it,
 * any other data byte is S9P_PERMISSION_DENIED. */
ZQ_API int zqhandler_cmd_louth_open_port(t_zqhandler* zqh, int unit, int port, int lock);

/* These need an acknowledge and return 0. */
ZQ_API int zqhandler_cmd_louth_select_port(t_zqhandler* zqh, int unit, int port);
ZQ_API int zqhandler_cmd_louth_eraseID(t_zqhandler* zqh, int unit, const char* id);
ZQ_API int zqhandler_cmd_louth_cue_play(t_zqhandler* zqh, int unit, const char* id);
ZQ_API int zqhandler_cmd_louth_cue_play_data(t_zqhandler* zqh, int unit, const char* id,
                                             const char* tc1, const char* tc2);
ZQ_API int zqhandler_cmd_louth_record_init(t_zqhandler* zqh, int unit, const char* id);
ZQ_API int zqhandler_cmd_louth_record_init_data(t_zqhandler* zqh, int unit, const char* id,
                                                const char* tc1, const char* tc2);
ZQ_API int zqhandler_cmd_louth_var_play(t_zqhandler* zqh, int unit, int32_t speed);
ZQ_API int zqhandler_cmd_louth_jog(t_zqhandler* zqh, int unit, int32_t frames);

/* Sends the frame of the `count` bytes at `bytes` (CMD1, CMD2, data; see louth_misc) and returns
 * 0 for any answer the transport accepts (acknowledge, refusal or frame: see data.louth.last_rcv).
 * A null `bytes` is refused. */
ZQ_API int zqhandler_cmd_louth_misc(t_zqhandler* zqh, const uint8_t* bytes, int count);

ZQ_END_DECLS

#endif
