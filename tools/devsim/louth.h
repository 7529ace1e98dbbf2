// The emulator's Louth side: its own few lines of framing (it shares no code with the library),
// and a small server that answers every Louth command from a model of transport, ports and clips.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace devsim {

using Bytes = std::vector<uint8_t>;

// 02, count, CMD1, CMD2, data, checksum from CMD1, CMD2 and data.
Bytes louth_frame(Bytes body);
// A Louth frame in a datagram: the 10-byte header of type 5 announcing `size` bytes, then `bytes`.
Bytes louth_datagram(const Bytes& bytes, size_t size);
inline Bytes louth_datagram(const Bytes& bytes) {
    return louth_datagram(bytes, bytes.size());
}

// How many bytes at the front of `stream` make one command frame: 0 while it is incomplete. A
// stream that does not start with 0x02 has its first byte taken alone, so the reader resyncs.
size_t louth_command_length(const Bytes& stream);

// The device behind a Louth link. Transport, cueing and port selection are acknowledged; senses
// get frames built from the model; anything else is refused (05 01).
class LouthServer {
  public:
    LouthServer();
    // The answer to one command frame, as it goes on a serial line.
    Bytes answer(const Bytes& command);

  private:
    struct Clip {
        uint8_t length[4]; // BCD, frames first
    };
    Bytes sense(uint8_t unit, uint8_t cmd2, const Bytes& data);
    Bytes list_entry(uint8_t unit, uint8_t cmd2);

    uint8_t state_ = 0x00;                  // CMD2 of the last transport command
    uint8_t timecode_[4] = {0, 0, 0, 0x10}; // 10:00:00:00
    std::string loaded_;                    // the cued ID, 8 bytes, or empty
    std::map<std::string, Clip> clips_;     // IDs as 8 bytes, spaces included
    std::map<std::string, Clip>::iterator next_;
    std::map<uint8_t, bool> locked_; // port byte -> opened with its lock flag
};

} // namespace devsim
