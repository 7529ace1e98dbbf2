// The emulator's links in a pcap file for the dissector (vlm.lua, made from vlm.in.lua): every
// datagram, stream message and serial frame that crosses them, as the traffic observer hands it
// over, written by the shared pcap writer from the server's side.
#pragma once

#include "devsim.h"

#include <pcap_writer.h>
#include <string>

namespace devsim {

class Recorder {
  public:
    // Borrows `fd`, a file just created for writing, and writes the file's header to it; throws
    // std::runtime_error when the file does not take it. `pty_path` is the serial link's pty
    // ("/dev/pts/N"; empty when there is none): its number N is the serial line's in the records.
    Recorder(int fd, const std::string& pty_path);

    // One crossing, from DevSim::on_traffic's observer. After a write fails nothing more is
    // written: false, with error() the errno of that failure.
    bool record(const Traffic& traffic);
    int error() const { return error_; }

  private:
    pcap::Writer writer_;
    uint16_t line_ = 0;
    int error_ = 0;
};

} // namespace devsim
