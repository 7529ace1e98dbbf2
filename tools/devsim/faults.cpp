// The scripted faults: the replies a test or a scenario sets up, taken one a command.
#include "faults.h"

namespace devsim {

Bytes with_checksum(Bytes bytes) {
    bytes.push_back(byte_sum(bytes));
    return bytes;
}

Reply Reply::answer(Bytes frame_without_checksum) {
    Reply r;
    r.frame = with_checksum(std::move(frame_without_checksum));
    return r;
}

Reply Reply::louth_answer(Bytes answer) {
    Reply r;
    r.louth = std::move(answer);
    return r;
}

Reply Reply::silence() {
    Reply r;
    r.silent = true;
    return r;
}

Reply Reply::late(int ms) {
    Reply r;
    r.delay_ms = ms;
    return r;
}

Reply Reply::bytes(Bytes raw) {
    Reply r;
    r.raw = std::move(raw);
    return r;
}

Reply Reply::restart(int ms) {
    Reply r;
    r.restart_ms = ms;
    return r;
}

Reply Reply::close() {
    Reply r;
    r.close_connection = true;
    return r;
}

bool Reply::own_answer() const {
    return frame.empty() && !silent && delay_ms == 0 && !corrupt_checksum && !from_other_address &&
           raw.empty() && louth.empty() && !other_unit && pieces.empty() && restart_ms < 0 &&
           !close_connection;
}

void Faults::script(Reply reply) {
    std::lock_guard lock(mutex_);
    script_.push_back(std::move(reply));
}

void Faults::set_default(Reply reply) {
    std::lock_guard lock(mutex_);
    default_ = std::move(reply);
}

Reply Faults::default_reply() const {
    std::lock_guard lock(mutex_);
    return default_;
}

void Faults::at_command(size_t command, Reply reply) {
    std::lock_guard lock(mutex_);
    faults_.push_back({command, 0, std::move(reply), false});
}

void Faults::at_frame(int64_t frame, int64_t position, Reply reply) {
    std::lock_guard lock(mutex_);
    faults_.push_back({0, frame, std::move(reply), position < frame});
}

Reply Faults::next(int64_t position) {
    std::lock_guard lock(mutex_);
    ++commands_;
    if (!script_.empty()) {
        Reply reply = std::move(script_.front());
        script_.pop_front();
        return reply;
    }
    auto fault = faults_.end();
    for (auto f = faults_.begin(); f != faults_.end(); ++f) {
        const bool due = f->command ? f->command == commands_ : f->armed && position >= f->frame;
        f->armed = f->armed || (!f->command && position < f->frame);
        if (due && fault == faults_.end())
            fault = f;
    }
    if (fault == faults_.end())
        return default_;
    Reply reply = std::move(fault->reply);
    faults_.erase(fault);
    return reply;
}

} // namespace devsim
