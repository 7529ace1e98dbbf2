// Any bytes as a serial line delivers them, in reads of any size: the assembler takes one frame
// of exactly the length its CMD1 announces and never more.
#include "sony9p_private.h"

#include <algorithm>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    S9pFrameAssembler frame;
    size_t at = 0;
    // Each read: one byte tells how many bytes the line hands over (0 is a silent read).
    while (at < size && !frame.complete()) {
        size_t announced = data[at++] % 20;
        size_t chunk = std::min(announced, size - at);
        size_t taken = frame.take({data + at, chunk});
        // All that was offered, unless the frame ended first.
        if (taken > chunk || (taken < chunk && !frame.complete()))
            abort();
        at += taken;
    }
    auto bytes = frame.bytes();
    if (bytes.size() > S9P_MAX_FRAME)
        abort();
    if (frame.complete() && bytes.size() != (bytes[0] & 0x0Fu) + S9P_MIN_FRAME)
        abort();
    return 0;
}
