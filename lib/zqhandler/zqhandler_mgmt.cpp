// Management handle operations: each one request and one answer on the handle's datagram link,
// with its builder and what it takes from the answer. lasterr is never touched.
#include "mgmt_private.h"

#include <algorithm>
#include <zqhandler/zqhandler_mgmt.h>

namespace {

// Builds the request in a record on this stack frame, sends it and receives the answer into the
// same record. `build(t_mgmt_command&)` returns non-zero to refuse (nothing is sent, -1);
// `result(span of the answer's bytes)` gives the operation's result; `no_answer` is the result
// when none came.
template <typename Build, typename Result>
int mgmt_exchange(t_zqhandler* zqh, Build&& build, int no_answer, Result&& result) {
    if (!zqh)
        return -1;
    t_mgmt_command cmd;
    if (build(cmd) != 0)
        return -1;
    t_s9p_handle* link = &zqh->comm_handle;
    if (mgmt_send_cmd(link, &cmd, zqh->timeout) != 0)
        return -1;
    int received = mgmt_read_answer(link, &cmd, zqh->timeout);
    if (received < 0)
        return no_answer;
    return result(
        std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(&cmd), size_t(received)));
}

int copy(std::span<const uint8_t> data, uint8_t* buffer) {
    std::copy(data.begin(), data.end(), buffer);
    return static_cast<int>(data.size());
}

size_t capacity_of(int32_t capacity) {
    return capacity > 0 ? static_cast<size_t>(capacity) : 0;
}

} // namespace

int zqhandler_mgmt_getlog(t_zqhandler* zqh, uint8_t* buffer) {
    if (!buffer)
        return -1;
    return mgmt_exchange(
        zqh, [](t_mgmt_command& cmd) { return mgmt_getlog(&cmd); }, -1,
        [&](std::span<const uint8_t> answer) {
            return copy(mgmt_announced_data(answer, MGMT_MAX_DATA), buffer);
        });
}

int zqhandler_mgmt_get_diskinfo(t_zqhandler* zqh, uint8_t* buffer, int32_t capacity) {
    if (!buffer && capacity > 0)
        return -1;
    return mgmt_exchange(
        zqh, [](t_mgmt_command& cmd) { return mgmt_getdiskinfo(&cmd); }, -1,
        [&](std::span<const uint8_t> answer) {
            return copy(mgmt_announced_data(answer, capacity_of(capacity)), buffer);
        });
}

int zqhandler_mgmt_put_diskinfo(t_zqhandler* zqh, const uint8_t* bytes, int32_t size) {
    if (!bytes && size > 0)
        return -1;
    return mgmt_exchange(
        zqh,
        [&](t_mgmt_command& cmd) {
            if (mgmt_putdiskinfo(&cmd, size) != 0)
                return -1;
            std::copy_n(bytes, size, cmd.data);
            return 0;
        },
        -1, [](std::span<const uint8_t> answer) { return mgmt_upload_accepted(answer) ? 0 : -1; });
}

int zqhandler_mgmt_get_picture(t_zqhandler* zqh, uint8_t* buffer, int32_t capacity, uint16_t code) {
    if (!buffer && capacity > 0)
        return -1;
    return mgmt_exchange(
        zqh, [&](t_mgmt_command& cmd) { return mgmt_getpicture(&cmd, code); }, 0,
        [&](std::span<const uint8_t> answer) {
            return copy(mgmt_picture_data(answer, capacity_of(capacity)), buffer);
        });
}
