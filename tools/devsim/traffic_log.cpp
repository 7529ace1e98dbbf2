// The emulator's history of traffic, its counters and its observers.
#include "traffic_log.h"

#include <algorithm>
#include <chrono>

namespace devsim {

template <typename T> void TrafficLog::keep(std::deque<T>& history, T entry) {
    if (history_ == 0)
        return;
    if (history.size() >= history_)
        history.pop_front();
    history.push_back(std::move(entry));
}

void TrafficLog::add(const Endpoint& from, const Received& message) {
    std::function<void(const Received&)> observer;
    {
        std::lock_guard lock(mutex_);
        ++counters_.received;
        keep(received_, message);
        observer = observer_;
    }
    changed_.notify_all();
    tap(from, Direction::received, message.wire, message.text);
    if (observer)
        observer(message);
}

void TrafficLog::tap(const Endpoint& at, Direction direction, Bytes bytes, std::string text) {
    std::unique_lock lock(mutex_);
    auto observer = traffic_observer_;
    // The history keeps the answers by name: a transfer's raw bytes (no name) are not kept.
    const bool kept = direction == Direction::sent && !text.empty() && history_ > 0;
    if (!observer && !kept)
        return;
    Traffic traffic{direction, at.link,          at.protocol,    at.local,
                    at.peer,   std::move(bytes), std::move(text)};
    if (kept)
        keep(sent_, traffic);
    lock.unlock();
    if (observer)
        observer(traffic);
}

void TrafficLog::count_fault(bool fault) {
    std::lock_guard lock(mutex_);
    counters_.faults += fault;
}

void TrafficLog::count_nak(bool nak) {
    std::lock_guard lock(mutex_);
    counters_.naks += nak;
}

void TrafficLog::count_answer_sent() {
    {
        std::lock_guard lock(mutex_);
        ++counters_.answers;
    }
    changed_.notify_all();
}

void TrafficLog::on_receive(std::function<void(const Received&)> observer) {
    std::lock_guard lock(mutex_);
    observer_ = std::move(observer);
}

void TrafficLog::on_traffic(std::function<void(const Traffic&)> observer) {
    std::lock_guard lock(mutex_);
    traffic_observer_ = std::move(observer);
}

void TrafficLog::keep_history(size_t messages) {
    std::lock_guard lock(mutex_);
    history_ = messages;
    while (received_.size() > history_)
        received_.pop_front();
    while (sent_.size() > history_)
        sent_.pop_front();
}

std::vector<Received> TrafficLog::received() const {
    std::lock_guard lock(mutex_);
    return {received_.begin(), received_.end()};
}

std::vector<Traffic> TrafficLog::sent() const {
    std::lock_guard lock(mutex_);
    return {sent_.begin(), sent_.end()};
}

Counters TrafficLog::counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
}

size_t TrafficLog::count_tag(const std::string& tag) const {
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count_if(received_.begin(), received_.end(),
                                             [&](const Received& r) { return r.tag == tag; }));
}

bool TrafficLog::wait_received(size_t count, int timeout_ms) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                             [&] { return counters_.received >= count; });
}

bool TrafficLog::wait_replies_sent(size_t count, int timeout_ms) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                             [&] { return counters_.answers >= count; });
}

} // namespace devsim
