/* Connection protocol requests: the record a request is built in and one builder per request. */
#ifndef ZQHANDLER_CNXN_H
#define ZQHANDLER_CNXN_H

#include <stdint.h>
#include <zqhandler/sony9p.h>
#include <zqhandler/zq_api.h>

ZQ_BEGIN_DECLS

/* Every header, request or answer: a four-character tag and two big-endian 32-bit arguments. */
#define CNXN_HEADER_SIZE 12
#define CNXN_MAX_MESSAGE 32

/* A request as it goes on the wire, or an answer header received (then only the first 12 bytes
 * of data and err_status mean anything). Usually a local of the caller. */
typedef struct s_cnxn_command {
    uint8_t data[CNXN_MAX_MESSAGE]; /* header, then inline bytes (the Sony tunnel only) */
    uint8_t len;                    /* bytes of data to send, at most CNXN_MAX_MESSAGE */
    const uint8_t* payload;         /* bytes sent after the message; not owned, must stay valid
                                       until the send returns */
    uint32_t err_status;            /* e_s9p_err left by a failed transfer */
    uint32_t payload_len;           /* bytes of payload to send; 0 for none */
} t_cnxn_command;

/* Each builder clears data, writes the 12-byte header, sets len (12) and payload_len (0), leaves
 * payload alone and returns 0. */
ZQ_API int cnxn_version_command(t_cnxn_command* msg);                    /* "ver " 0 0 */
ZQ_API int cnxn_getfinfo_command(t_cnxn_command* msg, uint32_t value);   /* "gfif" value 0 */
ZQ_API int cnxn_file_entry_command(t_cnxn_command* msg, uint32_t entry); /* "uuuu" entry 0 */
ZQ_API int cnxn_getdata_command(t_cnxn_command* msg);                    /* "data" 0 0 */
ZQ_API int cnxn_old_getgop_command(t_cnxn_command* msg);                 /* "ggop" 0 0 */
ZQ_API int cnxn_getgop_command(t_cnxn_command* msg);                     /* "cggp" 0 0 */
ZQ_API int cnxn_alive_command(t_cnxn_command* msg);                      /* "aliv" 0 0 */
/* "pgop" value count: asks to upload `count` bytes. */
ZQ_API int cnxn_putgop_command(t_cnxn_command* msg, uint32_t value, uint32_t count);

/* "s9p " with arg1 the frame's length and arg2 0, then the frame of `cmd` (checksum included);
 * len is 12 + the frame's length. A `cmd` whose len is above S9P_MAX_FRAME does not fit the
 * record: nothing is built, err_status is S9P_INVAL_ARG and -1 is returned. */
ZQ_API int cnxn_sony9p_command(t_cnxn_command* msg, const t_s9p_command* cmd);

ZQ_END_DECLS

#endif
