// The tlapi sim's wire: one datagram per transfer, answers within 20 ms, a floating bus otherwise.
#include "common.h"
#include "tlapi.h"

#include <array>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using Bytes = std::array<unsigned char, 3>;

Bytes readRegister(unsigned char reg) {
    Bytes frame = {0x42, reg, 0x00};
    SPIRead(0, frame.data(), 3);
    return frame;
}

// A board peer the test drives by hand: it sees each frame and answers what and when it is told.
class HandBoard {
  public:
    explicit HandBoard(const std::string& path) : path_(path), fd_(socket(AF_UNIX, SOCK_DGRAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(path.c_str());
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~HandBoard() {
        close(fd_);
        unlink(path_.c_str());
    }
    // Takes the next frame; remembers who sent it.
    std::string takeFrame() {
        unsigned char frame[8];
        client_length_ = sizeof client_;
        ssize_t n = recvfrom(fd_, frame, sizeof frame, 0, reinterpret_cast<sockaddr*>(&client_),
                             &client_length_);
        return std::string(reinterpret_cast<char*>(frame), n > 0 ? static_cast<size_t>(n) : 0);
    }
    void answer(const std::string& bytes) {
        sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&client_),
               client_length_);
    }

  private:
    std::string path_;
    int fd_;
    sockaddr_un client_{};
    socklen_t client_length_ = 0;
};

TEST(TlapiSim, no_board_listening_reads_a_floating_bus) {
    board_socket("nobody");
    EXPECT_EQ(readRegister(0x30), (Bytes{0xFF, 0xFF, 0xFF}));
}

TEST(TlapiSim, only_an_answer_of_three_bytes_is_taken) {
    HandBoard board(board_socket("sizes"));
    const std::pair<std::string, Bytes> cases[] = {
        {std::string("\x01\x02\x03", 3), {0x01, 0x02, 0x03}},
        {std::string("\x01\x02", 2), {0xFF, 0xFF, 0xFF}},
        {std::string("\x01\x02\x03\x04", 4), {0xFF, 0xFF, 0xFF}},
        {std::string(), {0xFF, 0xFF, 0xFF}},
    };
    for (const auto& [reply, expected] : cases) {
        Bytes got{};
        std::thread client([&] { got = readRegister(0x30); });
        EXPECT_EQ(board.takeFrame(), std::string("\x42\x30\x00", 3));
        board.answer(reply);
        client.join();
        EXPECT_EQ(got, expected) << reply.size() << " bytes";
    }
}

TEST(TlapiSim, late_answer_is_not_taken_for_the_next_transfer) {
    HandBoard board(board_socket("late"));
    Bytes first{}, second{};
    std::thread missed([&] { first = readRegister(0x30); });
    board.takeFrame();
    missed.join(); // the window has closed
    board.answer("\xAA\xAA\xAA");
    std::thread next([&] { second = readRegister(0x32); });
    EXPECT_EQ(board.takeFrame(), std::string("\x42\x32\x00", 3));
    board.answer("\x42\x32\x05");
    next.join();
    EXPECT_EQ(first, (Bytes{0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(second, (Bytes{0x42, 0x32, 0x05}));
}

} // namespace
