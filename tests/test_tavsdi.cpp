// Board detection and register reads, against the emulated board.
#include "capture.h"
#include "common.h"
#include "tavsdi.h"
#include <sdiboard/sdiboard.h>

#include <gtest/gtest.h>
#include <tuple>

namespace {

using sdiboard::Fault;

TEST(Tavsdi, detection_by_the_board_it_meets) {
    const char* const notDetected = "Failure to detect tavsdi board - features deactivated\n";
    // board, scratch before and after, result, message; a board that never answers is e2e's
    const std::tuple<Fault, int, int, int, std::string> cases[] = {
        {Fault::None, 0x5A, 0x5A, 0, ""},
        {Fault::None, 0x42, 0x42, 0, ""}, // the scratch already holding the test value
        {Fault::StuckScratch, 0x5A, 0x42, -1, std::string(" [ERROR] ") + notDetected},
    };
    for (const auto& [fault, scratch, after, result, message] : cases) {
        sdiboard::Board board(board_socket("detect"), fault);
        board.setRegister(sdiboard::kScratchRegister, static_cast<uint8_t>(scratch));
        CapturedStdout out;
        EXPECT_EQ(init_tavsdi(), result) << scratch;
        EXPECT_EQ(out.text(), message) << scratch;
        EXPECT_EQ(tavsdi_activated, result == 0 ? 1 : 0) << scratch;
        EXPECT_EQ(board.registerValue(sdiboard::kScratchRegister), after) << scratch;
    }
}

TEST(Tavsdi, read_frame_carries_the_address_with_bit_7_clear) {
    sdiboard::Board board(board_socket("read"));
    board.setRegister(sdiboard::kGpoRegister, 0x5A);
    EXPECT_EQ(Read_SDI_Board_Reg(sdiboard::kGpoRegister | 0x80), 0x5A);
    auto transfers = board.transfers();
    ASSERT_EQ(transfers.size(), 1u);
    EXPECT_FALSE(transfers[0].write) << "a read with bit 7 set is a write on the bus";
    EXPECT_EQ(board.registerValue(sdiboard::kGpoRegister), 0x5A);
}

} // namespace
