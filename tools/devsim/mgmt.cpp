// The management endpoint: one answer datagram per request, a 10-byte header (type 3, size,
// msgType, two zero words, big-endian) and up to 1490 bytes of data.
#include "mgmt.h"

#include <algorithm>

namespace devsim {

namespace {

constexpr size_t kMaxData = 1490;
constexpr uint16_t kPutDiskinfo = 0, kGetDiskinfo = 1, kGetLog = 2;

// The answer datagram of `msg_type` carrying at most kMaxData bytes of `data`.
Bytes answer_datagram(uint16_t msg_type, const Bytes& data) {
    Bytes out = datagram(kMgmtDatagram, std::span(data).first(std::min(data.size(), kMaxData)));
    out[4] = static_cast<uint8_t>(msg_type >> 8);
    out[5] = static_cast<uint8_t>(msg_type);
    return out;
}

} // namespace

void Mgmt::set_log(Bytes bytes) {
    std::lock_guard lock(mutex_);
    log_ = std::move(bytes);
}

void Mgmt::log_received(const std::string& line) {
    std::lock_guard lock(mutex_);
    own_log_.insert(own_log_.end(), line.begin(), line.end());
    if (own_log_.size() > 2 * kMaxData) // only the end is ever answered
        own_log_.erase(own_log_.begin(), own_log_.end() - static_cast<long>(kMaxData));
}

void Mgmt::set_diskinfo(Bytes bytes) {
    std::lock_guard lock(mutex_);
    diskinfo_ = std::move(bytes);
}

void Mgmt::set_picture(uint16_t code, Bytes bytes) {
    std::lock_guard lock(mutex_);
    pictures_[code] = std::move(bytes);
}

void Mgmt::accept_uploads(bool accept) {
    std::lock_guard lock(mutex_);
    accept_ = accept;
}

void Mgmt::script(std::vector<Bytes> datagrams, int delay_ms) {
    std::vector<Piece> pieces;
    for (Bytes& d : datagrams)
        pieces.push_back({std::move(d), pieces.empty() ? delay_ms : 0});
    std::lock_guard lock(mutex_);
    script_.push_back(std::move(pieces));
}

Bytes Mgmt::uploaded() const {
    std::lock_guard lock(mutex_);
    return uploaded_;
}

std::vector<Piece> Mgmt::answer(const Bytes& request) {
    if (request.size() < kDatagramHeader || be16(request.data()) != kMgmtDatagram)
        return {};
    const uint16_t code = be16(request.data() + 4);
    std::lock_guard lock(mutex_);
    if (code == kPutDiskinfo) // recorded even when the answer is scripted
        uploaded_.assign(request.begin() + kDatagramHeader, request.end());
    if (!script_.empty()) {
        std::vector<Piece> scripted = std::move(script_.front());
        script_.pop_front();
        return scripted;
    }
    switch (code) {
    case kPutDiskinfo:
        return {{answer_datagram(accept_ ? 0 : 1, {}), 0}};
    case kGetDiskinfo:
        return {{answer_datagram(code, diskinfo_ ? *diskinfo_ : model_.listing()), 0}};
    case kGetLog:
        if (log_)
            return {{answer_datagram(code, *log_), 0}};
        return {{answer_datagram(code, Bytes(own_log_.end() - static_cast<long>(std::min(
                                                                  own_log_.size(), kMaxData)),
                                             own_log_.end())),
                 0}};
    default: {
        auto picture = pictures_.find(code);
        return {{answer_datagram(code, picture == pictures_.end() ? Bytes{} : picture->second), 0}};
    }
    }
}

} // namespace devsim
