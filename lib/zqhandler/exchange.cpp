// The exchange under every Sony-family and Louth handle operation: send, read one answer, keep
// both in the handle, and, for the Sony family, their completion times and a NAK's error code.
#include "exchange.h"

#include "mytime.h"
#include "trace_private.h"

namespace {

constexpr const char* kThisFile = source_name(__FILE__);

// What an answer read whole says of the exchange: a Sony NAK is its failure, bit 2 (checksum
// error) outranking bit 0 (unknown command), any other bits being line errors, as is a NAK that
// came without its data byte. Any other answer is the operation's to judge.
e_s9p_err answer_error(const t_s9p_command& answer) {
    if (answer.data[0] != 0x11 || answer.data[1] != 0x12)
        return S9P_ERR_NONE;
    const uint8_t bits = answer.len > S9P_MIN_FRAME ? answer.data[2] : 0;
    if (bits & 0x04)
        return S9P_ERR_CHECKSUM;
    if (bits & 0x01)
        return S9P_NOT_IMPLEMENTED;
    return S9P_ERR_COMM;
}

int failed_at(t_zqhandler* zqh, e_s9p_err code, ExchangeFailure* where, int line) {
    if (where)
        *where = {kThisFile, line};
    return fail(zqh, code);
}

t_s9p_data& kept(t_zqhandler* zqh, t_s9p_command*) {
    return zqh->data.s9p;
}
t_louth_data& kept(t_zqhandler* zqh, t_louth_command*) {
    return zqh->data.louth;
}

// Where a step's completion time goes: a Louth exchange keeps none, since its records overlay
// the Sony ones.
uint32_t* completion_time(t_s9p_data& records, bool send) {
    return send ? &records.sent_completion_time : &records.rcv_completion_time;
}
uint32_t* completion_time(t_louth_data&, bool) {
    return nullptr;
}

e_s9p_err answer_error(const t_louth_command&) {
    return S9P_ERR_NONE;
}

} // namespace

template <typename Record> int transact(t_zqhandler* zqh, Record* cmd, ExchangeFailure* where) {
    auto& records = kept(zqh, cmd);
    // One step on the link, the send or the read: timed, and its record kept once it succeeded.
    auto step = [&](int (*io)(t_s9p_handle*, Record*, int), Record& keep, bool send, int line) {
        MyTick start;
        GetMyTick(&start);
        const int result = io(&zqh->comm_handle, cmd, zqh->timeout);
        if (uint32_t* took = completion_time(records, send))
            *took = static_cast<uint32_t>(ElapsedTime2ms(&start));
        if (result != 0)
            return failed_at(zqh, static_cast<e_s9p_err>(cmd->err_status), where, line);
        keep = *cmd;
        return 0;
    };
    if (step(link_send<Record>, records.last_sent, true, __LINE__) != 0)
        return -1;
    const int read_line = __LINE__ + 1;
    if (step(link_read<Record>, records.last_rcv, false, read_line) != 0)
        return -1;
    const e_s9p_err code = answer_error(*cmd);
    return code == S9P_ERR_NONE ? 0 : failed_at(zqh, code, where, read_line);
}

template int transact(t_zqhandler*, t_s9p_command*, ExchangeFailure*);
template int transact(t_zqhandler*, t_louth_command*, ExchangeFailure*);
