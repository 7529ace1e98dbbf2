// The model's clock: where the server's position is, and how it moves on in real time at the
// transport's speed. Not thread-safe: the model holds it under its lock.
#pragma once

#include <chrono>
#include <cstdint>

namespace devsim {

class Playhead {
  public:
    using Clock = std::chrono::steady_clock;

    // At `frames`, standing, from `now`.
    Playhead(double frames, Clock::time_point now) : position_(frames), since_(now) {}

    // The one step of time: the position moves on from the last step to `now` at the speed, in
    // frames of `rate` a second, and never goes below 0.
    void advance(Clock::time_point now, double rate);

    double position() const { return position_; }
    int64_t frame() const { return static_cast<int64_t>(position_); } // the frame it is in
    // Where it stands from now on; 0 for anything before the start.
    void go_to(double frames);
    double speed() const { return speed_; } // in play speeds; negative backwards
    void set_speed(double speed) { speed_ = speed; }

  private:
    double position_;
    double speed_ = 0;
    Clock::time_point since_; // the last step
};

} // namespace devsim
