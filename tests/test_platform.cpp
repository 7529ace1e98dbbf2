// The build's target facts: byte order as configured (big-endian under the mips preset), and the
// shared library exporting its public entry points and nothing else.
#include <bit>
#include <dlfcn.h>
#include <gtest/gtest.h>

extern "C" int c_headers_compiled(void);

TEST(Platform, byte_order_is_the_one_the_build_targets) {
    EXPECT_EQ(std::endian::native, VLM_TARGET_BIG_ENDIAN ? std::endian::big : std::endian::little);
    RecordProperty("big_endian", VLM_TARGET_BIG_ENDIAN);
}

TEST(Platform, public_headers_compile_as_c) {
    EXPECT_EQ(c_headers_compiled(), 1);
}

TEST(Platform, shared_library_exports_the_public_names_only) {
    void* library = dlopen(ZQHANDLER_SO, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    for (const char* name :
         {"zqhandler_create", "zqhandler_cmd_misc", "s9p_misc", "s9p_calculate_checksum",
          "s9p_err_string", "s9p_strerror", "cnxn_sony9p_command", "tc_frames2tcstr", "tcstr_tc0",
          "_vlmlib_set_trace_level", "_vlmlib_get_trace_level"})
        EXPECT_NE(dlsym(library, name), nullptr) << name;
    // Transports and support modules stay inside (C++ names, as the library builds them).
    for (const char* name : {"_Z8selectinii", "_Z12s9p_send_cmdP12s_s9p_handleP13s_s9p_commandi",
                             "_Z14serial_connectP15s_serial_handlePKc"})
        EXPECT_EQ(dlsym(library, name), nullptr) << name;
    dlclose(library);
}
