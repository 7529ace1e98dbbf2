// The Sony exchange under every Sony-family handle operation: send, read one answer, keep both in
// the handle with their completion times, and turn a NAK into the library's error code.
#include "sony_exchange.h"

#include "mytime.h"
#include "sony9p_transport.h"

namespace {

uint32_t elapsed_ms(const MyTick& start) {
    return static_cast<uint32_t>(ElapsedTime2ms(&start));
}

bool is_nak(const t_s9p_command& answer) {
    return answer.data[0] == 0x11 && answer.data[1] == 0x12;
}

// Bit 2 (checksum error) outranks bit 0 (unknown command); any other bits are line errors, and so
// is a NAK that came without its data byte.
e_s9p_err nak_error(const t_s9p_command& answer) {
    const uint8_t bits = answer.len > S9P_MIN_FRAME ? answer.data[2] : 0;
    if (bits & 0x04)
        return S9P_ERR_CHECKSUM;
    if (bits & 0x01)
        return S9P_NOT_IMPLEMENTED;
    return S9P_ERR_COMM;
}

// This file's name without its directories, as the failure reports give it.
constexpr const char* kThisFile = [] {
    const char* name = __FILE__;
    for (const char* p = __FILE__; *p; ++p)
        if (*p == '/')
            name = p + 1;
    return name;
}();

int failed_at(t_zqhandler* zqh, e_s9p_err code, S9pFailure* where, int line) {
    if (where)
        *where = {kThisFile, line};
    return fail(zqh, code);
}

} // namespace

int s9p_transact(t_zqhandler* zqh, t_s9p_command* cmd, S9pFailure* where) {
    t_s9p_data& kept = zqh->data.s9p;
    MyTick start;
    GetMyTick(&start);
    const int send_line = __LINE__ + 1;
    int sent = s9p_send_cmd(&zqh->comm_handle, cmd, zqh->timeout);
    kept.sent_completion_time = elapsed_ms(start);
    if (sent != 0)
        return failed_at(zqh, static_cast<e_s9p_err>(cmd->err_status), where, send_line);
    kept.last_sent = *cmd;

    GetMyTick(&start);
    kept.rcv_completion_time = 0;
    const int read_line = __LINE__ + 1;
    int read = s9p_read_answer(&zqh->comm_handle, cmd, zqh->timeout);
    kept.rcv_completion_time = elapsed_ms(start);
    if (read != 0)
        return failed_at(zqh, static_cast<e_s9p_err>(cmd->err_status), where, read_line);
    kept.last_rcv = *cmd;
    if (is_nak(*cmd))
        return failed_at(zqh, nak_error(*cmd), where, read_line);
    return 0;
}
