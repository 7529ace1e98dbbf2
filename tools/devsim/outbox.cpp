// The answers waiting to go out, in queue order.
#include "outbox.h"

#include <algorithm>

namespace devsim {

void Outbox::add(const Endpoint& to, std::vector<Piece> pieces, Clock::time_point from,
                 std::string text) {
    Bytes whole;
    for (const Piece& p : pieces)
        whole.insert(whole.end(), p.bytes.begin(), p.bytes.end());
    auto due = from;
    for (size_t i = 0; i < pieces.size(); ++i) {
        due += std::chrono::milliseconds(pieces[i].delay_ms);
        const bool last = i + 1 == pieces.size();
        queue_.push_back({due, to, std::move(pieces[i].bytes), last, last ? whole : Bytes{},
                          last ? text : std::string()});
    }
}

int Outbox::wait_ms(Clock::time_point now) const {
    if (queue_.empty())
        return -1;
    auto next =
        std::min_element(queue_.begin(), queue_.end(),
                         [](const Outgoing& a, const Outgoing& b) { return a.due < b.due; });
    auto wait = std::chrono::ceil<std::chrono::milliseconds>(next->due - now);
    return static_cast<int>(std::max<long>(0, wait.count()));
}

void Outbox::send_due(Clock::time_point now, const std::function<void(const Outgoing&)>& send) {
    std::vector<Outgoing> due;
    for (auto it = queue_.begin(); it != queue_.end();) {
        if (it->due > now) {
            ++it;
            continue;
        }
        due.push_back(std::move(*it));
        it = queue_.erase(it);
    }
    for (const Outgoing& out : due)
        send(out);
}

} // namespace devsim
