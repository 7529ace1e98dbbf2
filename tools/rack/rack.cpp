// The rack's state as JSON, its log, its event streams and the actions of its page.
#include "rack.h"

#include "cli.h"
#include "json.h"
#include "values.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace rack {

namespace {

using devsim::Bytes;

constexpr int kSampleMs = 20;      // the panel is looked at 50 times a second
constexpr size_t kShownBytes = 32; // of a message in the log (a transfer's are many)
// The heap's free pages go back to the system this often: a burst of traffic (fifty pages
// behind, a flood of commands) leaves them free but written, and a rack that runs for weeks
// should be the size of what it holds, not of the most it ever held.
constexpr auto kReturnFreeMemory = std::chrono::seconds(10);

const char* const kStates[] = {"stopped", "playing", "still",   "fast_forward", "rewind",
                               "jog",     "var",     "shuttle", "recording",    "ejected"};
const char* const kBoardFaults[] = {"none", "absent", "stuck-scratch", "short", "long", "late"};
const char* const kLinks[] = {"udp", "tcp", "serial"};
const char* const kEdits[] = {"none", "preroll", "preview", "review", "auto_edit"};

std::string trimmed(std::string id) {
    id.erase(id.find_last_not_of(' ') + 1);
    return id;
}

std::string timecode(devsim::Standard standard, int64_t frames) {
    return devsim::bcd_text(devsim::frames_to_bcd(standard, frames).data());
}

std::string clock_text() {
    const auto now = std::chrono::system_clock::now();
    const time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
    tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<int>(ms.count() % 1000));
    return text;
}

int32_t big_endian(const uint8_t* p) {
    return static_cast<int32_t>(static_cast<uint32_t>(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]);
}

// Where a message came or went, as the log names it: "udp :32896", "tcp :32897 ver", "serial",
// "mgmt".
std::string source_of(devsim::Link link, devsim::Protocol protocol, uint16_t local_port,
                      const std::string& tag) {
    if (protocol == devsim::Protocol::management)
        return "mgmt";
    std::string source = kLinks[static_cast<int>(link)];
    if (link != devsim::Link::serial)
        source += " :" + std::to_string(local_port);
    if (protocol == devsim::Protocol::connection)
        source += " " + trimmed(tag);
    return source;
}

// The faults the page arms, and the value each takes (field "" for none): its range, its
// default, and the reply it makes.
struct FaultRow {
    const char* kind;
    const char* field;
    int64_t low, high, fallback;
    const char* label; // printf format of the value
    devsim::Reply (*reply)(int64_t value);
};
const FaultRow kFaultRows[] = {
    {"nak", "bits", 0, 0xFF, 0x01, "NAK %02llX",
     [](int64_t v) { return devsim::Reply::nak(static_cast<uint8_t>(v)); }},
    {"refuse", "byte", 0, 0xFF, 0x01, "refusal 05 %02llX",
     [](int64_t v) {
         return devsim::Reply::louth_answer({0x05, static_cast<uint8_t>(v)});
     }},
    {"silence", "", 0, 0, 0, "silence", [](int64_t) { return devsim::Reply::silence(); }},
    {"late", "ms", 1, 60000, 500, "late %lld ms",
     [](int64_t v) { return devsim::Reply::late(static_cast<int>(v)); }},
    {"corrupt", "", 0, 0, 0, "corrupt checksum",
     [](int64_t) {
         devsim::Reply r;
         r.corrupt_checksum = true;
         return r;
     }},
    {"restart", "ms", 0, 60000, 2000, "restart %lld ms",
     [](int64_t v) { return devsim::Reply::restart(static_cast<int>(v)); }},
    {"close", "", 0, 0, 0, "close", [](int64_t) { return devsim::Reply::close(); }},
};

const FaultRow* fault_row(const std::string& kind) {
    for (const FaultRow& row : kFaultRows)
        if (kind == row.kind)
            return &row;
    return nullptr;
}

} // namespace

Rack::Rack(const sdiboard::Options& board, const cli::CommandLine& line, uint16_t gpi_port,
           std::function<void(const std::string&)> print)
    : print_(std::move(print)), board_options_(board) {
    sim_.keep_history(0);
    const devsim::Links server = devsim::read_command_line(sim_, line);
    try {
        links_ = devsim::set_up(sim_, server, own_links_);
        // The rack's own log is what it shows: the emulators keep no history of their own.
        board_ = std::make_unique<sdiboard::Board>(board.path, board.fault, 0);
    } catch (...) {
        devsim::remove_links(sim_, own_links_);
        throw;
    }
    board_->onWrite([this](const sdiboard::Transfer& write) {
        char text[48];
        snprintf(text, sizeof text,
                 write.reg == sdiboard::kGpoRegister ? "GPO <- 0x%02X"
                                                     : "register 0x%02X <- 0x%02X",
                 write.reg == sdiboard::kGpoRegister ? write.value : write.reg, write.value);
        if (write.reg == sdiboard::kGpoRegister || board_options_.all)
            log("board", {0x42, static_cast<uint8_t>(write.reg | 0x80), write.value}, text);
    });
    sim_.on_receive([this](const devsim::Received& message) { received(message); });
    sim_.on_traffic([this](const devsim::Traffic& crossing) {
        if (crossing.direction == devsim::Direction::sent && !crossing.text.empty())
            answered(crossing);
    });
    gpi_port_ = gpi_port;
    if (gpi_port != 0) {
        const sockaddr_in address = loopback_address(gpi_port);
        gpi_fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (bind(gpi_fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            log("rack", {},
                "GPI events on 127.0.0.1:" + std::to_string(gpi_port) +
                    " not shown: " + strerror(errno));
            ::close(gpi_fd_);
            gpi_fd_ = -1;
        }
    }
    sim_.start();
    sample_panel(); // the first state a stream sends
    watcher_ = std::thread([this] { watch(); });
}

Rack::~Rack() {
    close();
    watcher_.join();
    sim_.stop();
    if (gpi_fd_ >= 0)
        ::close(gpi_fd_);
    devsim::remove_links(sim_, own_links_);
}

void Rack::close() {
    {
        std::lock_guard lock(mutex_); // not between a waiter's test and its wait
        stop_ = true;
    }
    changed_.notify_all();
}

void Rack::log(const std::string& source, const Bytes& bytes, const std::string& text,
               bool answer) {
    const std::string time = clock_text();
    std::string bytes_hex = hex(Bytes(
        bytes.begin(), bytes.begin() + static_cast<long>(std::min(bytes.size(), kShownBytes))));
    if (bytes.size() > kShownBytes)
        bytes_hex += " ...";
    {
        std::lock_guard lock(mutex_);
        ++log_seq_;
        Json entry = {{"seq", log_seq_},  {"time", time},     {"source", source},
                      {"answer", answer}, {"hex", bytes_hex}, {"text", text}};
        Event shared = event("log", cli::json_text(entry), log_seq_);
        log_.push_back({log_seq_, std::move(entry), std::move(shared)});
        if (log_.size() > kLogLength)
            log_.pop_front();
        if (print_) // under the lock, so the console keeps the log's order
            print_(source + (answer ? " answer" : "") +
                   (bytes_hex.empty() ? "" : "  " + bytes_hex) + (text.empty() ? "" : "  " + text));
    }
    changed_.notify_all();
}

void Rack::received(const devsim::Received& message) {
    using devsim::Protocol;
    const bool command = message.protocol == Protocol::sony || message.protocol == Protocol::louth;
    log(source_of(message.link, message.protocol, message.local_port, message.tag),
        message.frame.empty() ? message.wire : message.frame, message.text);
    if (command) { // it took the next fault armed, if any
        std::lock_guard lock(mutex_);
        if (!faults_.empty())
            faults_.pop_front();
    }
}

// An answer as the log shows it: the frame, without the datagram's or the stream message's
// header in front of it.
void Rack::answered(const devsim::Traffic& answer) {
    using devsim::Protocol;
    const Bytes& bytes = answer.bytes;
    size_t header = 0;
    std::string tag;
    if (answer.link == devsim::Link::udp && answer.protocol != Protocol::management)
        header = devsim::kDatagramHeader;
    if (answer.link == devsim::Link::tcp && bytes.size() >= devsim::kStreamHeader) {
        tag.assign(bytes.begin(), bytes.begin() + 4);
        header = tag == "s9p " ? devsim::kStreamHeader : 0;
    }
    header = std::min(header, bytes.size());
    log(source_of(answer.link, answer.protocol, ntohs(answer.local.sin_port), tag),
        Bytes(bytes.begin() + static_cast<long>(header), bytes.end()), answer.text, true);
}

void Rack::watch() {
    auto next_return = std::chrono::steady_clock::now() + kReturnFreeMemory;
    while (!stop_) {
        pollfd gpi{gpi_fd_, POLLIN, 0};
        if (poll(&gpi, 1, kSampleMs) > 0 && (gpi.revents & POLLIN)) {
            uint8_t datagram[64];
            const ssize_t n = recv(gpi_fd_, datagram, sizeof datagram, 0);
            const Bytes bytes(datagram, datagram + std::max<ssize_t>(n, 0));
            log("gpi :" + std::to_string(gpi_port_), bytes,
                n == 8 ? "GPI event line " + std::to_string(big_endian(datagram)) + " status " +
                             std::to_string(big_endian(datagram + 4))
                       : "not an event (" + std::to_string(n) + " bytes)");
        }
        sample_panel();
        if (std::chrono::steady_clock::now() >= next_return) {
            malloc_trim(0);
            next_return += kReturnFreeMemory;
        }
    }
}

// The panel as the model and the board stand now; what changed becomes the event every stream
// sends, made here once. The watcher alone writes the panel, so what it read stays current.
void Rack::sample_panel() {
    const devsim::Model::Snapshot server = sim_.model().snapshot();
    const std::string panel = cli::json_text(state(server, false)),
                      position = cli::json_text(position_of(server));
    std::unique_lock lock(mutex_);
    const bool new_state = panel != state_, new_position = position != position_;
    lock.unlock();
    if (!new_state && !new_position)
        return;
    const Event state_event =
        new_state ? event("state", cli::json_text(state(server, true))) : nullptr;
    const Event position_event = event("position", position);
    lock.lock();
    if (new_state) {
        state_ = panel;
        state_event_ = state_event;
        ++state_seq_;
    }
    position_ = position;
    position_event_ = position_event;
    position_seq_ += new_position;
    changed_.notify_all();
}

Rack::Event Rack::event(const std::string& name, const std::string& json, uint64_t id) {
    return std::make_shared<const std::string>((id ? "id: " + std::to_string(id) + "\n" : "") +
                                               "event: " + name + "\ndata: " + json + "\n\n");
}

Json Rack::position_of(const devsim::Model::Snapshot& server) {
    return {{"position", server.position},
            {"timecode", timecode(server.standard, server.position)}};
}

std::string Rack::state_json() const {
    return cli::json_text(state(sim_.model().snapshot(), true));
}

Json Rack::state(const devsim::Model::Snapshot& server, bool with_position) const {
    const devsim::Standard standard = server.standard;
    auto point = [&](devsim::Model::Point which) {
        const auto& frames = server.points[static_cast<size_t>(which)];
        return frames ? Json(timecode(standard, *frames)) : Json(nullptr);
    };
    Json clips = Json::array();
    for (const devsim::Model::Clip& clip : server.clips)
        clips.push_back({{"id", trimmed(clip.id)},
                         {"start", timecode(standard, clip.start)},
                         {"length", timecode(standard, clip.length)},
                         {"frames", clip.length}});
    using Point = devsim::Model::Point;
    Json panel = {{"standard", devsim::standard_name(standard)},
                  {"state", kStates[static_cast<int>(server.state)]},
                  {"speed", server.speed},
                  {"reverse", server.speed < 0},
                  {"edit", kEdits[static_cast<int>(server.edit)]},
                  {"cued", server.cued},
                  {"local", server.local},
                  {"loaded", trimmed(server.loaded)},
                  {"in", point(Point::in)},
                  {"out", point(Point::out)},
                  {"audio_in", point(Point::audio_in)},
                  {"audio_out", point(Point::audio_out)},
                  {"status", hex(devsim::status_bytes(server))}};
    if (with_position)
        panel.update(position_of(server));
    const uint8_t gpi = board_->registerValue(sdiboard::kGpiRegister),
                  gpo = board_->registerValue(sdiboard::kGpoRegister);
    std::lock_guard lock(mutex_);
    return {{"links", links_},
            {"board",
             {{"socket", board_->path()},
              {"fault", kBoardFaults[static_cast<int>(board_options_.fault)]},
              {"switches", switches_},
              {"gpi", gpi},
              {"gpo", gpo}}},
            {"server", std::move(panel)},
            {"clips", std::move(clips)},
            {"faults", faults_},
            {"gpi_events", gpi_fd_ >= 0}};
}

std::string Rack::log_json(uint64_t after) const {
    std::lock_guard lock(mutex_);
    Json entries = Json::array();
    for (const Entry& entry : log_)
        if (entry.seq > after)
            entries.push_back(entry.json);
    return cli::json_text({{"last", log_seq_}, {"entries", std::move(entries)}});
}

void Rack::next_events(Cursor& cursor, std::chrono::milliseconds wait,
                       std::vector<Event>& events) const {
    events.clear();
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, wait, [&] {
        return stop_ || cursor.state != state_seq_ || cursor.position != position_seq_ ||
               cursor.log != log_seq_;
    });
    if (cursor.state != state_seq_)
        events.push_back(state_event_); // the position with it
    else if (cursor.position != position_seq_)
        events.push_back(position_event_);
    // The entries kept are numbered without a gap: the first one after the cursor is found
    // at once.
    const uint64_t oldest = log_.empty() ? log_seq_ + 1 : log_.front().seq;
    for (size_t i = cursor.log < oldest ? 0 : cursor.log - oldest + 1; i < log_.size(); ++i)
        events.push_back(log_[i].event);
    cursor = {state_seq_, position_seq_, log_seq_};
}

void Rack::gpi(const std::string& line_text, const std::string& action) {
    const auto line = static_cast<int>(cli::integer(line_text, 0, 7, "line"));
    const auto bit = static_cast<uint8_t>(1 << line);
    std::lock_guard lock(mutex_);
    if (action == "pulse") {
        board_->pulse(line);
        return;
    }
    if (action == "on" || action == "off" || action == "toggle")
        switches_ = action == "on"    ? switches_ | bit
                    : action == "off" ? switches_ & ~bit
                                      : switches_ ^ bit;
    else
        throw cli::Refused("action: " + cli::quote(action) + " is not on, off, toggle or pulse");
    board_->setGpi(switches_);
}

void Rack::gpi_levels(const std::string& levels) {
    const auto value = static_cast<uint8_t>(cli::integer(levels, 0, 0xFF, "levels", true));
    std::lock_guard lock(mutex_);
    switches_ = value;
    board_->setGpi(value);
}

void Rack::local(const std::string& on_off) {
    if (on_off != "on" && on_off != "off")
        throw cli::Refused("local: " + cli::quote(on_off) + " is not on or off");
    sim_.model().set_local(on_off == "on");
}

void Rack::load(const std::string& clip) {
    if (!sim_.model().load(cli::clip_id(clip, "clip")))
        throw Refusal(404, "no clip " + cli::quote(clip) + " in the store");
}

const char* Rack::fault_field(const std::string& kind) {
    const FaultRow* row = fault_row(kind);
    return row ? row->field : "";
}

void Rack::fault(const std::string& kind, const std::string& value) {
    const FaultRow* row = fault_row(kind);
    if (!row || (!*row->field && !value.empty()))
        throw cli::Refused("fault: " + cli::quote(kind) +
                           " is not nak [BITS], refuse [BYTE], silence, late [MS], corrupt, "
                           "restart [MS] or close");
    const bool hexadecimal = std::string(row->field) != "ms";
    const int64_t v = value.empty()
                          ? row->fallback
                          : cli::integer(value, row->low, row->high, row->field, hexadecimal);
    char label[48];
    snprintf(label, sizeof label, row->label, static_cast<long long>(v));
    std::lock_guard lock(mutex_); // armed and counted together, before a command can take it
    sim_.script(row->reply(v));
    faults_.push_back(label);
}

} // namespace rack
