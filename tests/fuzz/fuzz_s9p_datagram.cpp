// Any datagram as a Sony answer: the parser stays inside the record, and what it accepts is a
// frame of 3 to 18 bytes; what it refuses leaves the record untouched.
#include "sony9p_private.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    t_s9p_command answer{};
    e_s9p_err code = s9p_parse_datagram({data, size}, &answer);
    bool frame = answer.len >= S9P_MIN_FRAME && answer.len <= S9P_MAX_FRAME;
    if (code == S9P_ERR_NONE ? !frame : code != S9P_ERR_PROTOCOL || answer.len != 0)
        abort();
    return 0;
}
