// Odetics handle operations: each one call of the shared exchange with its builder, its answer
// check and its result.
#include "exchange.h"
#include "fields.h"

#include <zqhandler/odetics.h>
#include <zqhandler/tc.h>
#include <zqhandler/zqhandler_odetics.h>

namespace {

static_assert(ZQ_ODETICS_ID_BYTES == kIdBytes + 1, "the ID and its terminator");

// One step of the ID list: 0x88 and `cmd2` (0 for any) with the ID, or 0x80 at the list's end.
int list_step(t_zqhandler* zqh, int (*build)(t_s9p_command*), uint8_t cmd2, char* id) {
    if (!id)
        return -1;
    auto check = [cmd2](const t_s9p_command& ans) {
        if (ans.data[0] == 0x88 && (cmd2 == 0 || ans.data[1] == cmd2) && holds(ans, 0x80))
            return S9P_ERR_NONE;
        return ans.data[0] == 0x80 ? S9P_NOTFOUND : S9P_ERR_PROTOCOL;
    };
    return exchange(zqh, build, check, [id](const t_s9p_command& ans) {
        std::copy_n(ans.data + 2, kIdBytes, id);
        id[kIdBytes] = '\0';
        return 0;
    });
}

} // namespace

int zqhandler_cmd_automode(t_zqhandler* zqh, int on) {
    return acked(zqh, [&](t_s9p_command* c) { return odetics_automode(c, on); });
}

int zqhandler_cmd_odetics_inPreset(t_zqhandler* zqh, const char* id, const char* tc) {
    return acked(zqh, [&](t_s9p_command* c) { return odetics_inPreset(c, id, tc); });
}

int zqhandler_cmd_odetics_outPreset(t_zqhandler* zqh, const char* tc) {
    return acked(zqh, [&](t_s9p_command* c) { return odetics_outPreset(c, tc); });
}

int zqhandler_cmd_odetics_inPreview(t_zqhandler* zqh, const char* id, const char* tc) {
    return acked(zqh, [&](t_s9p_command* c) { return odetics_inPreview(c, id, tc); });
}

int zqhandler_cmd_odetics_outPreview(t_zqhandler* zqh, const char* tc) {
    return acked(zqh, [&](t_s9p_command* c) { return odetics_outPreview(c, tc); });
}

int zqhandler_cmd_odetics_recordCueUp(t_zqhandler* zqh, const char* id, const char* tc) {
    return acked(zqh, [&](t_s9p_command* c) { return odetics_recordCueUp(c, id, tc); });
}

int zqhandler_cmd_odetics_eraseID(t_zqhandler* zqh, const char* id) {
    return acked(zqh, [&](t_s9p_command* c) { return odetics_eraseID(c, id); });
}

int zqhandler_cmd_odetics_eraseSegment(t_zqhandler* zqh, const char* first_tc,
                                       const char* second_tc) {
    return acked(zqh,
                 [&](t_s9p_command* c) { return odetics_eraseSegment(c, first_tc, second_tc); });
}

int zqhandler_cmd_odetics_set_deviceID(t_zqhandler* zqh, const uint8_t device_id[8]) {
    return acked(zqh, [&](t_s9p_command* c) { return odetics_set_deviceID(c, device_id); });
}

int zqhandler_cmd_odetics_sense_firstID(t_zqhandler* zqh, char* id) {
    return list_step(zqh, odetics_sense_firstID, 0x14, id);
}

int zqhandler_cmd_odetics_sense_nextID(t_zqhandler* zqh, char* id) {
    return list_step(zqh, odetics_sense_nextID, 0, id);
}

int zqhandler_cmd_odetics_sense_id_status(t_zqhandler* zqh, const char* id, uint8_t* status) {
    return exchange(
        zqh, [&](t_s9p_command* c) { return odetics_sense_id_status(c, id); },
        s9p_expect(0x81, 0x18),
        [status](const t_s9p_command& ans) {
            if (status)
                *status = ans.data[2];
            return 0;
        });
}

int zqhandler_cmd_odetics_sense_id_length(t_zqhandler* zqh, const char* id, char* tc) {
    return exchange(
        zqh, [&](t_s9p_command* c) { return odetics_sense_lengthID(c, id); },
        s9p_expect(0x74, 0xC1),
        [tc](const t_s9p_command& ans) {
            if (tc)
                tc_bcd2tcstr(tc, ans.data + 2);
            return 0;
        });
}
