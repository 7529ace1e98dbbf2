// The build's target facts: byte order as configured (big-endian under the mips preset).
#include <bit>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>

extern "C" int c_headers_compiled(void);

TEST(Platform, byte_order_is_the_one_the_build_targets) {
    const uint32_t word = 0x01020304;
    unsigned char bytes[4];
    std::memcpy(bytes, &word, sizeof word);
    if (VLM_TARGET_BIG_ENDIAN) {
        EXPECT_EQ(std::endian::native, std::endian::big);
        EXPECT_EQ(bytes[0], 0x01);
    } else {
        EXPECT_EQ(std::endian::native, std::endian::little);
        EXPECT_EQ(bytes[0], 0x04);
    }
    RecordProperty("big_endian", VLM_TARGET_BIG_ENDIAN);
}

TEST(Platform, public_headers_compile_as_c) { EXPECT_EQ(c_headers_compiled(), 1); }
