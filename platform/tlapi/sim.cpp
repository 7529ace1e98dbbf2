// SPI transfers carried to a board emulator over a Unix datagram socket, for builds without the
// vendor's libtlapi.so. One transfer is one datagram out and one datagram of the same size back.
#include "tlapi.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr const char* kDefaultBoardSocket = "/tmp/sdiboard.sock";
// How long the board has to clock its bytes back; later answers belong to no transfer.
constexpr int kAnswerWindowMs = 20;
constexpr int kMaxTransfer = 64;
// What a bus whose data line floats high reads when no board drives it.
constexpr unsigned char kFloatingBus = 0xFF;

// The client end of one transfer. Each transfer has a socket of its own, bound to a fresh
// abstract address (autobind: binding only the family asks the kernel for a unique name, and no
// file is left behind), closed when the transfer ends. The board answers to the address that
// asked, so an answer that comes after its window finds its address gone and is dropped by the
// kernel: it can reach no later transfer, however late it comes and whatever the board sends.
class TransferSocket {
  public:
    TransferSocket() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un self{};
        self.sun_family = AF_UNIX;
        if (fd_ >= 0 &&
            bind(fd_, reinterpret_cast<sockaddr*>(&self), sizeof self.sun_family) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~TransferSocket() {
        if (fd_ >= 0)
            close(fd_);
    }
    TransferSocket(const TransferSocket&) = delete;
    TransferSocket& operator=(const TransferSocket&) = delete;

    int fd() const { return fd_; }

  private:
    int fd_;
};

bool boardAddress(sockaddr_un* address) {
    const char* path = getenv("TLAPI_SIM_SOCKET");
    if (path == nullptr || *path == '\0')
        path = kDefaultBoardSocket;
    *address = sockaddr_un{};
    address->sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address->sun_path)
        return false;
    strcpy(address->sun_path, path);
    return true;
}

// Waits for one answer within the window; true when it came with exactly `length` bytes.
bool receiveAnswer(int fd, unsigned char* answer, int length) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(kAnswerWindowMs);
    for (;;) {
        // Past the deadline one look remains: the answer may have come in time while this
        // process was not running.
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd ready{fd, POLLIN, 0};
        int n = poll(&ready, 1, static_cast<int>(std::max<decltype(left)>(left, 0)));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        // MSG_TRUNC reports the datagram's real size, so a longer answer is seen as wrong.
        ssize_t got = recv(fd, answer, static_cast<size_t>(length), MSG_TRUNC | MSG_DONTWAIT);
        if (got < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        return got == length;
    }
}

// Sends `data`, then fills `clockedBack` with the board's answer or with a floating bus.
int transfer(const unsigned char* data, unsigned char* clockedBack, int length) {
    if (data == nullptr || length <= 0 || length > kMaxTransfer)
        return -1;
    std::array<unsigned char, kMaxTransfer> answer;
    sockaddr_un board;
    bool answered = false;
    if (TransferSocket client; client.fd() >= 0 && boardAddress(&board)) {
        ssize_t sent = sendto(client.fd(), data, static_cast<size_t>(length), MSG_NOSIGNAL,
                              reinterpret_cast<sockaddr*>(&board), sizeof board);
        answered = sent == length && receiveAnswer(client.fd(), answer.data(), length);
    }
    if (!answered)
        answer.fill(kFloatingBus);
    if (clockedBack != nullptr)
        memcpy(clockedBack, answer.data(), static_cast<size_t>(length));
    return answered ? 0 : -1;
}

} // namespace

extern "C" int SPIInit(void) {
    return TransferSocket().fd() >= 0 ? 0 : -1;
}

extern "C" int SPIInitMaster(int, int, int, int, int) {
    return 0;
}

extern "C" int SPIWrite(int, unsigned char* data, int length) {
    return transfer(data, nullptr, length);
}

extern "C" int SPIRead(int, unsigned char* data, int length) {
    return transfer(data, data, length);
}
