// The Louth exchange every Louth handle operation shares: build, send, keep the command, read one
// answer, keep it, check it, give the result. louth_transact, the part that touches the link, is
// in louth_exchange.cpp.
#pragma once

#include "zqhandler.h"

// Sends `cmd` (already built) on the handle's link and reads one answer into the same record,
// keeping the command in zqh->data.louth.last_sent once sent and the answer in last_rcv once read.
// A failed send or read stores its code in lasterr and returns -1; any answer read returns 0.
int louth_transact(t_zqhandler* zqh, t_louth_command* cmd);

// One complete operation:
//   build(t_louth_command&) -> int        fills the command; non-zero refuses it (nothing is
//                                          sent, lasterr untouched)
//   check(const t_louth_command&) -> e_s9p_err
//                                          S9P_ERR_NONE accepts the answer; any other code is
//                                          stored in lasterr and the operation returns -1
//   result(const t_louth_command&) -> int the operation's result for an accepted answer
// The record lives on this stack frame: the exchange allocates nothing.
template <typename Build, typename Check, typename Result>
int louth_exchange(t_zqhandler* zqh, Build&& build, Check&& check, Result&& result) {
    if (!zqh)
        return -1;
    t_louth_command cmd{};
    if (build(cmd) != 0)
        return -1;
    if (louth_transact(zqh, &cmd) != 0)
        return -1;
    e_s9p_err verdict = check(static_cast<const t_louth_command&>(cmd));
    if (verdict != S9P_ERR_NONE)
        return fail(zqh, verdict);
    return result(static_cast<const t_louth_command&>(cmd));
}
