/* Management protocol: the datagram header, the command record, its builders, and one request and
 * one answer on a handle's datagram link. */
#ifndef ZQHANDLER_MGMT_H
#define ZQHANDLER_MGMT_H

#include <stdint.h>
#include <zqhandler/sony9p.h>
#include <zqhandler/zq_api.h>

ZQ_BEGIN_DECLS

#define MGMT_HEADER_SIZE ZQ_DATAGRAM_HEADER_SIZE
#define MGMT_MAX_DATAGRAM 1500                               /* a whole answer, header included */
#define MGMT_MAX_DATA (MGMT_MAX_DATAGRAM - MGMT_HEADER_SIZE) /* 1490 bytes after the header */
#define MGMT_MAX_REQUEST_DATA 255                            /* the reach of t_mgmt_command.len */

/* Request codes in msgType; a picture request carries the caller's picture code instead. */
#define MGMT_PUT_DISKINFO 0
#define MGMT_GET_DISKINFO 1
#define MGMT_GET_LOG 2

/* The header of every management datagram (ZQ_DATAGRAM_HEADER, type 3): in a request `size` counts
 * the data bytes and `msgType` is the request code; in an upload's answer `msgType` 0 means
 * accepted. Header and data go on the wire as they lie in the record. */
typedef struct s_ComHdr_mgmt {
    ZQ_DATAGRAM_HEADER
} ComHdr_mgmt;

/* A request being built and sent, or an answer received (the whole datagram from `hdr` on). A
 * plain value, usually a local of the caller: header and data are contiguous, a request is its
 * first len + 10 bytes. */
typedef struct s_mgmt_command {
    ComHdr_mgmt hdr;
    uint8_t data[MGMT_MAX_DATAGRAM];
    t_zq_reserved flags;  /* not used */
    t_zq_reserved status; /* not used */
    int32_t timeout;      /* not used: time-outs are arguments */
    uint8_t len;          /* data bytes to send */
} t_mgmt_command;

/* Each builder clears the header, sets msgType and len and returns 0. mgmt_putdiskinfo refuses a
 * size that len cannot hold (negative or above MGMT_MAX_REQUEST_DATA): -1, nothing changed; the
 * caller fills data with `size` bytes. */
ZQ_API int mgmt_getlog(t_mgmt_command* cmd);
ZQ_API int mgmt_getdiskinfo(t_mgmt_command* cmd);
ZQ_API int mgmt_putdiskinfo(t_mgmt_command* cmd, int size);
ZQ_API int mgmt_getpicture(t_mgmt_command* cmd, uint16_t code);

/* On a handle's datagram link (its socket and peer; the link's kind is not checked, so use them
 * on datagram handles: a link without a socket fails its waits). Time-outs in ms: 0 polls, a
 * negative one waits without limit.
 * mgmt_send_cmd sets type 3 and size = len, drops the datagrams already waiting (printing
 * "mgmt_send_cmd: flush\n" on standard output for each, at most 256 of them), waits to send (once
 * more after 5 ms) and sends len + 10 bytes to the peer. 0, or -1 when the second wait failed or
 * the send did.
 * mgmt_read_answer clears the header, waits for one datagram and receives it, at most
 * MGMT_MAX_DATAGRAM bytes, into `cmd` from its first byte; the sender becomes the peer. The bytes
 * received (0 for an empty datagram), or -1 when none came in time or the receive failed. */
ZQ_API int mgmt_send_cmd(t_s9p_handle* hdl, t_mgmt_command* cmd, int timeout_ms);
ZQ_API int mgmt_read_answer(t_s9p_handle* hdl, t_mgmt_command* cmd, int timeout_ms);

ZQ_END_DECLS

#endif
