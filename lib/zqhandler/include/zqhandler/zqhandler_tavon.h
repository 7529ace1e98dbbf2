/* Handle operations of the server's media commands: capture status, video and audio information
 * of a file, of what plays now and of the start-up configuration, and the closed-caption mode.
 *
 * Each runs one Sony exchange (see zqhandler.h for the transport and NAK codes it can store in
 * lasterr) and returns its count of output bytes (0 for the caption mode), or -1 with lasterr
 * set. An answer of another form than the operation requires is S9P_ERR_PROTOCOL; the capture,
 * start-up audio and caption-mode operations then also print their failure line on standard
 * output (a transport failure or a NAK prints nothing). Output buffers are provided by the caller
 * with the room given below and written only on success; a null handle or buffer returns -1
 * before anything is sent, lasterr untouched. The information bytes are the device's, passed
 * through unchanged. */
#ifndef ZQHANDLER_ZQHANDLER_TAVON_H
#define ZQHANDLER_ZQHANDLER_TAVON_H

#include <stdint.h>
#include <zqhandler/zq_api.h>
#include <zqhandler/zqhandler_handle.h>

ZQ_BEGIN_DECLS

/* The outputs: the capture status, and the information of a file, of what plays now or of the
 * start-up configuration (at most 15 bytes). */
#define ZQ_CAPTURE_BYTES 10
#define ZQ_MEDIA_INFO_BYTES 15

/* The 10 capture status bytes (answer 0x7A 0xB2) into `status` (ZQ_CAPTURE_BYTES); returns 10.
 * Any other answer prints "sense capture failed %02x.%02x\n" with its first two bytes. */
ZQ_API int zqhandler_cmd_tavon_sense_capture(t_zqhandler* zqh, uint8_t* status);

/* A file's information (answer 0x7n with n >= 1, the request's CMD2, then the selector 0x01):
 * the n - 1 bytes after the selector into `info` (ZQ_MEDIA_INFO_BYTES); returns n - 1. A null
 * name asks about the file the request leaves to the device. */
ZQ_API int zqhandler_cmd_tavon_sense_file_vinfo(t_zqhandler* zqh, const char* name, uint8_t* info);
ZQ_API int zqhandler_cmd_tavon_sense_file_ainfo(t_zqhandler* zqh, const char* name, uint8_t* info);

/* What plays now (selector 0x00) or the start-up configuration (0x02): answer 0x7n with n >= 1,
 * the request's CMD2 and selector; the n data bytes, selector first, into `info`
 * (ZQ_MEDIA_INFO_BYTES); returns n. The start-up audio query prints "sense startup ainfo
 * failed\n" on a wrong answer. */
ZQ_API int zqhandler_cmd_tavon_sense_current_vinfo(t_zqhandler* zqh, uint8_t* info);
ZQ_API int zqhandler_cmd_tavon_sense_current_ainfo(t_zqhandler* zqh, uint8_t* info);
ZQ_API int zqhandler_cmd_tavon_sense_startup_vinfo(t_zqhandler* zqh, uint8_t* info);
ZQ_API int zqhandler_cmd_tavon_sense_startup_ainfo(t_zqhandler* zqh, uint8_t* info);

/* Closed captions on (any non-zero) or off; an answer other than an ACK prints
 * "ccmode failed\n". Returns 0. */
ZQ_API int zqhandler_cmd_tavon_ccmode(t_zqhandler* zqh, int on);

ZQ_END_DECLS

#endif
