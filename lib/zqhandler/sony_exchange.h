// The Sony exchange every Sony-family handle operation shares: build, send, read one answer,
// keep both in the handle, turn a NAK into an error code, check the answer, give the result.
// s9p_transact, the part that touches the link, is in sony_exchange.cpp.
#pragma once

#include "zqhandler.h"

#include <cstdio>

// Where an exchange failed on the link: the library's source file and the line of the send or of
// the read that failed (a NAK counts as a failed read). For the operations that report it.
struct S9pFailure {
    const char* file = nullptr;
    int line = 0;
};

// Sends `cmd` (already built) on the handle's transport and reads one answer into the same
// record, keeping the command, the answer and their completion times in zqh->data.s9p. A failed
// send or read, or a NAK, stores its code in lasterr, fills `where` when given and returns -1;
// any other answer returns 0.
int s9p_transact(t_zqhandler* zqh, t_s9p_command* cmd, S9pFailure* where = nullptr);

// One complete operation:
//   build(t_s9p_command&) -> int        fills the command; non-zero refuses it (nothing is sent,
//                                        lasterr untouched)
//   check(const t_s9p_command&) -> e_s9p_err
//                                        S9P_ERR_NONE accepts the answer; any other code is
//                                        stored in lasterr and the operation returns -1
//   result(const t_s9p_command&) -> int the operation's result for an accepted answer
// `where`, when given, tells where a failure on the link happened (see s9p_transact).
// The record lives on this stack frame: the exchange allocates nothing.
template <typename Build, typename Check, typename Result>
int s9p_exchange(t_zqhandler* zqh, Build&& build, Check&& check, Result&& result,
                 S9pFailure* where = nullptr) {
    if (!zqh)
        return -1;
    t_s9p_command cmd{};
    if (build(cmd) != 0)
        return -1;
    if (s9p_transact(zqh, &cmd, where) != 0)
        return -1;
    e_s9p_err verdict = check(static_cast<const t_s9p_command&>(cmd));
    if (verdict != S9P_ERR_NONE)
        return fail(zqh, verdict);
    return result(static_cast<const t_s9p_command&>(cmd));
}

// Answer checks shared by many operations. An answer record always holds CMD1, CMD2 and a
// checksum (len 3 or more); how many data bytes came is told by len, not by CMD1's count, since a
// datagram or a stream message may carry fewer than CMD1 announces.

// The data bytes the answer holds, between CMD2 and the checksum.
inline int s9p_data_count(const t_s9p_command& ans) {
    return ans.len - 3;
}

inline e_s9p_err s9p_accept_any(const t_s9p_command&) {
    return S9P_ERR_NONE;
}

// An ACK: the first byte is 0x10; the second is not examined.
inline e_s9p_err s9p_accept_ack(const t_s9p_command& ans) {
    return ans.data[0] == 0x10 ? S9P_ERR_NONE : S9P_ERR_PROTOCOL;
}

// A check accepting an answer that starts with `cmd1` `cmd2` and holds `data` data bytes or more.
inline auto s9p_expect(uint8_t cmd1, uint8_t cmd2, int data = 0) {
    return [=](const t_s9p_command& ans) {
        const bool ok = ans.data[0] == cmd1 && ans.data[1] == cmd2 && s9p_data_count(ans) >= data;
        return ok ? S9P_ERR_NONE : S9P_ERR_PROTOCOL;
    };
}

// `check`, printing `message` on standard output when it refuses the answer.
template <typename Check> auto s9p_printing(Check check, const char* message) {
    return [=](const t_s9p_command& ans) {
        e_s9p_err verdict = check(ans);
        if (verdict != S9P_ERR_NONE)
            printf("%s", message);
        return verdict;
    };
}

// An operation answered by an ACK, with result 0.
template <typename Build> int s9p_acked(t_zqhandler* zqh, Build&& build) {
    return s9p_exchange(zqh, build, s9p_accept_ack, [](const t_s9p_command&) { return 0; });
}
