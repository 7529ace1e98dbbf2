// The emulated SDI board: register semantics, the transition latch and the serving thread.
#include "sdiboard.h"

#include "paths.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace sdiboard {

namespace {

constexpr uint8_t kFrameStart = 0x42;
constexpr uint8_t kWriteBit = 0x80;
constexpr int kFrameSize = 3;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

std::string defaultSocketPath() {
    const char* path = getenv("TLAPI_SIM_SOCKET");
    return path != nullptr && *path != '\0' ? path : "/tmp/sdiboard.sock";
}

Board::Board(std::string path, Fault fault, size_t history)
    : path_(std::move(path)), fault_(fault), history_(history) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        fail("sdiboard socket path");
    }
    memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
    cli::claim_socket(path_);
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0)
        fail("socket");
    struct stat bound {};
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        lstat(path_.c_str(), &bound) != 0 || pipe2(wake_, O_CLOEXEC) != 0) {
        int error = errno;
        close(fd_);
        errno = error;
        fail(path_.c_str());
    }
    inode_ = bound.st_ino;
    thread_ = std::thread([this] { serve(); });
    // The SPI client waits only 20 ms for an answer; on a busy machine real-time scheduling,
    // where allowed, keeps the board in time. The thread sleeps in poll between transfers.
    sched_param priority{};
    priority.sched_priority = 1;
    (void)pthread_setschedparam(thread_.native_handle(), SCHED_FIFO, &priority);
}

Board::~Board() {
    char stop = 0;
    (void)!::write(wake_[1], &stop, 1);
    thread_.join();
    close(fd_);
    close(wake_[0]);
    close(wake_[1]);
    struct stat now {};
    if (lstat(path_.c_str(), &now) == 0 && S_ISSOCK(now.st_mode) && now.st_ino == inode_)
        unlink(path_.c_str()); // still ours: no other board has taken the path since
}

void Board::setGpi(uint8_t levels) {
    std::lock_guard lock(mutex_);
    pendingTransitions_ |= static_cast<uint8_t>(pendingLevels_ ^ levels);
    pendingLevels_ = levels;
}

void Board::pulse(int line) {
    std::lock_guard lock(mutex_);
    pendingTransitions_ |= static_cast<uint8_t>(1u << (line & 7));
}

uint8_t Board::registerValue(uint8_t reg) const {
    std::lock_guard lock(mutex_);
    return registers_[reg & 0x7F];
}

void Board::setRegister(uint8_t reg, uint8_t value) {
    std::lock_guard lock(mutex_);
    registers_[reg & 0x7F] = value;
}

void Board::answerLate(int ms, int count) {
    std::lock_guard lock(mutex_);
    lateMs_ = ms;
    lateCount_ = count;
}

// How late the answer about to go out is, in ms.
int Board::lateness() {
    std::lock_guard lock(mutex_);
    int ms = fault_ == Fault::LateAnswers ? 50 : 0;
    if (lateCount_ > 0) {
        --lateCount_;
        ms += lateMs_;
    }
    return ms;
}

std::vector<Transfer> Board::transfers() const {
    std::lock_guard lock(mutex_);
    return transfers_;
}

bool Board::waitFor(const std::function<bool(const std::vector<Transfer>&)>& done,
                    int timeoutMs) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return done(transfers_); });
}

void Board::onWrite(std::function<void(const Transfer&)> watcher) {
    std::lock_guard lock(mutex_);
    watcher_ = std::move(watcher);
}

void Board::serve() {
    for (;;) {
        pollfd ready[2] = {{fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        if (poll(ready, 2, -1) < 0 && errno != EINTR)
            return;
        if (ready[1].revents != 0)
            return;
        if (ready[0].revents == 0)
            continue;
        uint8_t frame[kFrameSize + 1];
        sockaddr_un client{};
        socklen_t clientLength = sizeof client;
        long size = recvfrom(fd_, frame, sizeof frame, MSG_TRUNC,
                             reinterpret_cast<sockaddr*>(&client), &clientLength);
        uint8_t reply[kFrameSize + 1] = {};
        if (!answer(frame, size, reply))
            continue;
        if (const int ms = lateness(); ms > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        const size_t replySize = fault_ == Fault::ShortAnswers  ? kFrameSize - 1
                                 : fault_ == Fault::LongAnswers ? kFrameSize + 1
                                                                : kFrameSize;
        sendto(fd_, reply, replySize, MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&client),
               clientLength);
    }
}

// Serves one frame; false when the board stays silent (absent board, not a register frame).
bool Board::answer(const uint8_t* frame, long size, uint8_t* reply) {
    if (fault_ == Fault::Absent || size != kFrameSize || frame[0] != kFrameStart)
        return false;
    uint8_t reg = frame[1] & static_cast<uint8_t>(~kWriteBit);
    reply[0] = frame[0];
    reply[1] = frame[1];
    if (frame[1] & kWriteBit) {
        write(reg, frame[2]);
        reply[2] = frame[2];
    } else {
        reply[2] = read(reg);
    }
    return true;
}

uint8_t Board::read(uint8_t reg) {
    std::lock_guard lock(mutex_);
    uint8_t value = registers_[reg];
    if (reg == kTransitionRegister) {
        // The inputs driven since the last poll become visible now; reading clears the latch.
        value |= pendingTransitions_;
        registers_[kGpiRegister] = pendingLevels_;
        pendingTransitions_ = 0;
        registers_[kTransitionRegister] = 0;
    }
    keep({false, reg, value, std::chrono::steady_clock::now()});
    changed_.notify_all();
    return value;
}

void Board::write(uint8_t reg, uint8_t value) {
    std::function<void(const Transfer&)> watcher;
    Transfer taken{true, reg, value, std::chrono::steady_clock::now()};
    {
        std::lock_guard lock(mutex_);
        bool stuck = reg == kScratchRegister && scratchStuck_;
        if (!stuck)
            registers_[reg] = value;
        if (fault_ == Fault::StuckScratch && reg == kScratchRegister && value == 0x42)
            scratchStuck_ = true;
        keep(taken);
        watcher = watcher_;
        changed_.notify_all();
    }
    if (watcher)
        watcher(taken);
}

// The oldest half goes once the history holds twice what it keeps: a trim now and then, not a
// shift at every transfer.
void Board::keep(const Transfer& transfer) {
    const size_t size = transfers_.size();
    if (history_ != kKeepAll && size >= history_ &&
        size - history_ >= std::max<size_t>(history_, 1))
        transfers_.erase(transfers_.begin(), transfers_.end() - static_cast<long>(history_));
    transfers_.push_back(transfer);
}

} // namespace sdiboard
