// Any bytes on the emulator's serial line in pieces of any size, Sony or Louth: each frame taken is
// valid, bytes that form none get one answer at most before the next one, a quiet line ends empty.
#include <algorithm>
#include <cstdlib>
#include <devsim/serial_line.h>

// A frame the line takes, checked apart from its code: a Sony frame's last byte sums the others;
// a Louth frame is 02, its count, the bytes counted, and a checksum that sums them to 0.
static bool valid_frame(const devsim::Bytes& f, bool louth) {
    unsigned sum = 0;
    for (size_t i = louth ? 2 : 0; i < f.size() - (louth ? 0 : 1); ++i)
        sum += f[i];
    return louth ? f.size() >= 5 && f[0] == 0x02 && f[1] + 3u == f.size() && sum % 256 == 0
                 : f.size() == (f[0] & 0x0Fu) + 3u && sum % 256 == f.back();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    const bool louth = data[0] & 1;
    const size_t piece = data[1] % 20 + 1; // the line delivers this many bytes at a time
    devsim::SerialLine line;
    devsim::Bytes taken;
    int answers_since_frame = 0;
    auto take_steps = [&] {
        for (;;) {
            const devsim::LineStep step = line.next(louth, taken);
            if (step.kind == devsim::LineStep::wait)
                return;
            const bool frame = step.kind == devsim::LineStep::frame;
            if (taken.empty() || taken.size() != step.length ||
                (frame && !valid_frame(taken, louth)))
                abort();
            answers_since_frame =
                frame ? 0 : answers_since_frame + (step.kind == devsim::LineStep::bad);
            if (answers_since_frame > 1)
                abort();
        }
    };
    for (size_t at = 2; at < size; at += piece) {
        line.add(data + at, std::min(piece, size - at));
        take_steps();
    }
    line.quiet();
    take_steps();
    if (line.holds())
        abort();
    return 0;
}
