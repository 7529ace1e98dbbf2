// The exchange every handle operation of the Sony family and of Louth shares: build, send, keep
// the command, read one answer, keep it, check it, give the result. One template over the
// protocol's record; the answer checks the operations share live beside it.
#pragma once

#include "link.h"
#include "zqhandler_private.h"

#include <algorithm>
#include <cstdio>
#include <type_traits>

// Where an exchange failed on the link: the library's source file and the line of the send or of
// the read that failed (a NAK counts as a failed read). For the operations that report it.
struct ExchangeFailure {
    const char* file = nullptr;
    int line = 0;
};

// Sends `cmd` (already built) on the handle's link and reads one answer into the same record,
// keeping the command once sent and the answer once read in the handle's records of its
// protocol (data.s9p, with the completion times, or data.louth). A failed send or read, or a Sony
// NAK, stores its code in lasterr, fills `where` when given and returns -1; any other answer
// returns 0. For t_s9p_command and t_louth_command.
template <typename Record> int transact(t_zqhandler* zqh, Record* cmd, ExchangeFailure* where);

// The record a builder fills: the pointee of its one parameter (a builder function, or a lambda
// taking the record's address).
template <typename F> struct BuiltRecord : BuiltRecord<decltype(&F::operator())> {};
template <typename R, typename A> struct BuiltRecord<R(A*)> { using type = A; };
template <typename R, typename A> struct BuiltRecord<R (*)(A*)> { using type = A; };
template <typename R, typename C, typename A> struct BuiltRecord<R (C::*)(A*) const> {
    using type = A;
};
template <typename Build>
using built_record_t = typename BuiltRecord<std::remove_cvref_t<Build>>::type;

// One complete operation:
//   build(Record*) -> int                fills the command; non-zero refuses it (nothing is sent,
//                                        lasterr untouched); a builder of the catalogue as it is
//   check(const Record&) -> e_s9p_err    S9P_ERR_NONE accepts the answer; any other code is
//                                        stored in lasterr and the operation returns -1
//   result(const Record&) -> int         the operation's result for an accepted answer
// `where`, when given, tells where a failure on the link happened (see transact).
// The record lives on this stack frame: the exchange allocates nothing.
template <typename Build, typename Check, typename Result>
int exchange(t_zqhandler* zqh, Build&& build, Check&& check, Result&& result,
             ExchangeFailure* where = nullptr) {
    using Record = built_record_t<Build>;
    if (!zqh)
        return -1;
    Record cmd{};
    if (build(&cmd) != 0)
        return -1;
    if (transact(zqh, &cmd, where) != 0)
        return -1;
    const e_s9p_err verdict = check(static_cast<const Record&>(cmd));
    if (verdict != S9P_ERR_NONE)
        return fail(zqh, verdict);
    return result(static_cast<const Record&>(cmd));
}

// --- the answer checks -------------------------------------------------------------------------

// A Sony answer record always holds CMD1, CMD2 and a checksum (len 3 or more); how many data bytes
// came is told by len, not by CMD1's count, since a datagram or a stream message may carry fewer
// than CMD1 announces.
inline int s9p_data_count(const t_s9p_command& ans) {
    return ans.len - 3;
}

// The data count CMD1 announces.
inline int announced(const t_s9p_command& ans) {
    return ans.data[0] & 0x0F;
}

// An answer of CMD1 group `group` (0x70, 0x80 ...) that holds the data bytes its CMD1 announces,
// `at_least` of them or more.
inline bool holds(const t_s9p_command& ans, uint8_t group, int at_least = 0) {
    const int n = announced(ans);
    return (ans.data[0] & 0xF0) == group && n >= at_least && s9p_data_count(ans) >= n;
}

inline e_s9p_err accept_if(bool ok) {
    return ok ? S9P_ERR_NONE : S9P_ERR_PROTOCOL;
}

// A check accepting the answer `cmd1` `cmd2` that holds the data bytes it announces.
inline auto s9p_expect(uint8_t cmd1, uint8_t cmd2) {
    return [=](const t_s9p_command& ans) {
        return accept_if(ans.data[0] == cmd1 && ans.data[1] == cmd2 && holds(ans, cmd1 & 0xF0));
    };
}

// A result copying the answer's announced data bytes, from the `skip`th on, to `out`; their count.
inline auto copy_announced(uint8_t* out, int skip = 0) {
    return [=](const t_s9p_command& ans) {
        const int n = announced(ans) - skip;
        std::copy_n(ans.data + 2 + skip, n, out);
        return n;
    };
}

// `check`, printing `message` on standard output when it refuses the answer.
template <typename Check> auto printing(Check check, const char* message) {
    return [=](const auto& ans) {
        const e_s9p_err verdict = check(ans);
        if (verdict != S9P_ERR_NONE)
            printf("%s", message);
        return verdict;
    };
}

// An acknowledge: Sony, an answer whose first byte is 0x10 (the second is not examined); Louth,
// the one byte 0x04 (a refusal, 0x05, is not one).
struct AcceptAck {
    e_s9p_err operator()(const t_s9p_command& ans) const { return accept_if(ans.data[0] == 0x10); }
    e_s9p_err operator()(const t_louth_command& ans) const {
        return accept_if(ans.len == 1 && ans.data[0] == LOUTH_ACK);
    }
};
inline constexpr AcceptAck accept_ack;

// A check that takes any answer, and the result 0.
struct AcceptAny {
    template <typename Record> e_s9p_err operator()(const Record&) const { return S9P_ERR_NONE; }
};
inline constexpr AcceptAny accept_any;
struct Zero {
    template <typename Record> int operator()(const Record&) const { return 0; }
};
inline constexpr Zero zero;

// An operation answered by an acknowledge, with result 0.
template <typename Build> int acked(t_zqhandler* zqh, Build&& build) {
    return exchange(zqh, build, accept_ack, zero);
}
