// The model's clock: the position moved on by the time passed since the last step.
#include "playhead.h"

#include <algorithm>

namespace devsim {

void Playhead::advance(Clock::time_point now, double rate) {
    const double seconds = std::chrono::duration<double>(now - since_).count();
    since_ = now;
    go_to(position_ + speed_ * seconds * rate);
}

void Playhead::go_to(double frames) {
    position_ = std::max(0.0, frames);
}

} // namespace devsim
