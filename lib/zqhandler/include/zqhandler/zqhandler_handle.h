/* The device-control handle: its connections, time-out, last error, the records of its last
 * Sony or Louth exchange, and the Sony exchange (the Louth operations are in zqhandler_louth.h).
 * A program usually includes <zqhandler/zqhandler.h>, which gives this header and every other. */
#ifndef ZQHANDLER_ZQHANDLER_HANDLE_H
#define ZQHANDLER_ZQHANDLER_HANDLE_H

#include <stdint.h>
#include <zqhandler/louth.h>
#include <zqhandler/sony9p.h>
#include <zqhandler/zq_api.h>

ZQ_BEGIN_DECLS

/* The records of the handle's last Sony exchange. */
typedef struct s_s9p_data {
    t_s9p_command last_sent;       /* the last command sent successfully */
    t_s9p_command last_rcv;        /* the last answer with a correct checksum, NAKs included */
    uint32_t sent_completion_time; /* ms the last send took, successful or not */
    uint32_t rcv_completion_time;  /* ms the last answer took to arrive or to fail */
} t_s9p_data;

/* The records of the handle's last Louth exchange. A Louth exchange keeps no completion times. */
typedef struct s_louth_data {
    t_louth_command last_sent; /* the last command sent successfully */
    t_louth_command last_rcv;  /* the last answer read successfully (a refusal included) */
} t_louth_data;

/* One controller's handle on one video server. Created by zqhandler_create and freed by
 * zqhandler_delete; it owns its socket or serial port. Used by one thread at a time. */
typedef struct s_zqhandler {
    t_zq_reserved flags;
    t_zq_reserved status;
    int32_t lasterr;          /* e_s9p_err of the last failure; see zqhandler_get_last_err */
    t_s9p_handle comm_handle; /* the transport */
    int32_t timeout;          /* ms, for every wait of every exchange */
    int32_t proto_ver;        /* connection-protocol version for GOP transfers */
    /* The two forms overlay each other: an exchange of one protocol overwrites what the other
     * kept, so only the form of the protocol used last is meaningful. */
    union {
        t_s9p_data s9p;
        t_louth_data louth;
    } data;
} t_zqhandler;

/* Operations returning int give 0 (or a count) on success and -1 on failure. A failure of an
 * exchange or a connect stores an e_s9p_err code in lasterr; a success never clears it.
 * Arguments refused before anything is sent (a null pointer, a frame refused by its builder)
 * return -1 and leave lasterr alone. */

/* A new handle: not connected, time-out 60 ms, last error 0. Null when memory is short. */
ZQ_API t_zqhandler* zqhandler_create(void);
/* Disconnects and frees the handle; null is allowed. The pointer is invalid afterwards. */
ZQ_API void zqhandler_delete(t_zqhandler* zqh);

/* Each connect first drops the current connection (a failed connect leaves the handle not
 * connected) and on success sets the time-out back to 60 ms.
 * connect_serial: opens `device` at 38400 baud, 8 data bits, odd parity, 1 stop bit, raw; the
 * line's previous settings come back on disconnect. S9P_INVAL_ARG when it cannot be opened,
 * S9P_ERR_SYSTEM when memory is short.
 * connect_eth (UDP) and connect_tcp (TCP connection protocol): `address` is four decimal numbers
 * "a.b.c.d" (the low 8 bits of each; host names are not resolved) and `port` a decimal number
 * (digits up to the first other character, low 16 bits: "32896x" is 32896, "70000" is 4464).
 * An address that is not four numbers, a socket that cannot be opened or, for TCP, a connection
 * refused give S9P_INVAL_ARG. The UDP socket is neither bound nor connected: every datagram names
 * the peer, and an answer from another address becomes the peer. The TCP connect blocks until the
 * system accepts or refuses it; the stream sends each message at once (TCP_NODELAY).
 * A closed stream is not told from a silent server: after the server closes it (a restart, say)
 * the first exchanges on it wait out their time-out (S9P_RCV_TIMEOUT) and later ones fail at the
 * send (S9P_ERR_SYSTEM), until zqhandler_connect_tcp connects the handle again. A datagram or
 * serial handle needs no new connect after a server restart: its exchanges succeed again as soon
 * as the server answers. */
ZQ_API int zqhandler_connect_serial(t_zqhandler* zqh, const char* device);
ZQ_API int zqhandler_connect_eth(t_zqhandler* zqh, const char* address, const char* port);
ZQ_API int zqhandler_connect_tcp(t_zqhandler* zqh, const char* address, const char* port);
/* Closes the connection (restoring a serial line's settings); the handle stays usable. */
ZQ_API void zqhandler_disconnect(t_zqhandler* zqh);

/* The time-out in ms of each wait of an exchange (a send, then an answer). 0 waits no longer
 * than the transport's smallest step (one poll of the UDP socket, one 0.1 s read of the serial
 * line, one 20 ms slice for a stream's frame); a negative time-out waits without limit, but for a
 * Louth answer on the serial line, which ends at the first read of the line that brings nothing
 * within its 0.1 s. Set it after connecting: a connect resets it to 60. Returns the new
 * time-out. */
ZQ_API int zqhandler_set_timeout(t_zqhandler* zqh, int timeout_ms);
ZQ_API int zqhandler_get_timeout(t_zqhandler* zqh);
/* Returns the last failure's e_s9p_err code and clears it. */
ZQ_API int zqhandler_get_last_err(t_zqhandler* zqh);

/* Sends the frame `bytes[0 .. count-1]` (CMD1, CMD2, data; the checksum is appended) and waits
 * for one answer. 0 for any answer with a correct checksum that is not a NAK (0x11 0x12). A NAK
 * gives S9P_ERR_CHECKSUM when its bit 2 is set, else S9P_NOT_IMPLEMENTED with bit 0, else
 * S9P_ERR_COMM; a NAK without its data byte (0x11 0x12 and the checksum only, which a datagram or
 * a stream message can carry) is S9P_ERR_COMM too. The command and the answer are kept in
 * data.s9p. */
ZQ_API int zqhandler_cmd_misc(t_zqhandler* zqh, const uint8_t* bytes, int count);
/* As zqhandler_cmd_misc, then copies the whole answer frame, checksum included, into `answer`
 * (room for S9P_MAX_FRAME bytes, provided by the caller) and returns its length. */
ZQ_API int zqhandler_cmd_sense_misc(t_zqhandler* zqh, const uint8_t* bytes, int count,
                                    uint8_t* answer);

ZQ_END_DECLS

#endif
