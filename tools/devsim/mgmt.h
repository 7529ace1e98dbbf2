// The server's management endpoint: its log, disk information and pictures by code, uploads of
// disk information it accepts or refuses, and answers a test scripts instead.
#pragma once

#include "model.h"
#include "piece.h"

#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace devsim {

class Mgmt {
  public:
    explicit Mgmt(Model& model) : model_(model) {}

    // What the server holds; any thread. An answer carries at most 1490 bytes of it. Until
    // set, the log is the server's own (the last 1490 bytes of what log_received wrote) and the
    // disk information the model's clip store as text (Model::listing).
    void set_log(Bytes bytes);
    void set_diskinfo(Bytes bytes);
    // A line of the server's own log: every command the server receives, on any link.
    void log_received(const std::string& line);
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
    Model& model_;
    mutable std::mutex mutex_;
    std::optional<Bytes> log_, diskinfo_;
    Bytes own_log_, uploaded_;
    std::map<uint16_t, Bytes> pictures_;
    bool accept_ = true;
    std::deque<std::vector<Piece>> script_;
};

} // namespace devsim
