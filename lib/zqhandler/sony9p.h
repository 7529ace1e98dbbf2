// Sony frame layer, the library's side: the checksum test of a received frame and the one way a
// record reports its failure. Every protocol module builds on it; it includes no other module.
#pragma once

#include <span>
#include <zqhandler/sony9p.h>

// True when `frame` holds 3 to 18 bytes whose last is the checksum of the others.
bool s9p_checksum_ok(const t_s9p_command& frame);

// Writes `frame` (CMD1 .. last data byte, at most S9P_MAX_FRAME - 1 bytes) and its checksum into
// `cmd` and sets len, touching no other field and checking no count: for builders whose frame is
// computed rather than fixed. Returns 0.
int s9p_set_frame(t_s9p_command& cmd, std::span<const uint8_t> frame);

// The one way an operation on a record fails: the code goes into the record's err_status (a
// t_s9p_command, t_cnxn_command or any record of the same kind) and the caller gets -1.
template <typename Record>
requires requires(Record* record) {
    record->err_status;
}
int fail(Record* record, e_s9p_err code) {
    record->err_status = code;
    return -1;
}
