// Sony frame layer: the error texts, the checksum, the generic frame builder, and what received
// bytes say: the checksum test of a frame and the parsers of a datagram and of a serial stream.
// No transport: the links are in link.cpp.
#include "sony9p_private.h"

#include <cstdio>
#include <iterator>

const char* const s9p_err_string[S9P_ERR_LAST + 1] = {
    "No error",          "Cheksum error",        "Communication error",
    "Protocol error",    "Timeout error (send)", "Timeout error (receive)",
    "System error",      "Not connected",        "Invalid argument",
    "Permission denied", "Not implemented",      "Not found",
    "Unknown error",
};
static_assert(std::size(s9p_err_string) == S9P_ERR_LAST + 1, "one message per code and a fallback");

const char* s9p_strerror(int code) {
    return s9p_err_string[code >= 0 && code < S9P_ERR_LAST ? code : S9P_ERR_LAST];
}

int s9p_calculate_checksum(const uint8_t* bytes, int count) {
    unsigned sum = 0;
    for (int i = 0; i < count; ++i)
        sum += bytes[i];
    return static_cast<int>(sum & 0xFFu);
}

int s9p_misc(t_s9p_command* cmd, const uint8_t* bytes, int count) {
    if (!cmd)
        return -1;
    const int n = bytes ? count & 0x0F : 0;
    std::copy_n(bytes, n, cmd->data);
    cmd->data[n] = static_cast<uint8_t>(s9p_calculate_checksum(cmd->data, n));
    cmd->len = static_cast<uint8_t>(n + 1);
    if (n >= 2 && n - 2 == (cmd->data[0] & 0x0F))
        return 0;
    printf("s9p_misc: invalid arg\n");
    return fail(cmd, S9P_INVAL_ARG);
}

int s9p_set_frame(t_s9p_command* cmd, std::span<const uint8_t> frame) {
    if (!cmd)
        return -1;
    const size_t n = std::min(frame.size(), size_t{S9P_MAX_FRAME - 1});
    std::copy_n(frame.begin(), n, cmd->data);
    cmd->data[n] = static_cast<uint8_t>(s9p_calculate_checksum(cmd->data, static_cast<int>(n)));
    cmd->len = static_cast<uint8_t>(n + 1);
    return 0;
}

bool s9p_checksum_ok(const t_s9p_command& frame) {
    if (frame.len < S9P_MIN_FRAME || frame.len > S9P_MAX_FRAME)
        return false;
    return s9p_calculate_checksum(frame.data, frame.len - 1) == frame.data[frame.len - 1];
}

e_s9p_err s9p_parse_datagram(std::span<const uint8_t> datagram, t_s9p_command* answer) {
    if (datagram.size() < ZQ_DATAGRAM_HEADER_SIZE + S9P_MIN_FRAME)
        return S9P_ERR_PROTOCOL;
    const uint8_t frame_len = datagram[3]; // the low byte of `size`
    // A length under 3 has no checksum to test; one over 18 does not fit the record.
    if (frame_len < S9P_MIN_FRAME || frame_len > S9P_MAX_FRAME)
        return S9P_ERR_PROTOCOL;
    if (datagram.size() - ZQ_DATAGRAM_HEADER_SIZE < frame_len)
        return S9P_ERR_PROTOCOL;
    std::copy_n(datagram.begin() + ZQ_DATAGRAM_HEADER_SIZE, frame_len, answer->data);
    answer->len = frame_len;
    return S9P_ERR_NONE;
}
