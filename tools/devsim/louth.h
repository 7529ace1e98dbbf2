// The emulator's Louth side: its own few lines of framing (it shares no code with the library),
// and a small disk server that answers every Louth (VDCP) command from a model of transport, ports
// and clips.
#pragma once

#include "model.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace devsim {

// 02, count, CMD1, CMD2, data, checksum from CMD1, CMD2 and data.
Bytes louth_frame(Bytes body);
// A Louth frame in a datagram: the 10-byte header of type 5 announcing `size` bytes, then `bytes`.
Bytes louth_datagram(const Bytes& bytes, size_t size);
inline Bytes louth_datagram(const Bytes& bytes) {
    return louth_datagram(bytes, bytes.size());
}

// The disk server behind a Louth link, answering from the server's model: transport commands move
// it, record init creates a clip, cueing loads one, deletion removes them, and the senses (port
// status, position, active ID, system status, the ID list, an ID's size and whether it is there)
// are built from it. Ports are the link's own: opened (with a lock a second opener is denied),
// selected, closed. A frame cut short or wrongly summed is refused 05 04, a command it does not
// know 05 01. The serving thread only.
class LouthServer {
  public:
    explicit LouthServer(Model& model);
    // The answer to one command frame, as it goes on a serial line.
    Bytes answer(const Bytes& command);

  private:
    Bytes sense(uint8_t unit, uint8_t cmd2, const Bytes& data);
    Bytes list_entry(uint8_t unit, uint8_t cmd2);
    bool transport(uint8_t cmd2, const Bytes& data);
    uint8_t port_state() const;
    Bytes port_status(uint8_t cmd1, uint8_t bitmap) const;

    Model& model_;
    size_t next_ = SIZE_MAX;         // the next clip the ID list gives
    std::map<uint8_t, bool> locked_; // port byte -> opened with its lock flag
};

} // namespace devsim
