// The SDI board's registers over SPI, and the detection of the board.
#pragma once

#include <cstdint>

constexpr uint8_t TAVSDI_GPI_ADDR = 0x30;  // GPI levels, bit n = line n
constexpr uint8_t TAVSDI_GPO_ADDR = 0x31;  // GPO levels, bit n = line n
constexpr uint8_t TAVSDI_GPIT_ADDR = 0x32; // GPI transitions since the last read; reading clears

// 1 while the board is taken as present (set by init_tavsdi, cleared by a failed detection and by
// destroy_tavsdi). The register calls do not look at it.
extern int tavsdi_activated;

// One 3-byte SPI transfer each. A register access cannot fail; an absent board reads as the bus
// floats (0xFF with the emulator).
void Write_SDI_Board_Reg(uint8_t address, uint8_t reg_value);
uint8_t Read_SDI_Board_Reg(uint8_t address);

// Sets up SPI and checks that the board keeps what is written to its scratch register 7 (whose
// value it restores). 0 when the board answered correctly; -1 after printing why not.
int init_tavsdi();
void destroy_tavsdi();
