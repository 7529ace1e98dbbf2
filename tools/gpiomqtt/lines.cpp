// The GPI lines' levels as the daemon's events tell them.
#include "lines.h"

#include <iterator>

namespace gpiomqtt {

const char* unpublished_text(Unpublished cause) {
    static const char* const kTexts[] = {
        "a datagram of another size than 8 bytes",
        "a line other than 0 to 7",
        "a status other than 0, 1 or 2",
        "a pulse of a line whose level is not known yet",
    };
    static_assert(std::size(kTexts) == static_cast<size_t>(Unpublished::Count));
    const auto index = static_cast<size_t>(cause);
    return index < std::size(kTexts) ? kTexts[index] : "unknown";
}

Publication GpiLines::take(std::span<const uint8_t> datagram, TaiTime received) {
    const auto refuse = [&](Unpublished cause) {
        ++unpublished_[static_cast<size_t>(cause)];
        return Publication{};
    };
    if (datagram.size() != GPIO_DATAGRAM_SIZE)
        return refuse(Unpublished::NotEightBytes);
    const Gpio event = gpioDecodeBytes(datagram.data());
    if (event.lines < 0 || event.lines >= kLines)
        return refuse(Unpublished::LineOutOfRange);
    if (event.status < 0 || event.status > 2)
        return refuse(Unpublished::StatusOutOfRange);
    LineState& line = lines_[static_cast<size_t>(event.lines)];
    if (event.status == 2 && !line.known)
        return refuse(Unpublished::PulseOfUnknownLine);
    Publication publication{event.lines, 1, {}};
    if (event.status == 2) {
        publication = {event.lines, 2, {!line.level, line.level}};
    } else {
        line.level = event.status == 1;
        publication.values[0] = line.level;
    }
    line.known = true;
    line.origin = received;
    return publication;
}

} // namespace gpiomqtt
