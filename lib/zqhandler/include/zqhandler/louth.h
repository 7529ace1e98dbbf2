/* Louth frames: the command record, the datagram header, the checksum, the builders of every Louth
 * command, and sending a command and reading one answer on the handle's link.
 *
 * Frame. 0x02, a byte count N + 2, CMD1 (command type in the high nibble, unit in the low one),
 * CMD2, N data bytes, and a checksum: the two's complement of the sum of CMD1 .. the last data
 * byte, so that those bytes and the checksum add up to 0 modulo 256. A device answers with a
 * frame (to a sense request), with 0x04 alone (acknowledge) or with 0x05 and its error byte
 * (refusal; the error byte is passed through, never interpreted).
 *
 * Builders. Each fills `data` and `len` of the caller's record, touching nothing else, and
 * returns 0 (-1 only for a null record). They never send. The unit's low four bits are used.
 * An ID is 8 bytes on the wire: its first eight characters padded with spaces, a null ID eight
 * spaces. A timecode "HH:MM:SS:FF" goes as 4 BCD bytes, frames first, 0x40 in the frames byte
 * when ";" precedes the frames (see tc_tcstr2bcd); text that cannot be read, and null, go as the
 * zero timecode. A port is one byte: the number when it is 0 or more, else its magnitude with
 * bit 7 set (-1 is 0x81). What the two timecodes of the "data" commands, the EE mode and the lock
 * flag mean is the device's business: they go through unchanged.
 *
 * Transport. On the handle's datagram link (a ComHdr_louth of type 5 in front of the frame) or
 * its serial line; any other link fails with S9P_ERR_NOT_CONNECTED. Time-outs are in ms: 0 polls
 * the socket, a negative one waits for it without limit. On the serial line every single read
 * waits at most the line's own 0.1 s, and one that brings nothing ends the answer: a silent line
 * costs 0.1 s whatever the time-out. Failures store an e_s9p_err code in the record's err_status
 * and return -1. */
#ifndef ZQHANDLER_LOUTH_H
#define ZQHANDLER_LOUTH_H

#include <stdint.h>
#include <zqhandler/sony9p.h>
#include <zqhandler/zq_api.h>

ZQ_BEGIN_DECLS

/* Room in a record, and the longest frame it can hold (len is 8 bits): a byte count of at most
 * 252, 250 data bytes. The fixed builders stay far below it. */
#define LOUTH_DATA_SIZE 256
#define LOUTH_MAX_FRAME 255
#define LOUTH_MAX_COUNT 252

#define LOUTH_START 0x02
#define LOUTH_ACK 0x04
#define LOUTH_REFUSAL 0x05

/* One Louth frame or short answer being built, sent or received. A plain value: copy it freely.
 * The answer is read into the record that held the command. */
typedef struct s_louth_command {
    t_zq_reserved flags;
    t_zq_reserved status;          /* cleared at the start of every send and every answer read */
    uint32_t err_status;           /* e_s9p_err of the last failure met with this record */
    int32_t timeout;               /* unused: the handle's time-out governs every exchange */
    uint8_t data[LOUTH_DATA_SIZE]; /* the frame or short answer, first byte to last */
    uint8_t len;                   /* valid bytes in data */
} t_louth_command;

/* A Louth frame in a UDP datagram (the header is ZQ_DATAGRAM_HEADER, type 5). A datagram carries
 * the 10-byte header and exactly `size` frame bytes, not the whole record. */
typedef struct s_ComHdr_louth {
    ZQ_DATAGRAM_HEADER
    uint8_t data[LOUTH_DATA_SIZE];
} ComHdr_louth;

/* The two's complement, modulo 256, of the sum of the first `count` bytes: 0 to 255; 0 when
 * count is 0 or less. */
ZQ_API unsigned int louth_calculate_checksum(const uint8_t* bytes, int count);

/* The frame 0x02, count, the `count` bytes at `bytes` (CMD1, CMD2, data), checksum; len =
 * count + 3. Returns 0 (-1 for a null record). Choice: a count above LOUTH_MAX_COUNT is cut to it
 * and a negative one, like a null `bytes`, is 0, so that the frame always fits the record. */
ZQ_API int louth_misc(t_louth_command* cmd, const uint8_t* bytes, int count);

/* Transport commands, CMD1 0x1u. */
ZQ_API int louth_stop(t_louth_command* cmd, int unit);         /* 0x00 */
ZQ_API int louth_play(t_louth_command* cmd, int unit);         /* 0x01 */
ZQ_API int louth_record(t_louth_command* cmd, int unit);       /* 0x02 */
ZQ_API int louth_still(t_louth_command* cmd, int unit);        /* 0x04 */
ZQ_API int louth_step_forward(t_louth_command* cmd, int unit); /* 0x05 */
ZQ_API int louth_resume(t_louth_command* cmd, int unit);       /* 0x06 */
/* 0x07: -127 to 127 frames as one signed byte; any other count (-128 too) as 4 bytes big-endian. */
ZQ_API int louth_jog(t_louth_command* cmd, int unit, int32_t frames);
/* 0x08: speed in hundredths of normal: whole part speed / 100 (toward zero, low 8 bits, signed)
 * w, fraction ((speed - 100 w) * 5) / 2 (low 8 bits), then 0x00. 150 is 01 7D 00. */
ZQ_API int louth_var(t_louth_command* cmd, int unit, int32_t speed);
ZQ_API int louth_EE_mode(t_louth_command* cmd, int unit, int mode); /* 0x0A, mode's low 8 bits */

/* Cueing, recording set-up, erasure and port selection, CMD1 0x2u. */
ZQ_API int louth_select_port(t_louth_command* cmd, int unit, int port);       /* 0x22 */
ZQ_API int louth_record_init(t_louth_command* cmd, int unit, const char* id); /* 0x23 */
/* 0x23 with the ID and two timecodes (byte count 18). */
ZQ_API int louth_record_init_data(t_louth_command* cmd, int unit, const char* id, const char* tc1,
                                  const char* tc2);
ZQ_API int louth_play_cue(t_louth_command* cmd, int unit, const char* id); /* 0x24 */
ZQ_API int louth_play_cue_data(t_louth_command* cmd, int unit, const char* id, const char* tc1,
                               const char* tc2);                          /* 0x25 */
ZQ_API int louth_eraseID(t_louth_command* cmd, int unit, const char* id); /* 0x26 */
ZQ_API int louth_eraseAll(t_louth_command* cmd, int unit);                /* 0x29 */

/* Port opening and sense requests, CMD1 0x3u. */
ZQ_API int louth_open_port(t_louth_command* cmd, int unit, int port, int lock);  /* 0x01 */
ZQ_API int louth_sense_nextID(t_louth_command* cmd, int unit);                   /* 0x02 */
ZQ_API int louth_sense_status(t_louth_command* cmd, int unit);                   /* 0x05 0x43 */
ZQ_API int louth_sense_errors(t_louth_command* cmd, int unit);                   /* 0x05 0x24 */
ZQ_API int louth_sense_tc(t_louth_command* cmd, int unit);                       /* 0x06 0x01 */
ZQ_API int louth_sense_currentID(t_louth_command* cmd, int unit);                /* 0x07 */
ZQ_API int louth_sense_firstID(t_louth_command* cmd, int unit);                  /* 0x11 */
ZQ_API int louth_sense_lengthID(t_louth_command* cmd, int unit, const char* id); /* 0x14 */

/* Sends the record's len bytes on `hdl` (the handle's comm_handle). Datagram: when an answer is
 * already waiting on the socket, that one answer is read and discarded first (a second one would
 * be read as this command's answer); a failed wait for writing is S9P_SEND_TIMEOUT, a failed send
 * S9P_INVAL_ARG. Serial: unread input is dropped, and a short write is S9P_SEND_TIMEOUT. Returns 0
 * or -1. */
ZQ_API int louth_send_cmd(t_s9p_handle* hdl, t_louth_command* cmd, int timeout_ms);

/* Reads one answer into `cmd` (cleared first) and, for a frame, checks its checksum
 * (S9P_ERR_CHECKSUM). Datagram: nothing within the time-out is S9P_RCV_TIMEOUT; the sender becomes
 * the peer of later commands; the header's size (low byte) sets the length, and a datagram under
 * 11 bytes or shorter than its header announces is S9P_ERR_PROTOCOL. A frame's own byte count is
 * not compared with that length here. Any other first byte than 0x02 is returned as it is: the
 * operation judges it. Returns 0 or -1.
 * Choice: an answer starting with 0x02 but shorter than 3 bytes (possible only in a datagram)
 * has no checksum to test and is S9P_ERR_PROTOCOL. */
ZQ_API int louth_read_answer(t_s9p_handle* hdl, t_louth_command* cmd, int timeout_ms);

/* The serial half of louth_read_answer, without the checksum test: 0x04 is one byte, 0x05 two,
 * 0x02 its byte count + 3; any other first byte is S9P_ERR_PROTOCOL. Bytes are read never past
 * the answer's end; a read that brings nothing within the line's 0.1 s, or a failed one, is
 * S9P_RCV_TIMEOUT, and so is the time-out (counted from the start of the read) passing before
 * the bytes after the length are in.
 * Choice: a byte count above 252 (the frame would not fit len) is S9P_ERR_PROTOCOL as soon as it
 * is read. Returns 0 or -1. */
ZQ_API int louth_read_answer_serial(t_s9p_handle* hdl, t_louth_command* cmd, int timeout_ms);

ZQ_END_DECLS

#endif
