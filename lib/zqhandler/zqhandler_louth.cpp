// Louth handle operations: each one call of the Louth exchange with its builder, its answer check
// and its result; the basic commands and senses are tables.
#include "exchange.h"

#include <array>
#include <zqhandler/tc.h>
#include <zqhandler/zqhandler_louth.h>

namespace {

// The longest output: an ID of byte count - 2 data bytes, and its terminator.
static_assert(ZQ_LOUTH_OUT_BYTES == LOUTH_MAX_COUNT - 2 + 1);

using UnitBuilder = int (*)(t_louth_command*, int);

constexpr auto kBasicCommands = [] {
    std::array<UnitBuilder, BAS_CMD_STEP_FWD + 1> table{};
    table[BAS_CMD_STOP] = louth_stop;
    table[BAS_CMD_PLAY] = louth_play;
    table[BAS_CMD_RECORD] = louth_record;
    table[BAS_CMD_STILL] = louth_still;
    table[BAS_CMD_CONTINUE] = louth_resume;
    table[BAS_CMD_ERASE_ALL] = louth_eraseAll;
    table[BAS_CMD_STEP_FWD] = louth_step_forward;
    return table;
}();

uint8_t count_of(const t_louth_command& answer) {
    return answer.data[1];
}

// A frame of `unit` whose CMD2 is `cmd2` and whose byte count stays within what came.
bool frame_answers(const t_louth_command& answer, int unit, uint8_t cmd2) {
    return answer.len >= 4 && answer.data[0] == LOUTH_START && count_of(answer) + 3 <= answer.len &&
           answer.data[2] == (0x30 | (unit & 0x0F)) && answer.data[3] == cmd2;
}

// The data bytes from the second on: byte count - 3 of them.
int copy_values(const t_louth_command& answer, uint8_t* out) {
    const int n = count_of(answer) - 3;
    std::copy_n(answer.data + 5, n, out);
    return n;
}

int timecode_of(const t_louth_command& answer, uint8_t* out) {
    tc_bcd2tcstr(reinterpret_cast<char*>(out), answer.data + 5);
    return 11;
}

int loaded_id(const t_louth_command& answer, uint8_t* out) {
    const int n = copy_values(answer, out);
    if (n > 0)
        out[n] = 0;
    return n;
}

struct Sense {
    UnitBuilder build;
    uint8_t answer;               // the answer's CMD2
    uint8_t min_count, max_count; // the answer's byte counts accepted
    int (*result)(const t_louth_command&, uint8_t* out);
};

constexpr auto kBasicSenses = [] {
    std::array<Sense, BAS_SENSE_LOADED_ID + 1> table{};
    table[BAS_SENSE_STATUS] = {louth_sense_status, 0x85, 3, LOUTH_MAX_COUNT, copy_values};
    table[BAS_SENSE_ERRORS] = {louth_sense_errors, 0x85, 3, LOUTH_MAX_COUNT, copy_values};
    table[BAS_SENSE_TC] = {louth_sense_tc, 0x86, 7, 7, timecode_of};
    table[BAS_SENSE_LOADED_ID] = {louth_sense_currentID, 0x87, 3, LOUTH_MAX_COUNT, loaded_id};
    return table;
}();

// An ID of the device's list: the answer's data bytes, terminated; fewer than three is the end.
int list_id(t_zqhandler* zqh, int unit, char* id, UnitBuilder build, uint8_t cmd2) {
    if (!id)
        return -1;
    return exchange(
        zqh, [&](t_louth_command* cmd) { return build(cmd, unit); },
        [&](const t_louth_command& ans) {
            if (!frame_answers(ans, unit, cmd2))
                return S9P_ERR_PROTOCOL;
            return count_of(ans) >= 5 ? S9P_ERR_NONE : S9P_NOTFOUND;
        },
        [&](const t_louth_command& ans) {
            const int n = count_of(ans) - 2;
            std::copy_n(ans.data + 4, n, id);
            id[n] = '\0';
            return n;
        });
}

} // namespace

int zqhandler_cmd_louth_basic(t_zqhandler* zqh, int command, int unit) {
    if (command < 0 || static_cast<size_t>(command) >= kBasicCommands.size() ||
        !kBasicCommands[static_cast<size_t>(command)])
        return -1;
    UnitBuilder build = kBasicCommands[static_cast<size_t>(command)];
    return acked(zqh, [&](t_louth_command* cmd) { return build(cmd, unit); });
}

int zqhandler_cmd_louth_sense_basic(t_zqhandler* zqh, int sense, int unit, uint8_t* out) {
    if (!out || sense < 0 || static_cast<size_t>(sense) >= kBasicSenses.size() ||
        !kBasicSenses[static_cast<size_t>(sense)].build)
        return -1;
    const Sense& row = kBasicSenses[static_cast<size_t>(sense)];
    return exchange(
        zqh, [&](t_louth_command* cmd) { return row.build(cmd, unit); },
        [&](const t_louth_command& ans) {
            const bool fits = count_of(ans) >= row.min_count && count_of(ans) <= row.max_count;
            return frame_answers(ans, unit, row.answer) && fits ? S9P_ERR_NONE : S9P_ERR_PROTOCOL;
        },
        [&](const t_louth_command& ans) { return row.result(ans, out); });
}

int zqhandler_cmd_louth_sense_status(t_zqhandler* zqh, int unit, uint8_t* out) {
    return zqhandler_cmd_louth_sense_basic(zqh, BAS_SENSE_STATUS, unit, out);
}

int zqhandler_cmd_louth_sense_errors(t_zqhandler* zqh, int unit, uint8_t* out) {
    return zqhandler_cmd_louth_sense_basic(zqh, BAS_SENSE_ERRORS, unit, out);
}

int zqhandler_cmd_louth_sense_firstID(t_zqhandler* zqh, int unit, char* id) {
    return list_id(zqh, unit, id, louth_sense_firstID, 0x91);
}

int zqhandler_cmd_louth_sense_nextID(t_zqhandler* zqh, int unit, char* id) {
    return list_id(zqh, unit, id, louth_sense_nextID, 0x82);
}

int zqhandler_cmd_louth_sense_id_length(t_zqhandler* zqh, int unit, const char* id, char* tc) {
    return exchange(
        zqh, [&](t_louth_command* cmd) { return louth_sense_lengthID(cmd, unit, id); },
        [&](const t_louth_command& ans) {
            return frame_answers(ans, unit, 0x94) ? S9P_ERR_NONE : S9P_ERR_PROTOCOL;
        },
        [&](const t_louth_command& ans) {
            if (tc && count_of(ans) == 6)
                tc_bcd2tcstr(tc, ans.data + 4);
            else if (tc)
                tc_set_0(tc);
            return 0;
        });
}

int zqhandler_cmd_louth_open_port(t_zqhandler* zqh, int unit, int port, int lock) {
    return exchange(
        zqh, [&](t_louth_command* cmd) { return louth_open_port(cmd, unit, port, lock); },
        [](const t_louth_command& ans) {
            // Any unit: only the command type of CMD1 is compared.
            const bool grant_frame = ans.len >= 6 && ans.data[0] == LOUTH_START &&
                                     count_of(ans) == 3 && (ans.data[2] & 0xF0) == 0x30 &&
                                     ans.data[3] == 0x81;
            if (!grant_frame)
                return S9P_ERR_PROTOCOL;
            return ans.data[4] == 1 ? S9P_ERR_NONE : S9P_PERMISSION_DENIED;
        },
        zero);
}

int zqhandler_cmd_louth_select_port(t_zqhandler* zqh, int unit, int port) {
    return acked(zqh, [&](t_louth_command* cmd) { return louth_select_port(cmd, unit, port); });
}

int zqhandler_cmd_louth_eraseID(t_zqhandler* zqh, int unit, const char* id) {
    return acked(zqh, [&](t_louth_command* cmd) { return louth_eraseID(cmd, unit, id); });
}

int zqhandler_cmd_louth_cue_play(t_zqhandler* zqh, int unit, const char* id) {
    return acked(zqh, [&](t_louth_command* cmd) { return louth_play_cue(cmd, unit, id); });
}

int zqhandler_cmd_louth_cue_play_data(t_zqhandler* zqh, int unit, const char* id, const char* tc1,
                                      const char* tc2) {
    return acked(
        zqh, [&](t_louth_command* cmd) { return louth_play_cue_data(cmd, unit, id, tc1, tc2); });
}

int zqhandler_cmd_louth_record_init(t_zqhandler* zqh, int unit, const char* id) {
    return acked(zqh, [&](t_louth_command* cmd) { return louth_record_init(cmd, unit, id); });
}

int zqhandler_cmd_louth_record_init_data(t_zqhandler* zqh, int unit, const char* id,
                                         const char* tc1, const char* tc2) {
    return acked(
        zqh, [&](t_louth_command* cmd) { return louth_record_init_data(cmd, unit, id, tc1, tc2); });
}

int zqhandler_cmd_louth_var_play(t_zqhandler* zqh, int unit, int32_t speed) {
    return acked(zqh, [&](t_louth_command* cmd) { return louth_var(cmd, unit, speed); });
}

int zqhandler_cmd_louth_jog(t_zqhandler* zqh, int unit, int32_t frames) {
    return acked(zqh, [&](t_louth_command* cmd) { return louth_jog(cmd, unit, frames); });
}

int zqhandler_cmd_louth_misc(t_zqhandler* zqh, const uint8_t* bytes, int count) {
    if (!bytes)
        return -1;
    return exchange(
        zqh, [&](t_louth_command* cmd) { return louth_misc(cmd, bytes, count); }, accept_any, zero);
}
