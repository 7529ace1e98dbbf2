// The connection protocol's transfers, from the server's side: each request header gets its
// answer header or raw bytes; an accepted "pgop" makes the next bytes on the stream its upload.
#include "transfers.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

namespace devsim {

void Transfers::set_version(uint32_t first, uint32_t second) {
    std::lock_guard lock(mutex_);
    version_[0] = first;
    version_[1] = second;
}

void Transfers::set_diskinfo(Bytes bytes) {
    std::lock_guard lock(mutex_);
    diskinfo_ = std::move(bytes);
}

void Transfers::set_file_entry(uint32_t entry, Bytes bytes) {
    std::lock_guard lock(mutex_);
    entries_[entry] = std::move(bytes);
}

void Transfers::set_gop(Bytes bytes) {
    std::lock_guard lock(mutex_);
    gop_ = std::move(bytes);
}

void Transfers::accept_uploads(bool accept) {
    std::lock_guard lock(mutex_);
    accept_ = accept;
}

void Transfers::script_header(Bytes raw) {
    std::lock_guard lock(mutex_);
    scripted_header_ = std::move(raw);
}

void Transfers::stall_next(size_t after, int ms) {
    std::lock_guard lock(mutex_);
    stall_ = {after, ms};
}

Bytes Transfers::uploaded() const {
    std::lock_guard lock(mutex_);
    return uploaded_;
}

bool Transfers::wait_uploads(size_t count, int timeout_ms) const {
    std::unique_lock lock(mutex_);
    return uploaded_changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                      [&] { return uploads_ >= count; });
}

void Transfers::take_upload(unsigned client, Bytes& stream) {
    std::lock_guard lock(mutex_);
    Session& session = sessions_[client];
    if (!session.expecting)
        return;
    size_t n = std::min(stream.size(), *session.expecting - session.upload.size());
    session.upload.insert(session.upload.end(), stream.begin(),
                          stream.begin() + static_cast<long>(n));
    stream.erase(stream.begin(), stream.begin() + static_cast<long>(n));
    if (session.upload.size() == *session.expecting)
        finish_upload(session);
}

Bytes Transfers::model_gop() {
    std::string id = model_.loaded();
    id.resize(8, ' ');
    const auto position = static_cast<uint32_t>(model_.position());
    // Sized first: GCC 12 at -O2 misreads an insert after a braced initialiser (-Warray-bounds).
    Bytes gop(12);
    std::copy(id.begin(), id.end(), std::copy_n("GOP ", 4, gop.begin()));
    put_be32(gop, position);
    uint32_t x = position * 2654435761u;
    for (char c : id)
        x = (x ^ static_cast<uint8_t>(c)) * 16777619u;
    while (gop.size() < 64) {
        x = x * 1103515245u + 12345u;
        gop.push_back(static_cast<uint8_t>(x >> 16));
    }
    return gop;
}

void Transfers::finish_upload(Session& session) {
    uploaded_ = std::exchange(session.upload, {});
    gop_ = uploaded_; // downloadable again
    session.expecting.reset();
    ++uploads_;
    uploaded_changed_.notify_all();
}

void Transfers::reset(unsigned client) {
    std::lock_guard lock(mutex_);
    sessions_.erase(client);
}

std::vector<Piece> Transfers::raw(const Bytes& bytes) {
    if (!stall_)
        return {{bytes, 0}};
    auto [after, ms] = *stall_;
    stall_.reset();
    auto cut = bytes.begin() + static_cast<long>(std::min(after, bytes.size()));
    return {{Bytes(bytes.begin(), cut), 0}, {Bytes(cut, bytes.end()), ms}};
}

std::vector<Piece> Transfers::header(Session& session, const char* tag, uint32_t arg1,
                                     uint32_t arg2) {
    if (scripted_header_) {
        Bytes scripted = std::move(*scripted_header_);
        scripted_header_.reset();
        session.expecting.reset(); // a scripted answer to "pgop" accepts nothing
        if (scripted.empty())
            return {};
        return {{scripted, 0}};
    }
    return {{stream_message(tag, arg1, arg2), 0}};
}

// A header announcing `bytes`, which the next "data" request sends.
std::vector<Piece> Transfers::announce(Session& session, const char* tag, const Bytes& bytes) {
    session.pending = bytes;
    return header(session, tag, static_cast<uint32_t>(bytes.size()), 0);
}

std::vector<Piece> Transfers::answer(unsigned client, const uint8_t* request) {
    const std::string tag(request, request + 4);
    const uint32_t arg1 = be32(request + 4), arg2 = be32(request + 8);
    std::lock_guard lock(mutex_);
    Session& session = sessions_[client];
    if (tag == "ver ")
        return header(session, "ver ", version_[0], version_[1]);
    if (tag == "gfif")
        return announce(session, "gfif", diskinfo_ ? *diskinfo_ : model_.listing());
    if (tag == "uuuu") {
        auto entry = entries_.find(arg1);
        return announce(session, "uuuu",
                        entry != entries_.end() ? entry->second
                                                : model_.listing_line(arg1).value_or(Bytes{}));
    }
    if (tag == "cggp")
        return announce(session, "cggp", gop_ ? *gop_ : model_gop());
    if (tag == "data")
        return raw(std::exchange(session.pending, {}));
    if (tag == "ggop")
        return raw(gop_ ? *gop_ : model_gop());
    if (tag == "pgop") {
        if (!accept_)
            return header(session, "pgna", 0, 0);
        session.expecting = arg2;
        session.upload.clear();
        std::vector<Piece> answer = header(session, "pgac", 0, 0);
        if (session.expecting == size_t{0})
            finish_upload(session); // nothing to wait for
        return answer;
    }
    return {}; // "aliv" and whatever the server does not know
}

} // namespace devsim
