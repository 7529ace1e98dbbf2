// Any bytes as a Louth answer, twice: as one datagram, and as a serial line delivers them in reads
// of any size. The parsers stay inside the record and take what the header or the first bytes
// announce, never more; the answer check reads only the answer.
#include "louth_private.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    t_louth_command answer{};
    if (louth_parse_datagram({data, size}, &answer) == S9P_ERR_NONE) {
        if (answer.len != data[3] || memcmp(answer.data, data + 10, answer.len) != 0)
            abort();
        louth_check_answer(answer);
    } else if (answer.len != 0) {
        abort();
    }

    LouthAnswerAssembler serial;
    // Each read: one byte tells how many bytes the line hands over (0 is a silent read).
    for (size_t at = 0; at < size && serial.missing() > 0;) {
        const size_t announced = data[at++] % 8;
        const size_t chunk = std::min(announced, size - at);
        at += serial.take({data + at, chunk});
    }
    auto bytes = serial.bytes();
    if (!serial.complete())
        return 0;
    const size_t length = bytes[0] == LOUTH_ACK ? 1 : bytes[0] == LOUTH_REFUSAL ? 2 : bytes[1] + 3u;
    if (bytes.size() != length || (bytes[0] == LOUTH_START && bytes[1] > LOUTH_MAX_COUNT))
        abort();
    return 0;
}
