// Sony handle operations: each one call of the shared exchange with its builder, its answer check
// and its result. The basic commands and senses are tables of builder and accepted answer.
#include "exchange.h"
#include "fields.h"

#include <climits>
#include <cstdio>
#include <iterator>
#include <zqhandler/odetics.h>
#include <zqhandler/s9p_commands.h>
#include <zqhandler/tc.h>
#include <zqhandler/zqhandler_sony.h>

namespace {

// An answer announces at most 15 data bytes; the basic sense adds a terminator.
static_assert(ZQ_SENSE_DATA_MAX == 0x0F && ZQ_SENSE_BYTES == ZQ_SENSE_DATA_MAX + 1);

using Builder = int (*)(t_s9p_command*);

// ---- the basic tables ----

struct CommandRow {
    e_basic_command value;
    Builder build;
};

constexpr CommandRow kBasicCommands[] = {
    {BAS_CMD_STOP, s9p_stop},
    {BAS_CMD_PLAY, s9p_play},
    {BAS_CMD_RECORD, s9p_record},
    {BAS_CMD_STILL, [](t_s9p_command* c) { return s9p_standby(c, 1); }},
    {BAS_CMD_CONTINUE, [](t_s9p_command* c) { return s9p_standby(c, 0); }},
    {BAS_CMD_EJECT, s9p_eject},
    {BAS_CMD_FF, s9p_FF},
    {BAS_CMD_RW, s9p_RW},
    {BAS_CMD_ERASE_ALL, odetics_eraseAllID},
    {BAS_CMD_ODETICS_INRESET, odetics_inreset},
    {BAS_CMD_ODETICS_OUTRESET, odetics_outreset},
    {BAS_CMD_ODETICS_PREVIEW_INRESET, odetics_preview_inreset},
    {BAS_CMD_ODETICS_PREVIEW_OUTRESET, odetics_preview_outreset},
    {BAS_CMD_ODETICS_AUTOSKIP, odetics_autoskip},
    {BAS_CMD_REMOUNT, s9p_remount},
    {BAS_CMD_INITIALIZE, s9p_initialize},
    {BAS_CMD_RESET, s9p_reset},
    {BAS_CMD_STEP_FWD, [](t_s9p_command* c) { return s9p_step_forward(c, 1); }},
    {BAS_CMD_STEP_RW, [](t_s9p_command* c) { return s9p_step_reverse(c, 1); }},
    {BAS_CMD_EE_ON, s9p_EE_on},
    {BAS_CMD_EE_OFF, s9p_EE_off},
};

// The answer a sense accepts: (CMD1 & mask) == cmd1, then CMD2 and the first data byte when
// given (-1: any).
struct Accept {
    uint8_t mask;
    uint8_t cmd1;
    int16_t cmd2 = -1;
    int16_t data0 = -1;
};
constexpr Accept k7x{0xF0, 0x70};
constexpr Accept k8x{0xF0, 0x80};

enum class Out { data, ip_text };

struct SenseRow {
    e_basic_sense value;
    Builder build; // null: not served by the basic sense
    Accept accept;
    Out out = Out::data;
};

constexpr SenseRow kBasicSenses[] = {
    {BAS_SENSE_STATUS, s9p_sense_status, {0xF0, 0x70, 0x20}},
    {BAS_SENSE_ERRORS, s9p_sense_errors, k7x},
    {BAS_SENSE_PRODUCT, s9p_sense_productName, k7x},
    {BAS_SENSE_VERSION, s9p_sense_version, k7x},
    {BAS_SENSE_TC, s9p_sense_tc, k7x},
    {BAS_SENSE_SERIAL, s9p_sense_serialNumber, k7x},
    {BAS_SENSE_ODETICS_CAPABILITY, odetics_sense_odetics, k7x},
    {BAS_SENSE_ODETICS_STORAGE, odetics_sense_storage, k8x},
    {BAS_SENSE_ODETICS_DEVICE_ID, odetics_sense_deviceID, k8x},
    {BAS_SENSE_LOADED_ID, odetics_sense_loadedID, {0xF0, 0x70, 0xC1}},
    {BAS_SENSE_DEVICE_TYPE, s9p_sense_device_type, {0xFF, 0x12, 0x11}},
    {BAS_SENSE_PREROLL, s9p_sense_preroll, k7x},
    {BAS_SENSE_POSTROLL, s9p_sense_postroll, k7x},
    {BAS_SENSE_SPEED, s9p_sense_speed, k7x},
    {BAS_SENSE_FRAME_MODE, s9p_sense_frameMode, k7x},
    {BAS_SENSE_REC_INHIBIT, s9p_sense_recordInhibit, k7x},
    {BAS_SENSE_TIMER_MODE, s9p_sense_timerMode, k7x},
    {BAS_SENSE_SERVO_REF, s9p_sense_servoRef, k7x},
    {BAS_SENSE_INPUT_SOURCE, s9p_sense_inputSource, k7x},
    {BAS_SENSE_SYNC_OFFSET, s9p_sense_syncOffset, k7x},
    {BAS_SENSE_RESOLUTION, s9p_sense_resolution, k7x},
    {BAS_SENSE_CHASE_MODE, s9p_sense_chaseMode, k7x},
    {BAS_SENSE_COMP_RATIO, s9p_sense_compRatio, k7x},
    {BAS_SENSE_CURRENT_FIELD, s9p_sense_currentField, k7x},
    {BAS_SENSE_ZQ_CAPACITY, s9p_sense_zqCapacity, k7x},
    {BAS_SENSE_DISK_NAME, s9p_sense_diskName, k7x},
    {BAS_SENSE_CACHE_SIZE, s9p_sense_cacheSize, k7x},
    {BAS_SENSE_STEP_REC, s9p_sense_stepRec, k7x},
    {BAS_SENSE_NR_AUDIO_CHANNEL, s9p_sense_nrAudioChannel, k7x},
    {BAS_SENSE_VIDEO_STD, s9p_sense_videoStd, k7x},
    {BAS_SENSE_IP_ADDRESS, s9p_sense_ipAddress, k7x, Out::ip_text},
    {BAS_SENSE_FIELD0, s9p_sense_field0, k7x},
    {BAS_SENSE_HARDWARE, s9p_sense_hardware, k7x},
    {BAS_SENSE_LAST_FIELD, s9p_sense_lastField, k7x},
    {BAS_SENSE_TAVON_LOADED_VIDEO, nullptr, {}},
    {BAS_SENSE_TAVON_LOADED_AUDIO, nullptr, {}},
    {BAS_SENSE_TAVON_GENERAL_VIDEO, nullptr, {}},
    {BAS_SENSE_TAVON_GENERAL_AUDIO, nullptr, {}},
    {BAS_SENSE_TAVON_STARTUP_VIDEO, nullptr, {}},
    {BAS_SENSE_TAVON_STARTUP_AUDIO, nullptr, {}},
    {BAS_SENSE_PROTOCOL_VERSION, s9p_sense_protocol_version, {0xF0, 0x70, 0xB0, 0x00}},
    {BAS_SENSE_LOOP_MODE, s9p_sense_loop_mode, {0xFF, 0x71, 0xB7}},
};

// Each table has one row per value, in the order of the values.
template <typename Row, size_t N> constexpr bool in_order(const Row (&rows)[N], size_t count) {
    for (size_t i = 0; i < N; ++i)
        if (static_cast<size_t>(rows[i].value) != i)
            return false;
    return N == count;
}
static_assert(in_order(kBasicCommands, BAS_CMD_LAST));
static_assert(in_order(kBasicSenses, BAS_SENSE_LAST));

e_s9p_err check_sense(const t_s9p_command& ans, const SenseRow& row) {
    const Accept& a = row.accept;
    const int at_least = a.data0 >= 0 ? 1 : row.out == Out::ip_text ? 4 : 0;
    return accept_if((ans.data[0] & a.mask) == a.cmd1 && holds(ans, ans.data[0] & 0xF0, at_least) &&
                     (a.cmd2 < 0 || ans.data[1] == a.cmd2) &&
                     (a.data0 < 0 || ans.data[2] == a.data0));
}

int sense_result(const t_s9p_command& ans, const SenseRow& row, uint8_t* out) {
    const uint8_t* data = ans.data + 2;
    if (row.out == Out::ip_text)
        return snprintf(reinterpret_cast<char*>(out), ZQ_SENSE_BYTES, "%d.%d.%d.%d", data[0],
                        data[1], data[2], data[3]);
    const int n = copy_announced(out)(ans);
    if (n >= 2)
        out[n] = 0;
    return n;
}

// The timecode answers of 61 0C: the CMD2s of the time data the device may send.
constexpr uint8_t kTimeData[] = {0x00, 0x01, 0x04, 0x05, 0x06, 0x07, 0x0C, 0x14, 0x15, 0x16, 0x17};

// Forward with `value` when it is 0 or more, else reverse with -value.
template <typename Forward, typename Reverse>
int signed_motion(t_zqhandler* zqh, int value, Forward forward, Reverse reverse) {
    return acked(zqh, [&](t_s9p_command* c) {
        return value >= 0 ? forward(c, value) : reverse(c, value == INT_MIN ? INT_MAX : -value);
    });
}

} // namespace

int zqhandler_cmd_misc(t_zqhandler* zqh, const uint8_t* bytes, int count) {
    return exchange(
        zqh, [&](t_s9p_command* cmd) { return s9p_misc(cmd, bytes, count); }, accept_any, zero);
}

int zqhandler_cmd_sense_misc(t_zqhandler* zqh, const uint8_t* bytes, int count, uint8_t* answer) {
    if (!answer)
        return -1;
    return exchange(
        zqh, [&](t_s9p_command* cmd) { return s9p_misc(cmd, bytes, count); }, accept_any,
        [&](const t_s9p_command& ans) {
            std::copy_n(ans.data, ans.len, answer);
            return static_cast<int>(ans.len);
        });
}

int zqhandler_cmd_basic(t_zqhandler* zqh, int command) {
    if (command < 0 || command >= BAS_CMD_LAST)
        return -1;
    return acked(zqh, kBasicCommands[command].build);
}

int zqhandler_cmd_sense_basic(t_zqhandler* zqh, int sense, uint8_t* out) {
    if (sense < 0 || sense >= BAS_SENSE_LAST || !kBasicSenses[sense].build || !out)
        return -1;
    const SenseRow& row = kBasicSenses[sense];
    return exchange(
        zqh, row.build, [&](const t_s9p_command& ans) { return check_sense(ans, row); },
        [&](const t_s9p_command& ans) { return sense_result(ans, row, out); });
}

int zqhandler_cmd_sense_status(t_zqhandler* zqh, uint8_t* out) {
    return zqhandler_cmd_sense_basic(zqh, BAS_SENSE_STATUS, out);
}

int zqhandler_cmd_sense_timecode(t_zqhandler* zqh, int which, char* tc) {
    if ((which != BAS_SENSE_TC && which != BAS_SENSE_ODETICS_STORAGE) || !tc)
        return -1;
    const bool storage = which == BAS_SENSE_ODETICS_STORAGE;
    return exchange(
        zqh, storage ? odetics_sense_storage : s9p_sense_tc,
        [&](const t_s9p_command& ans) {
            if (storage)
                return accept_if(holds(ans, 0x80, 4));
            return accept_if(holds(ans, 0x70, 4) &&
                             std::find(std::begin(kTimeData), std::end(kTimeData), ans.data[1]) !=
                                 std::end(kTimeData));
        },
        [&](const t_s9p_command& ans) { return tc_bcd2tcstr(tc, ans.data + 2); });
}

int zqhandler_cmd_cueWithData(t_zqhandler* zqh, const char* tc) {
    return acked(zqh, [&](t_s9p_command* c) { return s9p_cueWithData(c, tc); });
}

int zqhandler_cmd_sense_clip_range(t_zqhandler* zqh, int* first, int* last) {
    if (!first || !last)
        return -1;
    return exchange(zqh, s9p_sense_clip_range, s9p_expect(0x74, 0xC1),
                    [&](const t_s9p_command& ans) {
                        *first = get_clip_bcd(ans.data + 2);
                        *last = get_clip_bcd(ans.data + 4);
                        return 0;
                    });
}

int zqhandler_cmd_sense_clip_parameters(t_zqhandler* zqh, int clip, uint32_t* value1,
                                        uint32_t* value2, int* clip3, int* clip4) {
    if (!value1 || !value2 || !clip3 || !clip4)
        return -1;
    return exchange(
        zqh, [&](t_s9p_command* c) { return s9p_sense_clip_parameters(c, clip); },
        s9p_expect(0x7C, 0x9A),
        [&](const t_s9p_command& ans) {
            *value1 = get_be32(ans.data + 2);
            *value2 = get_be32(ans.data + 6);
            *clip3 = get_clip_bcd(ans.data + 10);
            *clip4 = get_clip_bcd(ans.data + 12);
            return 0;
        });
}

int zqhandler_cmd_save_clip_parameters(t_zqhandler* zqh, int clip, uint32_t value1,
                                       uint32_t value2) {
    return acked(
        zqh, [&](t_s9p_command* c) { return s9p_save_clip_parameters(c, clip, value1, value2); });
}

int zqhandler_cmd_preset_clip_prev(t_zqhandler* zqh, int clip, int other_clip) {
    return acked(zqh, [&](t_s9p_command* c) { return s9p_preset_clip_prev(c, clip, other_clip); });
}

int zqhandler_cmd_preset_clip_next(t_zqhandler* zqh, int clip, int other_clip) {
    return acked(zqh, [&](t_s9p_command* c) { return s9p_preset_clip_next(c, clip, other_clip); });
}

int zqhandler_menu_recall_current(t_zqhandler* zqh) {
    return acked(zqh, s9p_menu_recall_current);
}

int zqhandler_menu_recall_flash(t_zqhandler* zqh) {
    return acked(zqh, s9p_menu_recall_flash);
}

int zqhandler_menu_preset_default(t_zqhandler* zqh) {
    return acked(zqh, s9p_menu_preset_default);
}

int zqhandler_menu_save_flash(t_zqhandler* zqh) {
    return acked(zqh, s9p_menu_save_flash);
}

int zqhandler_menu_commit_section(t_zqhandler* zqh, int section) {
    return acked(zqh, [&](t_s9p_command* c) { return s9p_menu_commit_section(c, section); });
}

int zqhandler_menu_read_section(t_zqhandler* zqh, int section, uint8_t* out) {
    if (!out)
        return -1;
    return exchange(
        zqh, [&](t_s9p_command* c) { return s9p_menu_read_section(c, section); },
        [](const t_s9p_command& ans) { return accept_if(holds(ans, 0x70) && ans.data[1] == 0xC0); },
        copy_announced(out));
}

int zqhandler_menu_save_section(t_zqhandler* zqh, int section, const uint8_t* bytes, int count) {
    return acked(zqh,
                 [&](t_s9p_command* c) { return s9p_menu_save_section(c, section, bytes, count); });
}

int zqhandler_cmd_preset_channel(t_zqhandler* zqh, int channel) {
    return acked(zqh, [&](t_s9p_command* c) { return s9p_preset_channel(c, channel); });
}

int zqhandler_cmd_preset_current(t_zqhandler* zqh, uint32_t field) {
    ExchangeFailure where;
    const int result = exchange(
        zqh, [&](t_s9p_command* c) { return s9p_preset_current_field(c, field); },
        printing(accept_ack, "preset current field failed\n"), zero, &where);
    if (where.file)
        printf("zqhandler_send_s9p failed in %s:%d\n", where.file, where.line);
    return result;
}

int zqhandler_cmd_preset_field0(t_zqhandler* zqh, uint32_t field) {
    return acked(zqh, [&](t_s9p_command* c) { return s9p_preset_field0(c, field); });
}

int zqhandler_cmd_preset_lastField(t_zqhandler* zqh, uint32_t field) {
    return acked(zqh, [&](t_s9p_command* c) { return s9p_preset_lastField(c, field); });
}

int zqhandler_cmd_loopmode(t_zqhandler* zqh, int on) {
    return exchange(
        zqh, [&](t_s9p_command* c) { return s9p_loopmode(c, on); },
        printing(accept_ack, "loopmode failed\n"), zero);
}

int zqhandler_cmd_timermode(t_zqhandler* zqh, int mode) {
    return exchange(
        zqh, [&](t_s9p_command* c) { return s9p_timermode(c, mode); },
        printing(accept_ack, "timermode failed\n"), zero);
}

int zqhandler_cmd_var_play(t_zqhandler* zqh, int speed) {
    return signed_motion(zqh, speed, s9p_var_forward, s9p_var_reverse);
}

int zqhandler_cmd_shuttle(t_zqhandler* zqh, int speed) {
    return signed_motion(zqh, speed, s9p_shuttle_forward, s9p_shuttle_reverse);
}

int zqhandler_cmd_jog(t_zqhandler* zqh, int speed) {
    return signed_motion(zqh, speed, s9p_jog_forward, s9p_jog_reverse);
}

int zqhandler_cmd_step(t_zqhandler* zqh, int count) {
    return signed_motion(zqh, count, s9p_step_forward, s9p_step_reverse);
}

int zqhandler_cmd_sense_status_range(t_zqhandler* zqh, int first, int count, uint8_t* out) {
    if (!out)
        return -1;
    return exchange(
        zqh, [&](t_s9p_command* c) { return s9p_sense_status_range(c, first, count); },
        [](const t_s9p_command& ans) { return accept_if(holds(ans, 0x70) && ans.data[1] == 0x20); },
        copy_announced(out));
}
