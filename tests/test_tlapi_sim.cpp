// The tlapi sim's wire, against the emulated board: only an answer of three bytes within 20 ms is
// taken, anything else reads as a floating bus, and a late answer is never taken for the next one.
#include "common.h"
#include "tlapi.h"
#include <sdiboard/sdiboard.h>

#include <array>
#include <gtest/gtest.h>
#include <optional>
#include <thread>
#include <tuple>

namespace {

using Bytes = std::array<unsigned char, 3>;
using sdiboard::Fault;
const Bytes kFloating = {0xFF, 0xFF, 0xFF}; // a bus no board drives

Bytes readRegister(unsigned char reg) {
    Bytes frame = {0x42, reg, 0x00};
    SPIRead(0, frame.data(), 3);
    return frame;
}

TEST(TlapiSim, only_an_answer_of_three_bytes_in_time_is_taken) {
    // the board (none: nothing listens on the socket), what a read gets
    const std::tuple<const char*, std::optional<Fault>, Bytes> cases[] = {
        {"healthy board", Fault::None, {0x42, 0x31, 0x5A}},
        {"no board", std::nullopt, kFloating},
        {"silent board", Fault::Absent, kFloating},
        {"answers of 2 bytes", Fault::ShortAnswers, kFloating},
        {"answers of 4 bytes", Fault::LongAnswers, kFloating},
        {"answers after 50 ms", Fault::LateAnswers, kFloating},
    };
    for (const auto& [name, fault, read] : cases) {
        std::optional<sdiboard::Board> board;
        if (fault)
            board.emplace(board_socket("answers"), *fault);
        else
            board_socket("nobody");
        if (board)
            board->setRegister(sdiboard::kGpoRegister, 0x5A);
        EXPECT_EQ(readRegister(sdiboard::kGpoRegister), read) << name;
    }
}

TEST(TlapiSim, an_answer_that_missed_its_window_is_never_taken_for_another_transfer) {
    const Bytes late = {0x42, sdiboard::kGpoRegister, 0x5A},
                own = {0x42, sdiboard::kGpiRegister, 0};
    // how late the first answer comes, and the pause before the next transfer: the late answer
    // arrives inside the next transfer's window, or is already waiting when it starts
    const std::tuple<const char*, int, int> cases[] = {
        {"arrives during the next transfer", 30, 0},
        {"arrives between the transfers", 30, 60},
    };
    for (const auto& [name, lateMs, pauseMs] : cases) {
        sdiboard::Board board(board_socket("late"));
        board.setRegister(sdiboard::kGpoRegister, 0x5A);
        board.answerLate(lateMs);
        EXPECT_EQ(readRegister(sdiboard::kGpoRegister), kFloating) << name;
        std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
        const Bytes next = readRegister(sdiboard::kGpiRegister);
        EXPECT_NE(next, late) << name << ": the answer for register 0x31 was taken for 0x30";
        EXPECT_TRUE(next == own || next == kFloating) << name << ": " << int(next[2]);
    }
}

} // namespace
