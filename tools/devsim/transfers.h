// The server's side of the connection protocol's transfers: its version words, disk information,
// file entries and GOP, the uploads it accepts or refuses, and the faults a test asks for (another
// header, a transfer that stalls half-way).
#pragma once

#include "model.h"
#include "piece.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>

namespace devsim {

class Transfers {
  public:
    explicit Transfers(Model& model) : model_(model) {}

    // What the server holds; any thread. Until set, the disk information is the model's clip
    // store as text (Model::listing) and file entry N its clip N's line (none: size 0). The GOP
    // is the one set or uploaded last; before either, 64 bytes made from the model: "GOP ", the
    // loaded ID (8 bytes, spaces when none), the position in frames (big-endian 32 bits), then
    // 48 bytes that follow from those two, so each clip and position has its own GOP.
    void set_version(uint32_t first, uint32_t second);
    void set_diskinfo(Bytes bytes);
    void set_file_entry(uint32_t entry, Bytes bytes);
    void set_gop(Bytes bytes);
    void accept_uploads(bool accept); // accepted by default

    // The next header answer is these bytes instead; empty: that request gets no answer.
    void script_header(Bytes raw);
    // The next raw transfer ("data" or "ggop") sends `after` bytes, then waits `ms` before the
    // rest; a client waiting meanwhile sends keep-alives.
    void stall_next(size_t after, int ms);

    // The last upload received whole; waiting until `count` uploads were received whole.
    Bytes uploaded() const;
    bool wait_uploads(size_t count, int timeout_ms) const;

    // Serving thread; each TCP client has its own transfer under way, named by `client`.
    // Moves the bytes of an upload under way from the front of `stream`.
    void take_upload(unsigned client, Bytes& stream);
    // The answer to one request header (12 bytes), in pieces; none for "aliv" and unknown tags.
    std::vector<Piece> answer(unsigned client, const uint8_t* header);
    // The client went away: an upload under way is dropped.
    void reset(unsigned client);

  private:
    std::vector<Piece> raw(const Bytes& bytes);
    Model& model_;
    struct Session {
        Bytes pending;                   // what the next "data" sends
        std::optional<size_t> expecting; // bytes of the upload under way
        Bytes upload;
    };
    std::vector<Piece> header(Session& session, const char* tag, uint32_t arg1, uint32_t arg2);
    std::vector<Piece> announce(Session& session, const char* tag, const Bytes& bytes);
    void finish_upload(Session& session);

    mutable std::mutex mutex_;
    mutable std::condition_variable uploaded_changed_;
    uint32_t version_[2] = {1, 0};
    std::optional<Bytes> diskinfo_;
    std::optional<Bytes> gop_;
    Bytes model_gop();
    std::map<uint32_t, Bytes> entries_;
    bool accept_ = true;
    std::optional<Bytes> scripted_header_;
    std::optional<std::pair<size_t, int>> stall_;
    std::map<unsigned, Session> sessions_;
    Bytes uploaded_;
    size_t uploads_ = 0;
};

} // namespace devsim
