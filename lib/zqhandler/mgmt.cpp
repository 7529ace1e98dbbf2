// Management protocol: builders, one request and one answer on the datagram link, and the pure
// reading of an answer's bytes.
#include "mgmt_private.h"

#include "link.h"
#include "wire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstddef>
#include <cstdio>

// A datagram is the record's first bytes: the header, then the data right after it.
static_assert(sizeof(ComHdr_mgmt) == MGMT_HEADER_SIZE);
static_assert(offsetof(t_mgmt_command, data) == MGMT_HEADER_SIZE);

namespace {

constexpr uint16_t kTypeMgmt = 3;
constexpr size_t kSizeField = 2;
constexpr size_t kMsgTypeField = 4;

int build(t_mgmt_command* cmd, uint16_t code, uint8_t len) {
    cmd->hdr = ComHdr_mgmt{};
    cmd->hdr.msgType = htons(code);
    cmd->len = len;
    return 0;
}

uint8_t* bytes_of(t_mgmt_command* cmd) {
    return reinterpret_cast<uint8_t*>(cmd);
}

// What the datagram carries after its header.
std::span<const uint8_t> data_of(std::span<const uint8_t> datagram) {
    return datagram.size() > MGMT_HEADER_SIZE ? datagram.subspan(MGMT_HEADER_SIZE)
                                              : std::span<const uint8_t>{};
}

} // namespace

int mgmt_getlog(t_mgmt_command* cmd) {
    return build(cmd, MGMT_GET_LOG, 0);
}

int mgmt_getdiskinfo(t_mgmt_command* cmd) {
    return build(cmd, MGMT_GET_DISKINFO, 0);
}

int mgmt_putdiskinfo(t_mgmt_command* cmd, int size) {
    if (size < 0 || size > MGMT_MAX_REQUEST_DATA)
        return -1;
    return build(cmd, MGMT_PUT_DISKINFO, static_cast<uint8_t>(size));
}

int mgmt_getpicture(t_mgmt_command* cmd, uint16_t code) {
    return build(cmd, code, 0);
}

int mgmt_send_cmd(t_s9p_handle* hdl, t_mgmt_command* cmd, int timeout_ms) {
    cmd->hdr.type = htons(kTypeMgmt);
    cmd->hdr.size = htons(cmd->len);
    // An answer that came after its request gave up must not be taken for the next one.
    t_mgmt_command stale;
    drain_waiting(hdl->fd, kMaxStaleReads, [&] {
        printf("mgmt_send_cmd: flush\n");
        mgmt_read_answer(hdl, &stale, 0);
        return true;
    });
    if (!datagram_wait_writable(hdl, timeout_ms, true))
        return -1;
    return datagram_send(hdl, cmd, MGMT_HEADER_SIZE + cmd->len) < 1 ? -1 : 0;
}

int mgmt_read_answer(t_s9p_handle* hdl, t_mgmt_command* cmd, int timeout_ms) {
    cmd->hdr = ComHdr_mgmt{};
    if (selectin(hdl->fd, timeout_ms) <= 0)
        return -1;
    return datagram_receive(hdl, bytes_of(cmd), MGMT_MAX_DATAGRAM);
}

uint16_t mgmt_field(std::span<const uint8_t> datagram, size_t offset) {
    return datagram.size() >= offset + 2 ? get_be16(datagram.data() + offset) : 0;
}

std::span<const uint8_t> mgmt_announced_data(std::span<const uint8_t> datagram, size_t capacity) {
    std::span<const uint8_t> data = data_of(datagram);
    size_t announced = mgmt_field(datagram, kSizeField);
    return data.first(std::min({announced, data.size(), capacity}));
}

std::span<const uint8_t> mgmt_picture_data(std::span<const uint8_t> datagram, size_t capacity) {
    std::span<const uint8_t> data = data_of(datagram);
    return data.first(std::min(data.size(), capacity));
}

bool mgmt_upload_accepted(std::span<const uint8_t> datagram) {
    return mgmt_field(datagram, kMsgTypeField) == 0;
}
