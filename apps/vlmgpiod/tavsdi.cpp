// SDI board register access: one 3-byte SPI transfer per read or write, and board detection.
#include "tavsdi.h"

#include "tlapi.h"

#include <cstdio>

int tavsdi_activated = 0;

namespace {

constexpr int kSpiPort = 0;
constexpr uint8_t kFrameStart = 0x42;
constexpr uint8_t kWriteBit = 0x80;
constexpr uint8_t kScratchRegister = 7;
// A value the scratch register must keep; a floating (0xFF) or dead (0x00) bus cannot.
constexpr uint8_t kScratchProbe = 0x42;

bool scratchKeeps(uint8_t value) {
    Write_SDI_Board_Reg(kScratchRegister, value);
    return Read_SDI_Board_Reg(kScratchRegister) == value;
}

int notDetected(const char* message) {
    fputs(message, stdout);
    tavsdi_activated = 0;
    return -1;
}

} // namespace

void Write_SDI_Board_Reg(uint8_t address, uint8_t reg_value) {
    unsigned char value[3] = {kFrameStart, static_cast<unsigned char>(address | kWriteBit),
                              reg_value};
    SPIWrite(kSpiPort, value, sizeof value);
}

uint8_t Read_SDI_Board_Reg(uint8_t address) {
    // Bit 7 of the address marks a write on the bus: a read must never carry it.
    unsigned char value[3] = {kFrameStart, static_cast<unsigned char>(address & ~kWriteBit), 0x00};
    SPIRead(kSpiPort, value, sizeof value);
    return value[2];
}

int init_tavsdi() {
    SPIInit();
    SPIInitMaster(0, 0, 0, 8, 500);
    tavsdi_activated = 1;
    Write_SDI_Board_Reg(1, 0xFF);
    Write_SDI_Board_Reg(1, 0x00);
    uint8_t saved = Read_SDI_Board_Reg(kScratchRegister);
    if (!scratchKeeps(kScratchProbe))
        return notDetected("Failure to detect tavsdi board - features deactivated\n");
    if (!scratchKeeps(saved))
        return notDetected(" [ERROR] Failure to detect tavsdi board - features deactivated\n");
    (void)Read_SDI_Board_Reg(0);
    return 0;
}

void destroy_tavsdi() {
    if (tavsdi_activated)
        tavsdi_activated = 0;
}
