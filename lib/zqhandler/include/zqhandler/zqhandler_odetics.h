/* Handle operations of the Odetics extensions: clip presets, previews and cue-ups by ID, erasure,
 * the device ID, automatic mode, and the device's ID list.
 *
 * Each runs one Sony exchange (see zqhandler.h for the transport and NAK codes it can store in
 * lasterr) and returns 0, or -1 with lasterr set. An answer of another form than the operation
 * requires is S9P_ERR_PROTOCOL. Output arguments are written only on success. A null handle, or a
 * null output buffer where one is required, returns -1 before anything is sent, lasterr
 * untouched. IDs, timecodes and the device ID are encoded as odetics.h says. */
#ifndef ZQHANDLER_ZQHANDLER_ODETICS_H
#define ZQHANDLER_ZQHANDLER_ODETICS_H

#include <stdint.h>
#include <zqhandler/tc.h>
#include <zqhandler/zq_api.h>
#include <zqhandler/zqhandler_handle.h>

ZQ_BEGIN_DECLS

/* The output of the ID list operations: the 8 ID bytes and a terminating zero. */
#define ZQ_ODETICS_ID_BYTES 9

/* Commands answered by an ACK (first byte 0x10). */
ZQ_API int zqhandler_cmd_automode(t_zqhandler* zqh, int on);
ZQ_API int zqhandler_cmd_odetics_inPreset(t_zqhandler* zqh, const char* id, const char* tc);
ZQ_API int zqhandler_cmd_odetics_outPreset(t_zqhandler* zqh, const char* tc);
ZQ_API int zqhandler_cmd_odetics_inPreview(t_zqhandler* zqh, const char* id, const char* tc);
ZQ_API int zqhandler_cmd_odetics_outPreview(t_zqhandler* zqh, const char* tc);
ZQ_API int zqhandler_cmd_odetics_recordCueUp(t_zqhandler* zqh, const char* id, const char* tc);
ZQ_API int zqhandler_cmd_odetics_eraseID(t_zqhandler* zqh, const char* id);
ZQ_API int zqhandler_cmd_odetics_eraseSegment(t_zqhandler* zqh, const char* first_tc,
                                              const char* second_tc);
ZQ_API int zqhandler_cmd_odetics_set_deviceID(t_zqhandler* zqh, const uint8_t device_id[8]);

/* The device's ID list: one first-ID request, then next-ID requests until S9P_NOTFOUND (answer
 * 0x80). `id` (ZQ_ODETICS_ID_BYTES) receives the 8 ID bytes as sent, padding included, and a
 * terminating zero. The first ID needs the answer 0x88 0x14; a next ID any answer 0x88; either
 * must carry its 8 bytes. */
ZQ_API int zqhandler_cmd_odetics_sense_firstID(t_zqhandler* zqh, char* id);
ZQ_API int zqhandler_cmd_odetics_sense_nextID(t_zqhandler* zqh, char* id);
/* An ID's status byte (answer 0x81 0x18 and the byte), stored through `status` unless null. */
ZQ_API int zqhandler_cmd_odetics_sense_id_status(t_zqhandler* zqh, const char* id, uint8_t* status);
/* An ID's length (answer 0x74 0xC1 and 4 BCD bytes) as a timecode string through `tc`
 * (ZQ_TC_BYTES) unless null. */
ZQ_API int zqhandler_cmd_odetics_sense_id_length(t_zqhandler* zqh, const char* id, char* tc);

ZQ_END_DECLS

#endif
