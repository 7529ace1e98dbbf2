// The emulator's Louth side: its own few lines of framing (it shares no code with the library),
// and a small server that answers every Louth command from a model of transport, ports and clips.
#pragma once

#include "model.h"

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

// The device behind a Louth link, answering from the server's model: transport commands move
// it, record init creates a clip, cue loads one, erasure removes them, and the senses (status:
// the CMD2 of the transport command the state stands for; timecode; loaded ID; ID list; ID
// length) are built from it. Port opening and selection are the link's own; anything else is
// refused (05 01). The serving thread only.
class LouthServer {
  public:
    explicit LouthServer(Model& model);
    // The answer to one command frame, as it goes on a serial line.
    Bytes answer(const Bytes& command);

  private:
    Bytes sense(uint8_t unit, uint8_t cmd2, const Bytes& data);
    Bytes list_entry(uint8_t unit, uint8_t cmd2);
    void transport(uint8_t cmd2, const Bytes& data);

    Model& model_;
    size_t next_ = SIZE_MAX;         // the next clip the ID list gives
    std::map<uint8_t, bool> locked_; // port byte -> opened with its lock flag
};

} // namespace devsim
