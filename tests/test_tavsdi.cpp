// Board detection and the GPO register, against the emulated board.
#include "capture.h"
#include "events.h"
#include "output.h"
#include "sdiboard.h"
#include "tavsdi.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

using sdiboard::Fault;

std::string boardPath(const char* name) {
    std::string path = "/tmp/vlm-tavsdi-" + std::to_string(getpid()) + "-" + name + ".sock";
    setenv("TLAPI_SIM_SOCKET", path.c_str(), 1);
    return path;
}

// "W07=42" for a write, "R07=42" for a read.
std::string describe(const std::vector<sdiboard::Transfer>& transfers) {
    std::string text;
    char one[16];
    for (const auto& t : transfers) {
        snprintf(one, sizeof one, "%s%c%02X=%02X", text.empty() ? "" : " ", t.write ? 'W' : 'R',
                 t.reg, t.value);
        text += one;
    }
    return text;
}

const char* const kNotDetected = "Failure to detect tavsdi board - features deactivated\n";
const char* const kScratchLost = " [ERROR] Failure to detect tavsdi board - features deactivated\n";

TEST(Tavsdi, detection_by_the_board_it_meets) {
    struct Case {
        const char* board;
        Fault fault;
        int scratch, scratchAfter;
        int result;
        const char* message;
    };
    const Case cases[] = {
        {"healthy board", Fault::None, 0x5A, 0x5A, 0, ""},
        {"scratch already holding 0x42", Fault::None, 0x42, 0x42, 0, ""},
        {"board that never answers", Fault::Absent, 0x5A, 0x5A, -1, kNotDetected},
        {"scratch stuck at 0x42", Fault::StuckScratch, 0x5A, 0x42, -1, kScratchLost},
    };
    for (const Case& c : cases) {
        sdiboard::Board board(boardPath("detect"), c.fault);
        board.setRegister(7, static_cast<uint8_t>(c.scratch));
        CapturedStdout out;
        EXPECT_EQ(init_tavsdi(), c.result) << c.board;
        EXPECT_EQ(out.text(), c.message) << c.board;
        EXPECT_EQ(tavsdi_activated, c.result == 0 ? 1 : 0) << c.board;
        EXPECT_EQ(board.registerValue(7), c.scratchAfter) << c.board;
    }
}

TEST(Tavsdi, detection_probes_the_scratch_register_and_restores_it) {
    sdiboard::Board board(boardPath("sequence"));
    board.setRegister(7, 0x5A);
    ASSERT_EQ(init_tavsdi(), 0);
    EXPECT_EQ(describe(board.transfers()),
              "W01=FF W01=00 R07=5A W07=42 R07=42 W07=5A R07=5A R00=00");
    destroy_tavsdi();
    EXPECT_EQ(tavsdi_activated, 0);
}

TEST(Tavsdi, gpo_requests_update_the_register_image) {
    sdiboard::Board board(boardPath("gpo"));
    outputSetVerbosity(VerbosityLevel0);
    struct Step {
        Gpio request;
        uint8_t written;
    };
    const Step steps[] = {
        {{2, 1}, 0x04}, {{255, 0x1F3}, 0xF3}, {{1, 0}, 0xF1},   {{9, 1}, 0xF1},   {{-1, 1}, 0xF1},
        {{0, 0}, 0xF0}, {{7, -5}, 0xF0},      {{256, 0}, 0xF0}, {{255, 0}, 0x00},
    };
    for (const Step& step : steps) {
        CapturedStderr err;
        setSdiGPO(step.request);
        std::string line = err.text();
        auto transfers = board.transfers();
        ASSERT_FALSE(transfers.empty());
        EXPECT_TRUE(transfers.back().write && transfers.back().reg == 0x31);
        EXPECT_EQ(transfers.back().value, step.written)
            << "(" << step.request.lines << ", " << step.request.status << ")";
        char expected[64];
        snprintf(expected, sizeof expected, "] DEBUG: setSdiGPO(): _gpo_values = 0x%02X.\n",
                 step.written);
        EXPECT_NE(line.find(expected), std::string::npos) << line;
    }
    EXPECT_EQ(board.transfers().size(), std::size(steps)) << "one write per request";
}

} // namespace
