/* Connection-protocol operations of the handle: the server's version, its disk information, file
 * entries, GOP downloads (both generations) and GOP uploads over the handle's TCP stream, and
 * zqhandler_get_diskinfo, which takes whichever protocol the handle's link speaks. */
#ifndef ZQHANDLER_ZQHANDLER_CNXN_H
#define ZQHANDLER_ZQHANDLER_CNXN_H

#include <stdint.h>
#include <zqhandler/zq_api.h>
#include <zqhandler/zqhandler_handle.h>

ZQ_BEGIN_DECLS

/* Each operation returns 0 on success and -1 on failure with lasterr set: the code of the step
 * that failed (S9P_ERR_NOT_CONNECTED, S9P_ERR_SYSTEM or S9P_SEND_TIMEOUT for a send,
 * S9P_ERR_COMM or S9P_RCV_TIMEOUT for a receive) or S9P_ERR_PROTOCOL for an answer with another
 * tag. The request and its answer header get the handle's time-out each (negative: without
 * limit); raw bytes get 5000 ms whatever the handle's time-out, and while they are awaited an
 * "aliv" request goes out for every 20 ms without a byte. Input already waiting is dropped before
 * every request, so bytes left over by a failed operation never reach the next one. A step's
 * failure is traced at level 200 on standard error (zqhandler_cnxn_get_file_entry prints its
 * texts on standard output instead). Nothing is retried; a failed raw receive leaves the bytes
 * received so far in the buffer.
 *
 * Buffers belong to the caller, are used only during the call and must hold `capacity` bytes. A
 * null handle, a negative capacity, or a null buffer with a capacity above 0 is refused with -1
 * before anything is sent, lasterr untouched. An announced size is the header's arg1 read as
 * unsigned 32-bit: 2^31 and above exceed every capacity (the size out-argument then reads
 * negative). */

/* The handle's link decides: TCP stream, zqhandler_cnxn_get_diskinfo (0 on success); datagram,
 * zqhandler_mgmt_get_diskinfo (the bytes copied, lasterr untouched); serial line or no link, -1
 * at once with lasterr unchanged. */
ZQ_API int zqhandler_get_diskinfo(t_zqhandler* zqh, uint8_t* buffer, int32_t capacity);

/* "ver ": the server's two version words (arg1, arg2 of its answer), each stored only when its
 * pointer is not null. */
ZQ_API int zqhandler_cnxn_version(t_zqhandler* zqh, uint32_t* first, uint32_t* second);

/* "gfif" (announcing `capacity`), then "data": the disk information into `buffer`. An announced
 * size above `capacity` fails with S9P_ERR_PROTOCOL before "data" is sent. */
ZQ_API int zqhandler_cnxn_get_diskinfo(t_zqhandler* zqh, uint8_t* buffer, int32_t capacity);

/* "uuuu" for entry `entry`, then "data": the entry into `buffer`. The announced size goes into
 * *size (when not null) as soon as the header is in, also when it is above `capacity`, which
 * fails with S9P_INVAL_ARG before "data" is sent. */
ZQ_API int zqhandler_cnxn_get_file_entry(t_zqhandler* zqh, uint32_t entry, uint8_t* buffer,
                                         int32_t* size, int32_t capacity);

/* One GOP into `buffer`, in the form the handle's proto_ver selects:
 * above 0, "cggp" then "data", with *size and the capacity check as for a file entry;
 * 0 or below, the older "ggop", answered with the GOP's bytes at once and no header: exactly
 * `capacity` bytes are awaited (the caller must know the GOP's size), *size is not written, and
 * fewer bytes within 5000 ms fail with S9P_RCV_TIMEOUT. */
ZQ_API int zqhandler_cnxn_get_gop(t_zqhandler* zqh, uint8_t* buffer, int32_t* size,
                                  int32_t capacity);

/* "pgop" with arg1 `value` and arg2 `count`; on the server's "pgac" the `count` bytes follow
 * (1 ms apart per send, within 5000 ms). "pgna" fails with S9P_PERMISSION_DENIED and no byte of
 * `bytes` is sent; any other answer fails with S9P_ERR_PROTOCOL. Null `bytes` with a count above
 * 0 is refused before anything is sent. */
ZQ_API int zqhandler_cnxn_put_gop(t_zqhandler* zqh, uint32_t value, const uint8_t* bytes,
                                  uint32_t count);

ZQ_END_DECLS

#endif
