// Handle operations of the server's media commands: each one call of the shared exchange with its
// builder, its answer check and its result.
#include "exchange.h"

#include <cstdio>
#include <zqhandler/tavon.h>
#include <zqhandler/zqhandler_tavon.h>

namespace {

// The capture status is the 10 bytes 0x7A announces; the information, at most the 15 of 0x7F.
static_assert(ZQ_CAPTURE_BYTES == 0x0A && ZQ_MEDIA_INFO_BYTES == 0x0F);

// An information answer: group 0x7 with n >= 1 data bytes, all present, repeating the request's
// CMD2 and selector.
auto information(uint8_t cmd2, uint8_t selector) {
    return [=](const t_s9p_command& ans) {
        return accept_if(holds(ans, 0x70, 1) && ans.data[1] == cmd2 && ans.data[2] == selector);
    };
}

// The answer's data from `skip` bytes after CMD2 into `info`; their count.
template <typename Build, typename Check>
int info_query(t_zqhandler* zqh, uint8_t* info, Build&& build, Check&& check, int skip) {
    if (!info)
        return -1;
    return exchange(zqh, build, check, copy_announced(info, skip));
}

} // namespace

int zqhandler_cmd_tavon_sense_capture(t_zqhandler* zqh, uint8_t* status) {
    if (!status)
        return -1;
    auto check = [](const t_s9p_command& ans) {
        if (s9p_expect(0x7A, 0xB2)(ans) == S9P_ERR_NONE)
            return S9P_ERR_NONE;
        printf("sense capture failed %02x.%02x\n", ans.data[0], ans.data[1]);
        return S9P_ERR_PROTOCOL;
    };
    return exchange(zqh, tavon_sense_capture, check, copy_announced(status));
}

int zqhandler_cmd_tavon_sense_file_vinfo(t_zqhandler* zqh, const char* name, uint8_t* info) {
    return info_query(
        zqh, info, [&](t_s9p_command* c) { return tavon_sense_file_vinfo(c, name); },
        information(0xBB, 0x01), 1);
}

int zqhandler_cmd_tavon_sense_file_ainfo(t_zqhandler* zqh, const char* name, uint8_t* info) {
    return info_query(
        zqh, info, [&](t_s9p_command* c) { return tavon_sense_file_ainfo(c, name); },
        information(0xBC, 0x01), 1);
}

int zqhandler_cmd_tavon_sense_current_vinfo(t_zqhandler* zqh, uint8_t* info) {
    return info_query(zqh, info, tavon_sense_current_vinfo, information(0xB3, 0x00), 0);
}

int zqhandler_cmd_tavon_sense_current_ainfo(t_zqhandler* zqh, uint8_t* info) {
    return info_query(zqh, info, tavon_sense_current_ainfo, information(0xB4, 0x00), 0);
}

int zqhandler_cmd_tavon_sense_startup_vinfo(t_zqhandler* zqh, uint8_t* info) {
    return info_query(zqh, info, tavon_sense_startup_vinfo, information(0xB3, 0x02), 0);
}

int zqhandler_cmd_tavon_sense_startup_ainfo(t_zqhandler* zqh, uint8_t* info) {
    return info_query(zqh, info, tavon_sense_startup_ainfo,
                      printing(information(0xB4, 0x02), "sense startup ainfo failed\n"), 0);
}

int zqhandler_cmd_tavon_ccmode(t_zqhandler* zqh, int on) {
    return exchange(
        zqh, [on](t_s9p_command* c) { return tavon_ccmode(c, on); },
        printing(accept_ack, "ccmode failed\n"), zero);
}
