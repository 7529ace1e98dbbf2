// Any bytes as a stream answer: a 12-byte header, then the frame it announces.
#include "sony9p.h"

#include <algorithm>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < CNXN_HEADER_SIZE)
        return 0;
    uint8_t frame_len = 0;
    e_s9p_err code =
        s9p_parse_stream_header(std::span<const uint8_t, CNXN_HEADER_SIZE>(data, CNXN_HEADER_SIZE),
                                &frame_len);
    if (code != S9P_ERR_NONE) {
        if (code != S9P_ERR_COMM || frame_len != 0)
            abort();
        return 0;
    }
    if (frame_len < S9P_MIN_FRAME || frame_len > S9P_MAX_FRAME)
        abort();
    // The frame is read into the record with exactly the announced length.
    t_s9p_command answer{};
    size_t body = std::min<size_t>(frame_len, size - CNXN_HEADER_SIZE);
    std::copy_n(data + CNXN_HEADER_SIZE, body, answer.data);
    answer.len = frame_len;
    s9p_checksum_ok(answer);
    return 0;
}
