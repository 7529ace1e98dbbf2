// Board detection and register reads, against the emulated board.
#include "capture.h"
#include "common.h"
#include <sdiboard/sdiboard.h>
#include "tavsdi.h"

#include <gtest/gtest.h>

namespace {

using sdiboard::Fault;

TEST(Tavsdi, detection_by_the_board_it_meets) {
    const char* const notDetected = "Failure to detect tavsdi board - features deactivated\n";
    struct Case {
        const char* board;
        Fault fault;
        int scratch, scratchAfter;
        int result;
        std::string message;
    } const cases[] = {
        {"healthy board", Fault::None, 0x5A, 0x5A, 0, ""},
        {"scratch already holding 0x42", Fault::None, 0x42, 0x42, 0, ""},
        {"board that never answers", Fault::Absent, 0x5A, 0x5A, -1, notDetected},
        {"scratch stuck at 0x42", Fault::StuckScratch, 0x5A, 0x42, -1,
         std::string(" [ERROR] ") + notDetected},
    };
    for (const Case& c : cases) {
        sdiboard::Board board(board_socket("detect"), c.fault);
        board.setRegister(sdiboard::kScratchRegister, static_cast<uint8_t>(c.scratch));
        CapturedStdout out;
        EXPECT_EQ(init_tavsdi(), c.result) << c.board;
        EXPECT_EQ(out.text(), c.message) << c.board;
        EXPECT_EQ(tavsdi_activated, c.result == 0 ? 1 : 0) << c.board;
        EXPECT_EQ(board.registerValue(sdiboard::kScratchRegister), c.scratchAfter) << c.board;
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
