// Sony handle operations: each one call of the shared exchange with its builder, its answer check
// and its result.
#include "sony_exchange.h"

#include <algorithm>

int zqhandler_cmd_misc(t_zqhandler* zqh, const uint8_t* bytes, int count) {
    return s9p_exchange(
        zqh, [&](t_s9p_command& cmd) { return s9p_misc(&cmd, bytes, count); }, s9p_accept_any,
        [](const t_s9p_command&) { return 0; });
}

int zqhandler_cmd_sense_misc(t_zqhandler* zqh, const uint8_t* bytes, int count, uint8_t* answer) {
    if (!answer)
        return -1;
    return s9p_exchange(
        zqh, [&](t_s9p_command& cmd) { return s9p_misc(&cmd, bytes, count); }, s9p_accept_any,
        [&](const t_s9p_command& ans) {
            std::copy_n(ans.data, ans.len, answer);
            return static_cast<int>(ans.len);
        });
}
