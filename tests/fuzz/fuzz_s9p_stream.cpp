// Any 12 bytes as the header of a stream answer: only a "s9p " header announcing a frame of 3 to
// 18 bytes is taken, so the frame read after it always fits the record.
#include "link.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < CNXN_HEADER_SIZE)
        return 0;
    uint8_t len = 0;
    e_s9p_err code =
        s9p_parse_stream_header(std::span<const uint8_t, CNXN_HEADER_SIZE>(data, 12), &len);
    if (code == S9P_ERR_NONE ? len < S9P_MIN_FRAME || len > S9P_MAX_FRAME : code != S9P_ERR_COMM)
        abort();
    return 0;
}
