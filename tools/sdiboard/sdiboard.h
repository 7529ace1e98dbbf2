// An emulated SDI board: serves the SPI transfers of the tlapi sim on a Unix datagram socket from a
// thread of its own, holds the board's registers and records every transfer it answers.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sdiboard {

constexpr uint8_t kGpiRegister = 0x30;
constexpr uint8_t kGpoRegister = 0x31;
constexpr uint8_t kTransitionRegister = 0x32;
constexpr uint8_t kScratchRegister = 0x07;

// How the board misbehaves, to exercise the daemon's board detection.
enum class Fault {
    None,
    Absent,       // receives transfers but never answers: the client reads a floating bus
    StuckScratch, // register 7 keeps 0x42 for ever once 0x42 has been written to it
    ShortAnswers, // answers with 2 bytes instead of 3
    LongAnswers,  // answers with 4 bytes instead of 3
    LateAnswers,  // answers 50 ms after each frame, when the SPI client has given up on it
};

// One register access as the board served it; `value` is what was written or what was read.
struct Transfer {
    bool write;
    uint8_t reg;
    uint8_t value;
    std::chrono::steady_clock::time_point when;
};

// How many transfers a board keeps for transfers() and waitFor(): a board left running for weeks
// keeps the last few thousand; a test or a soak that counts transfers from the start keeps them
// all.
constexpr size_t kDefaultHistory = 4096;
constexpr size_t kKeepAll = SIZE_MAX;

// The socket path the tlapi sim uses: $TLAPI_SIM_SOCKET, else /tmp/sdiboard.sock.
std::string defaultSocketPath();

class Board {
  public:
    // Binds `path` and starts serving. A socket no one serves any more is replaced; anything else
    // at `path` (a file, a socket another board serves) is refused untouched. Throws
    // std::runtime_error (std::system_error when a call fails) when the socket cannot be set up.
    // The board keeps at least the last `history` transfers (between two trims up to twice as
    // many), or every one with kKeepAll.
    explicit Board(std::string path, Fault fault = Fault::None, size_t history = kDefaultHistory);
    // Stops serving and removes the socket file, unless another board has taken the path since.
    ~Board();
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    const std::string& path() const { return path_; }

    // Drives the GPI inputs. Like the real latch, a change is seen at the next read of the
    // transition register: that read applies it, so both reads of one poll see the same inputs.
    void setGpi(uint8_t levels);
    // Raises and drops `line` (0 to 7) before the next read of the transition register.
    void pulse(int line);

    uint8_t registerValue(uint8_t reg) const;
    void setRegister(uint8_t reg, uint8_t value);

    // The next `count` answers go out `ms` late (on top of the --late fault's 50 ms), for a
    // test of what the SPI client does with an answer that missed its window.
    void answerLate(int ms, int count = 1);

    // The transfers answered that the board keeps (see the constructor), oldest first.
    std::vector<Transfer> transfers() const;
    // Waits until `done(transfers)` holds, at most `timeoutMs` (0: checks once); whether it held.
    // `done` runs with the board's lock held: it must not call the board.
    bool waitFor(const std::function<bool(const std::vector<Transfer>&)>& done,
                 int timeoutMs) const;
    // Called on the serving thread after each write the board takes; for watching it live.
    void onWrite(std::function<void(const Transfer&)> watcher);

  private:
    void serve();
    bool answer(const uint8_t* frame, long size, uint8_t* reply);
    uint8_t read(uint8_t reg);
    void write(uint8_t reg, uint8_t value);
    void keep(const Transfer& transfer); // under the lock
    int lateness();

    std::string path_;
    Fault fault_;
    int fd_ = -1;
    unsigned long inode_ = 0; // of the socket file bound
    int wake_[2] = {-1, -1};
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    uint8_t registers_[128] = {};
    uint8_t pendingLevels_ = 0;
    uint8_t pendingTransitions_ = 0;
    bool scratchStuck_ = false;
    size_t history_;
    std::vector<Transfer> transfers_;
    int lateMs_ = 0, lateCount_ = 0;
    std::function<void(const Transfer&)> watcher_;
    std::thread thread_;
};

} // namespace sdiboard
