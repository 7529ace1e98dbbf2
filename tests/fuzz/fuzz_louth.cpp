// Any bytes as a Louth answer, twice: as one datagram, and as a serial line delivers them in reads
// of any size. The parsers stay inside the record, take what the header or the first bytes
// announce and never more, and the answer check never reads past the answer.
#include "louth.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

void datagram(const uint8_t* data, size_t size) {
    t_louth_command answer{};
    e_s9p_err code = louth_parse_datagram({data, size}, &answer);
    if (code != S9P_ERR_NONE) {
        if (code != S9P_ERR_PROTOCOL || answer.len != 0)
            abort();
        return;
    }
    if (size < 11 || answer.len != data[3] || memcmp(answer.data, data + 10, answer.len) != 0)
        abort();
    e_s9p_err verdict = louth_check_answer(answer);
    if (verdict != S9P_ERR_NONE && answer.data[0] != LOUTH_START)
        abort();
}

void serial(const uint8_t* data, size_t size) {
    LouthAnswerAssembler answer;
    size_t at = 0;
    // Each read: one byte tells how many bytes the line hands over (0 is a silent read).
    while (at < size && !answer.complete() && !answer.failed()) {
        size_t chunk = std::min<size_t>(data[at++] % 8, size - at);
        size_t taken = answer.take({data + at, chunk});
        if (taken > chunk || (taken < chunk && !answer.complete() && !answer.failed()))
            abort();
        at += taken;
    }
    auto bytes = answer.answer();
    if (bytes.size() > LOUTH_MAX_FRAME)
        abort();
    if (answer.failed()) {
        const bool bad_start =
            bytes[0] != LOUTH_START && bytes[0] != LOUTH_ACK && bytes[0] != LOUTH_REFUSAL;
        if (!bad_start && !(bytes.size() >= 2 && bytes[1] > LOUTH_MAX_COUNT))
            abort();
        return;
    }
    if (!answer.complete())
        return;
    const size_t expected = bytes[0] == LOUTH_ACK       ? 1
                            : bytes[0] == LOUTH_REFUSAL ? 2
                                                        : bytes[1] + 3u;
    if (bytes.size() != expected)
        abort();
    t_louth_command record{};
    std::copy(bytes.begin(), bytes.end(), record.data);
    record.len = static_cast<uint8_t>(bytes.size());
    louth_check_answer(record);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    datagram(data, size);
    serial(data, size);
    return 0;
}
