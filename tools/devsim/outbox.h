// The answers waiting to go out: each piece with the time it is due and where it goes, sent in
// queue order once due, so that the pieces of one answer keep theirs and a late answer does not
// hold up one due before it.
#pragma once

#include "piece.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace devsim {

enum class Link { udp, tcp, serial };
// What a link or a datagram speaks. The UDP and serial links carry Sony frames or Louth; the TCP
// link the connection protocol (with Sony frames inside), the management endpoint its own.
enum class Protocol { sony, louth, connection, management };

// Where an answer goes: the link, the descriptor to send from (UDP), the peer, the TCP client it
// is for (dropped if that one went away), and what it speaks.
struct Endpoint {
    Link link;
    Protocol protocol;
    int fd = -1;
    sockaddr_in local{}, peer{};
    unsigned tcp_client = 0;
};

class Outbox {
  public:
    using Clock = std::chrono::steady_clock;
    struct Outgoing {
        Clock::time_point due;
        Endpoint to;
        Bytes bytes;
        bool last;        // the answer's last piece...
        Bytes whole;      // ...carries the whole answer...
        std::string text; // ...and what it is in words
    };

    // `pieces` for `to`, each its delay after the one before it, the first after `from`; `text`
    // says what the whole is.
    void add(const Endpoint& to, std::vector<Piece> pieces, Clock::time_point from,
             std::string text);
    // Milliseconds until the next piece is due (0: one is); -1 when nothing waits.
    int wait_ms(Clock::time_point now) const;
    // Hands each piece due by `now` to `send`, in queue order, and forgets it.
    void send_due(Clock::time_point now, const std::function<void(const Outgoing&)>& send);
    void clear() { queue_.clear(); }

  private:
    std::deque<Outgoing> queue_;
};

} // namespace devsim
