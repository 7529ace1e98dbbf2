// The server's management endpoint: its log, disk information and pictures by code, uploads of
// disk information it accepts or refuses, and answers a test scripts instead.
#pragma once

#include "piece.h"

#include <deque>
#include <map>
#include <mutex>

namespace devsim {

class Mgmt {
  public:
    // What the server holds; any thread. An answer carries at most 1490 bytes of it.
    void set_log(Bytes bytes);
    void set_diskinfo(Bytes bytes);
    void set_picture(uint16_t code, Bytes bytes); // other codes answer with no data
    void accept_uploads(bool accept);             // accepted by default

    // The next request is answered with these datagrams instead, in order: none is silence, and
    // those after the first wait on the client's socket as stale answers.
    void script(std::vector<Bytes> datagrams, int delay_ms = 0);

    // The data of the last upload received (accepted or not).
    Bytes uploaded() const;

    // Serving thread: the datagrams answering one request; none for what is not a request.
    std::vector<Piece> answer(const Bytes& request);

  private:
    mutable std::mutex mutex_;
    Bytes log_, diskinfo_, uploaded_;
    std::map<uint16_t, Bytes> pictures_;
    bool accept_ = true;
    std::deque<std::vector<Piece>> script_;
};

} // namespace devsim
