/* Management operations of the handle: the server's log, its disk information (read and
 * uploaded) and its pictures, over the handle's datagram link. */
#ifndef ZQHANDLER_ZQHANDLER_MGMT_H
#define ZQHANDLER_ZQHANDLER_MGMT_H

#include <stdint.h>
#include <zqhandler/mgmt.h>
#include <zqhandler/zq_api.h>
#include <zqhandler/zqhandler_handle.h>

ZQ_BEGIN_DECLS

/* Each operation sends one request (see mgmt_send_cmd) and waits up to the handle's time-out for
 * one answer; answers are matched to requests by order only. None of them touches lasterr, and
 * none checks the link's kind: use them on a handle connected with zqhandler_connect_eth (on one
 * without a socket the waits fail). A null handle, or a null buffer where bytes are to be copied,
 * is refused with -1 before anything is sent. Buffers belong to the caller and are used only
 * during the call.
 *
 * An answer whose `size` announces more bytes than its datagram carries: only the bytes that came
 * are copied, and their count is returned (never a byte beyond the datagram). Header fields a
 * datagram too short to hold them does not carry read as 0. */

/* The log: copies the announced bytes into `buffer`, which must hold MGMT_MAX_DATA (1490) bytes.
 * Their count (0 when the answer announces none), or -1 when the request could not be sent or no
 * answer came. */
ZQ_API int zqhandler_mgmt_getlog(t_zqhandler* zqh, uint8_t* buffer);
/* The disk information: as the log, at most `capacity` bytes (a negative capacity copies none). */
ZQ_API int zqhandler_mgmt_get_diskinfo(t_zqhandler* zqh, uint8_t* buffer, int32_t capacity);
/* Uploads `size` bytes of disk information: 0 when the server's answer accepts it (msgType 0, or
 * an answer too short to hold msgType), -1 when it refuses, when no answer came or the request
 * could not be sent. A request carries at most MGMT_MAX_REQUEST_DATA (255) bytes: a larger (or
 * negative) size is refused with -1 and nothing is sent; split larger uploads. */
ZQ_API int zqhandler_mgmt_put_diskinfo(t_zqhandler* zqh, const uint8_t* bytes, int32_t size);
/* The picture `code`: copies every byte after the answer's header (its `size` is not read), at
 * most `capacity`, and returns their count; 0 when no answer came or it was empty; -1 only when
 * the request could not be sent. */
ZQ_API int zqhandler_mgmt_get_picture(t_zqhandler* zqh, uint8_t* buffer, int32_t capacity,
                                      uint16_t code);

ZQ_END_DECLS

#endif
