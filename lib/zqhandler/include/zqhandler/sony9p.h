/* Sony frame layer: the frame record, its checksum and generic builder, the library's error codes
 * and their texts, the link record every transport of the library works on, and the header of
 * every datagram the library sends. */
#ifndef ZQHANDLER_SONY9P_H
#define ZQHANDLER_SONY9P_H

#include <netinet/in.h>
#include <stdint.h>
#include <zqhandler/zq_api.h>

ZQ_BEGIN_DECLS

/* A frame is CMD1, CMD2, 0 to 15 data bytes (the count is CMD1's low nibble) and a checksum. */
#define S9P_MIN_FRAME 3
#define S9P_MAX_FRAME 18

/* The library's error codes, whatever protocol failed; S9P_ERR_LAST is their count. */
typedef enum e_s9p_err {
    S9P_ERR_NONE = 0,
    S9P_ERR_CHECKSUM = 1,
    S9P_ERR_COMM = 2,
    S9P_ERR_PROTOCOL = 3,
    S9P_SEND_TIMEOUT = 4,
    S9P_RCV_TIMEOUT = 5,
    S9P_ERR_SYSTEM = 6,
    S9P_ERR_NOT_CONNECTED = 7,
    S9P_INVAL_ARG = 8,
    S9P_PERMISSION_DENIED = 9,
    S9P_NOT_IMPLEMENTED = 10,
    S9P_NOTFOUND = 11,
    S9P_ERR_LAST = 12
} e_s9p_err;

/* Messages indexed by e_s9p_err; entry S9P_ERR_LAST ("Unknown error") is the fallback for any
 * other value. Static strings, valid for the life of the process. */
ZQ_API extern const char* const s9p_err_string[S9P_ERR_LAST + 1];

/* The message of any code, in range or not: s9p_err_string[code] for 0 to S9P_ERR_LAST, else
 * "Unknown error". A static string, never null. */
ZQ_API const char* s9p_strerror(int code);

/* A reserved word kept in records for layout; the library neither reads nor writes `flags`. */
typedef struct s_zq_reserved {
    uint32_t reserved;
} t_zq_reserved;

/* One Sony frame being built, sent or received. A plain value: copy it freely. */
typedef struct s_s9p_command {
    t_zq_reserved flags;
    t_zq_reserved status;        /* cleared at the start of every send and every answer read */
    uint32_t err_status;         /* e_s9p_err of the last failure met with this record */
    int32_t timeout;             /* unused: the handle's time-out governs every exchange */
    uint8_t data[S9P_MAX_FRAME]; /* CMD1 .. checksum */
    uint8_t len;                 /* valid bytes in data, checksum included */
} t_s9p_command;

/* The kinds of transport held in t_s9p_handle.connected. */
typedef enum e_s9p_link {
    S9P_LINK_NONE = 0,
    S9P_LINK_DATAGRAM = 1, /* UDP, frames behind a 10-byte header */
    S9P_LINK_SERIAL = 2,   /* the serial line */
    S9P_LINK_STREAM = 3    /* TCP connection protocol, frames in "s9p " messages */
} e_s9p_link;

struct s_serial_handle; /* a serial port with its saved line settings; opaque */

/* A handle's transport. Owned by the handle that embeds it; set up and torn down by the
 * zqhandler_connect_* and zqhandler_disconnect operations only. */
typedef struct s_s9p_handle {
    int32_t connected;            /* e_s9p_link */
    int32_t fd;                   /* datagram or stream socket, -1 when none */
    struct sockaddr_in sockadd;   /* the peer; a datagram answer replaces it with its sender */
    int32_t socklen;              /* sizeof sockadd */
    struct s_serial_handle* shdl; /* the serial port, or null */
} t_s9p_handle;

/* The 10-byte header in front of every datagram of the library (ComHdr, ComHdr_louth,
 * ComHdr_mgmt): five 16-bit fields held in network byte order (as htons gives them), so that a
 * record goes on the wire as it lies. `type` says what follows (1 a Sony frame, 3 management
 * data, 5 a Louth frame) and is not read on receipt; `size` counts the bytes after the header
 * (of a received frame only its low byte is read); `msgType` is 0 but in management datagrams;
 * `seqID` and `seqNum` are 0. */
#define ZQ_DATAGRAM_HEADER_SIZE 10
#define ZQ_DATAGRAM_HEADER                                                                         \
    uint16_t type;                                                                                 \
    uint16_t size;                                                                                 \
    uint16_t msgType;                                                                              \
    uint16_t seqID;                                                                                \
    uint16_t seqNum;

/* A Sony frame in a UDP datagram. A datagram carries the header and exactly the frame's bytes,
 * not the whole record. */
typedef struct s_ComHdr {
    ZQ_DATAGRAM_HEADER
    uint8_t data[S9P_MAX_FRAME];
} ComHdr;

/* The low 8 bits of the sum of the first `count` bytes; 0 when count is 0 or less. */
ZQ_API int s9p_calculate_checksum(const uint8_t* bytes, int count);

/* Builds a frame from `bytes` (CMD1, CMD2, data; no checksum) into `cmd`: only the low four bits
 * of `count` are used, the checksum is appended and `len` set. Returns 0, or -1 when the count is
 * not two more than CMD1's data count (or `bytes` is null): then "s9p_misc: invalid arg\n" is
 * printed on standard output and err_status is S9P_INVAL_ARG; `cmd` keeps what was written. */
ZQ_API int s9p_misc(t_s9p_command* cmd, const uint8_t* bytes, int count);

ZQ_END_DECLS

#endif
