// The rack: the SDI board emulator and the video server emulator in one process, with what their
// front panels show (the model's state, the board's lines, a log of the frames received) kept as
// JSON for the web page, and the switches and buttons a person uses on them.
#pragma once

#include "json.h"

#include <devsim/devsim.h>
#include <devsim/options.h>
#include <sdiboard/options.h>
#include <sdiboard/sdiboard.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace rack {

using cli::Json;

// Where a page's event stream stands: the last state, position and log entry it was sent.
struct Cursor {
    uint64_t state = 0, position = 0, log = 0;
};

// An action a person asked for that cannot be done: the page gets `status` and the message.
struct Refusal : std::runtime_error {
    int status;
    Refusal(int code, const std::string& message) : std::runtime_error(message), status(code) {}
};

class Rack {
  public:
    static constexpr size_t kLogLength = 300; // the entries kept for a page that connects

    // Sets the server up from devsim's options in `line`, opens the board's socket and the
    // server's links and starts serving them; throws as the emulators do (cli::Refused for a bad
    // option, std::runtime_error naming what failed). Shows the GPI events that reach
    // 127.0.0.1:`gpi_port` (0: none) in the log, or a note there when another program has the
    // port. `print` gets each log line as well, for the console.
    Rack(const sdiboard::Options& board, const cli::CommandLine& line, uint16_t gpi_port,
         std::function<void(const std::string&)> print = nullptr);
    // Stops serving, wakes every event stream and removes the pty links it made.
    ~Rack();
    Rack(const Rack&) = delete;
    Rack& operator=(const Rack&) = delete;

    const std::string& links() const { return links_; } // "udp 127.0.0.1:32896, ..."
    const std::string& board_socket() const { return board_->path(); }
    devsim::DevSim& server() { return sim_; }
    sdiboard::Board& board() { return *board_; }

    // The whole state, and the log entries after `after` (at most kLogLength), as JSON written by
    // cli::json_text (json.h: UTF-8 kept, control characters escaped, bytes that are not UTF-8
    // U+FFFD).
    std::string state_json() const;
    std::string log_json(uint64_t after) const;
    // One server-sent event, made once and shared by every stream that sends it.
    using Event = std::shared_ptr<const std::string>;
    // Waits at most `wait` for anything newer than `cursor`, then puts it in `events` (emptied
    // first; none when nothing came) and moves `cursor` on: the state (the position with it) or
    // the position, then each log entry. `stopped` once the rack is closing.
    void next_events(Cursor& cursor, std::chrono::milliseconds wait,
                     std::vector<Event>& events) const;
    bool stopped() const { return stop_; }
    void close(); // ends every event stream

    // What the page's switches and buttons do; each throws Refusal for what it cannot do.
    void gpi(const std::string& line, const std::string& action); // on, off, toggle, pulse
    void gpi_levels(const std::string& levels);                   // all eight, "0x05"
    void local(const std::string& on_off);
    void load(const std::string& clip);
    // The next command (Sony or Louth, on any link) gets this fault instead of its answer:
    //   nak [bits]     a NAK with these error bits (default 0x01; Sony)
    //   refuse [byte]  the refusal 05 and this byte (default 0x01; Louth)
    //   silence        no answer
    //   late [ms]      its answer this late (1 to 60000, default 500)
    //   corrupt        its answer with a wrong checksum
    //   restart [ms]   the server restarts, away this long (0 to 60000, default 2000)
    //   close          TCP: the server closes the connection (elsewhere: silence)
    // A fault of the other protocol leaves the command its own answer.
    void fault(const std::string& kind, const std::string& value);
    // The field of a fault's value: "bits", "byte", "ms", or "" for a fault that takes none.
    static const char* fault_field(const std::string& kind);

  private:
    struct Entry {
        uint64_t seq;
        Json json;
        Event event;
    };
    static Event event(const std::string& name, const std::string& json, uint64_t id = 0);
    void log(const std::string& source, const std::vector<uint8_t>& bytes, const std::string& text,
             bool answer = false);
    void received(const devsim::Received& message);
    void answered(const devsim::Traffic& answer);
    void watch();
    void sample_panel();
    // The state as one snapshot of the model shows it: without the position, which moves on
    // its own, when not `with_position`; and the position alone.
    Json state(const devsim::Model::Snapshot& server, bool with_position) const;
    static Json position_of(const devsim::Model::Snapshot& server);

    std::function<void(const std::string&)> print_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::deque<Entry> log_;
    uint64_t log_seq_ = 0, state_seq_ = 1, position_seq_ = 1;
    std::string state_, position_;       // as last sampled...
    Event state_event_, position_event_; // ...and as the streams send them
    uint8_t switches_ = 0;               // where the GPI switches stand
    std::deque<std::string> faults_;     // armed, for the next commands in turn
    int gpi_fd_ = -1;
    uint16_t gpi_port_ = 0;
    std::atomic<bool> stop_{false};
    std::vector<std::string> own_links_;
    std::string links_;
    sdiboard::Options board_options_;
    // Last, so that they stop first: their threads call back into the members above.
    mutable devsim::DevSim sim_; // its model is read by the const members
    std::unique_ptr<sdiboard::Board> board_;
    std::thread watcher_;
};

} // namespace rack
