// The emulator's traffic as pcap records: datagrams (management ones too) whole, stream messages
// whole and transfers' raw bytes as they went, serial frames with the line's protocol.
#include "recorder.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace devsim {

namespace {

// The number at the end of a pty's path, or 0.
uint16_t pty_number(const std::string& path) {
    const size_t digits = path.find_last_not_of("0123456789") + 1;
    return digits < path.size() ? static_cast<uint16_t>(std::strtoul(&path[digits], nullptr, 10))
                                : 0;
}

} // namespace

Recorder::Recorder(int fd, const std::string& pty_path)
    : writer_(fd, pcap::Role::device), line_(pty_number(pty_path)) {
    if (!writer_.begin())
        throw std::runtime_error(strerror(errno));
}

bool Recorder::record(const Traffic& t) {
    if (error_ != 0)
        return false;
    const auto direction =
        t.direction == Direction::received ? pcap::Direction::received : pcap::Direction::sent;
    bool written = false;
    switch (t.link) {
    case Link::udp:
        written = writer_.datagram(direction, t.local, t.peer, t.bytes);
        break;
    case Link::tcp:
        written = writer_.stream(direction, t.local, t.peer, t.bytes);
        break;
    case Link::serial:
        written = writer_.serial(
            direction, t.protocol == Protocol::louth ? pcap::Serial::louth : pcap::Serial::sony,
            line_, t.bytes);
        break;
    }
    if (!written)
        error_ = errno ? errno : EIO;
    return written;
}

} // namespace devsim
