/* Timecode strings "HH:MM:SS:FF": checks, arithmetic, and conversions to frame counts and BCD.
 *
 * Strings. A timecode string is 11 characters and a NUL: hours, minutes, seconds and frames as two
 * digits each, ":" between them, and ";" before the frames for a drop-frame timecode. Results are
 * always written with ":" at positions 2 and 5 and ":" or ";" at position 8.
 *
 * Buffers and ownership. Every result buffer belongs to the caller and must hold ZQ_TC_BYTES (12)
 * bytes; no operation writes more than 12 bytes into it (11 characters and the NUL), and none keeps a pointer
 * to any argument after it returns. No operation keeps state, so all of them may run on any thread.
 * A null result buffer (or a null BCD array) is refused: nothing is written and the operation
 * returns -1 (tcstr_reset does nothing).
 *
 * Reading by position. The arithmetic operations and the frame conversions read an input string's
 * four fields by position only (tens digit x 10 + units digit, each digit being its character code
 * minus that of '0'), never looking at the separators. They never read past the string's NUL:
 * positions at or past the end read as the digit 0, so a short, empty or null string reads as
 * zeros in the fields it does not reach. Text that is not in the normal form gives meaningless
 * numbers, not an error.
 *
 * Two-digit fields. A field that does not fit two digits is cut to its last two: the value modulo
 * 100, taken between 0 and 99. This is how hours of 100 or more are written, whether they come
 * from a frame count, a sum, a product, an increment or loosely typed text: 123 hours are written
 * "23", as a two-digit hours counter rolls over, and hours below 0 roll back the same way (-1 is
 * written "99"). With readable input only the hours can need this; other fields are cut only when
 * garbage input pushed them out of range. Callers that need a day count use an hour limit (24)
 * or tc_frames2tcstr_clip24.
 *
 * Rate. Frames per second, a signed 32-bit number. A rate of 31 or more is a field rate: each
 * operation first halves it once (integer division), so 50 counts frames 0-24 and 60 counts 0-29;
 * in the frame-count conversions a field rate counts fields, two per frame. A rate below 1 is
 * refused: -1, nothing read or written (tcstr_reset and tc_validstr excepted, see there).
 *
 * Drop flag. Non-zero asks for drop-frame counting; it has effect only when the rate (after
 * halving) is exactly 30, and then results carry ";" at position 8. Drop-frame counting leaves out
 * frame numbers 0 and 1 at the start of every minute except minutes 0, 10, 20, 30, 40 and 50.
 *
 * Hour limit. The number of hours at which a count wraps or stops (for example 24). For
 * tcstr_validate, tcstr_incremente and tcstr_compute_duration a limit of 0 or less means none.
 * tcstr_compute_eom and tcstr_multiply need a limit of 1 or more and refuse any other.
 *
 * BCD timecode: 4 bytes, frames first, as devices send and receive it. Byte 0 frames (tens in
 * bits 4-5, bit 6 set for drop-frame), byte 1 seconds (tens bits 4-6), byte 2 minutes (tens the
 * whole upper nibble), byte 3 hours (tens bits 4-5); units in bits 0-3 of each byte. */
#ifndef ZQHANDLER_TC_H
#define ZQHANDLER_TC_H

#include <stdint.h>
#include <zqhandler/zq_api.h>

ZQ_BEGIN_DECLS

/* A timecode string buffer: "HH:MM:SS:FF" and its NUL. */
#define ZQ_TC_BYTES 12

/* The zero timecode "00:00:00:00", a constant string of the library valid for its whole life. */
extern ZQ_API const char* const tcstr_tc0;

/* ---- String checks and arithmetic, field by field on the string ---- */

/* Writes "00:00:00:00" into `tc`, with ";" before the frames when `rate` is exactly 30 (not
 * halved here) and `drop` is set. */
ZQ_API void tcstr_reset(char* tc, int32_t rate, int32_t drop);

/* Loose check of a typed timecode: 1 if valid, 0 if not. The empty string is valid, a null one
 * is not. Groups of digits, each optionally followed by one ".", ":" or ";" (at most three
 * separators); the first group may be any length, later ones take at most three digits (a fourth
 * starts a new group); 8 digits at most in all. "1:2:3:4", "12345678" and "10:" are valid;
 * "123456789", "1:2:3:4:5", ":12" and "1::2" are not. */
ZQ_API int tcstr_isvalid(const char* s);

/* 1 if `s` is exactly 11 characters with digits at positions 0,1,3,4,6,7,9,10 and one of ".:;"
 * at 2, 5 and 8; else 0 (null included). Values are not range-checked: "99:99:99:99" is normal. */
ZQ_API int tcstr_isnormal(const char* s);

/* Normal form of a loosely typed timecode, read from the end so the last number is the frames:
 * up to two digits per field, each field before the frames optionally followed by one ".", ":"
 * or ";". "5" gives 00:00:00:05, "1234" 00:00:12:34, "1:2:3" 00:01:02:03, "12:" 00:00:12:00.
 * Fields are not range-checked. A null or empty `s` gives an empty result and 0. Text left over
 * after the hours, or any other character, returns -1 with an empty result. */
ZQ_API int tcstr_reformat(char* result, const char* s);

/* A typed timecode brought into range: reformatted as tcstr_reformat, frames clamped to rate - 1,
 * seconds and minutes to 59, hours reduced modulo a positive `hour_limit`; at 30 with drop, a
 * frame that drop-frame counting skips moves to the next counted frame (`forward` non-zero) or
 * the previous one. Returns 0; -1 with `result` untouched when the text cannot be read. A null
 * or empty `s` gives an empty result and 0. */
ZQ_API int tcstr_validate(char* result, const char* s, int32_t hour_limit, int32_t forward,
                          int32_t rate, int32_t drop);

/* One frame forward, in place (`tc` is a 12-byte buffer). Frame numbers that drop-frame counting
 * skips are not skipped. When a positive `hour_limit` is reached, the result is 00:00:00:00 with
 * `wrap` set, else `tc` keeps its old value. Returns 0. */
ZQ_API int tcstr_incremente(char* tc, int32_t rate, int32_t drop, int32_t wrap, int32_t hour_limit);

/* One frame back, in place. From 00:00:00:00: without `wrap` it stays there; with it the result
 * is the last frame of hour `restart_hour` - 1, and a `restart_hour` below 1 is refused (-1, `tc`
 * untouched). Frame numbers that drop-frame counting skips are not skipped. Returns 0. */
ZQ_API int tcstr_decremente(char* tc, int32_t rate, int32_t drop, int32_t wrap,
                            int32_t restart_hour);

/* Inclusive duration from `start` to `end`, field by field at `rate` (never drop-frame). An `end`
 * earlier than `start` gives an empty result; equal ones give 00:00:00:01 at any rate. When a
 * positive `hour_limit` is reached by the end frame, the result is 00:00:00:00 with `wrap`, else
 * the difference without it. Returns 0. */
ZQ_API int tcstr_compute_duration(char* result, const char* start, const char* end, int32_t rate,
                                  int32_t wrap, int32_t hour_limit);

/* Last frame of material that starts at `start` and lasts `duration` (field by field). A zero sum
 * stays 00:00:00:00 without `wrap` and becomes the last frame before `hour_limit` with it. Hours
 * at or above `hour_limit` wrap modulo the limit with `wrap`; without it, and for a limit below
 * 1, the result is reset as tcstr_reset and -1 returned. Returns 0 otherwise. */
ZQ_API int tcstr_compute_eom(char* result, const char* start, const char* duration, int32_t rate,
                             int32_t drop, int32_t wrap, int32_t hour_limit);

/* `tc` times `factor`, field by field with carries. Hours at or above `hour_limit` wrap modulo the
 * limit with `wrap`; without it, and for a limit below 1, the result is reset as tcstr_reset and
 * -1 returned. Returns 0 otherwise. */
ZQ_API int tcstr_multiply(char* result, const char* tc, uint32_t factor, int32_t rate, int32_t drop,
                          int32_t wrap, int32_t hour_limit);

/* ---- Conversions between strings, frame counts, records and BCD ---- */

/* A timecode as four numbers, in this order. */
typedef struct s_tc_struct {
    int32_t hours;
    int32_t minutes;
    int32_t seconds;
    int32_t frames;
} t_tc_struct;

/* As tcstr_reformat, but text that cannot be read returns -1 and leaves `result` untouched. */
ZQ_API int tc_tcstrFixFormat(char* result, const char* s);

/* A loosely typed timecode read from the start: up to four numbers of one or two digits, each
 * separated by any one character (a missing number leaves nothing), fill the fields from the
 * right ("123" is 00:00:12:03, "12::34" 00:00:12:34); anything after the fourth is ignored.
 * Seconds and minutes of 60 or more carry into the next field. Returns 0; a null or empty `s`, or
 * one that does not start with a digit, gives "00:00:00:00" and -1. */
ZQ_API int tc_fix_tcstr(char* result, const char* s);

/* The 4 BCD bytes as a timecode string (";" when bit 6 of byte 0 is set). Device flag bits above
 * the tens are ignored; a nibble above 9 gives '0' plus its value (10 gives ':'). Returns 0. */
ZQ_API int tc_bcd2tcstr(char* result, const uint8_t bcd[4]);

/* `s` normalised by tc_fix_tcstr (text it refuses gives four zero bytes), as 4 BCD bytes; bit 6
 * of byte 0 is set when `s` has ";" at position 8. Returns 0. */
ZQ_API int tc_tcstr2bcd(uint8_t bcd[4], const char* s);

/* Frame count of a record. At 30 with drop, a record naming a skipped frame is first corrected
 * in place to frame 2 of its second. At a field rate the count is twice the count at half the
 * rate. Returns the count; -1 for a null record, a rate below 1, or a count that is negative or
 * does not fit a signed 32-bit number. */
ZQ_API int32_t tc_struct2frames(t_tc_struct* tc, int32_t rate, int32_t drop);

/* Frame count of a string read by position, as tc_struct2frames. */
ZQ_API int32_t tc_tcstr2frames(const char* s, int32_t rate, int32_t drop);

/* The timecode of frame `frames` (at a field rate, of field `frames`: an odd field gives the
 * label of its frame). Hours are not wrapped at 24 (see the two-digit rule above). Returns 0. */
ZQ_API int tc_frames2tcstr(uint32_t frames, int32_t rate, int32_t drop, char* result);

/* As tc_frames2tcstr, with the hours taken modulo 24. */
ZQ_API int tc_frames2tcstr_clip24(uint32_t frames, int32_t rate, int32_t drop, char* result);

/* Sum of two timecodes through their frame counts. Returns 0; -1 with "00:00:00:00" in `result`
 * when a string's count is refused (see tc_struct2frames). */
ZQ_API int tc_tcstradd(char* result, const char* a, const char* b, int32_t rate, int32_t drop);

/* `a` minus `b` through their frame counts, 00:00:00:00 when `b` is not earlier than `a`.
 * Returns 0; -1 with "00:00:00:00" in `result` when a string's count is refused. */
ZQ_API int tc_tcstrsub(char* result, const char* a, const char* b, int32_t rate, int32_t drop);

/* Writes "00:00:00:00" and returns -1 (its historical result). */
ZQ_API int tc_set_0(char* result);

/* 0 if the frames field (positions 9-10, two digits) is below `rate` as given (not halved: at 50,
 * frames up to 49 pass), else -1. A null string, one shorter than 11 characters, or a frames
 * field that is not two digits gives -1. The other fields are not checked. */
ZQ_API int tc_validstr(const char* s, int32_t rate);

ZQ_END_DECLS

#endif
