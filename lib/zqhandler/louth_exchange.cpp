// The Louth exchange under every Louth handle operation: send, read one answer, keep both in the
// handle. No completion times and no retries.
#include "louth_exchange.h"

int louth_transact(t_zqhandler* zqh, t_louth_command* cmd) {
    if (louth_send_cmd(&zqh->comm_handle, cmd, zqh->timeout) != 0)
        return fail(zqh, static_cast<e_s9p_err>(cmd->err_status));
    zqh->data.louth.last_sent = *cmd;
    if (louth_read_answer(&zqh->comm_handle, cmd, zqh->timeout) != 0)
        return fail(zqh, static_cast<e_s9p_err>(cmd->err_status));
    zqh->data.louth.last_rcv = *cmd;
    return 0;
}
