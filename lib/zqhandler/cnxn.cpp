// Connection protocol: request builders and the transfers on the TCP stream, with the keep-alive
// that tells the server a client waiting for raw bytes is still there.
#include "cnxn_private.h"

#include "mytime.h"
#include "select.h"
#include "trace_private.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <sys/socket.h>

namespace {

constexpr unsigned kHeaderSliceMs = 10; // header waits are sliced this fine...
constexpr unsigned kDataSliceMs = 20;   // ...raw waits this fine, with one "aliv" per idle slice
constexpr size_t kFlushChunk = 510;

void build_header(t_cnxn_command* msg, const char (&tag)[5], uint32_t arg1, uint32_t arg2) {
    std::fill(std::begin(msg->data), std::end(msg->data), 0);
    std::copy_n(tag, 4, msg->data);
    put_be32(msg->data + 4, arg1);
    put_be32(msg->data + 8, arg2);
    msg->len = CNXN_HEADER_SIZE;
    msg->payload_len = 0;
}

// The clock is read only once `passes` slices have gone by, so a wait costs no clock reads for
// its nominal length and one per slice after that.
bool expired(unsigned passes, unsigned slice_ms, const MyTick& start, unsigned timeout_ms) {
    return passes >= timeout_ms / slice_ms &&
           static_cast<unsigned>(ElapsedTime2ms(&start)) > timeout_ms;
}

// Sends `count` bytes within the time-out. Never raises SIGPIPE (a server that went away must
// not end the caller's process) and never blocks in send: a full socket buffer is waited for
// again while the time-out lasts. Returns the bytes sent, or -1 when send failed.
int send_within(int fd, const uint8_t* bytes, uint32_t count, unsigned timeout_ms,
                bool pace_writes) {
    MyTick start;
    GetMyTick(&start);
    uint32_t sent = 0;
    while (sent < count) {
        if (static_cast<unsigned>(ElapsedTime2ms(&start)) > timeout_ms)
            break;
        int ready = selectout(fd, static_cast<int>(timeout_ms));
        if (ready < 0)
            break;
        if (ready == 0)
            msleep(1);
        ssize_t n = send(fd, bytes + sent, count - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
                continue;
            return -1;
        }
        sent += static_cast<uint32_t>(n);
        if (pace_writes) {
            msleep(1); // paces an upload
            if (sent < count)
                vlmlibtrace(VLMLIB_TRACE_TRANSPORT, "cnxn_send_data: remaining %d bytes\n",
                            static_cast<int>(count - sent));
        }
    }
    return static_cast<int>(sent);
}

enum class Outcome { complete, timed_out, wait_failed, recv_failed };

// Where a sliced receive stands: bytes in hand, the last recv's result, when it began.
struct Progress {
    size_t got = 0;
    int last_recv = 0;
    MyTick start{};
};

// Receives `count` bytes in waits of `wait_ms`, running `on_idle` after each wait that saw
// nothing. A closed peer reads as 0 bytes and does not end the wait: only the time-out does.
template <typename OnIdle>
Outcome receive_sliced(int fd, uint8_t* buffer, size_t count, int wait_ms, unsigned slice_ms,
                       unsigned timeout_ms, Progress& progress, OnIdle&& on_idle) {
    unsigned passes = 0;
    GetMyTick(&progress.start);
    while (progress.got < count) {
        if (expired(passes, slice_ms, progress.start, timeout_ms))
            return Outcome::timed_out;
        int ready = selectin(fd, wait_ms);
        if (ready < 0)
            return Outcome::wait_failed;
        ++passes;
        if (ready == 0) {
            on_idle();
            continue;
        }
        ssize_t n = recv(fd, buffer + progress.got, count - progress.got, 0);
        if (n < 0)
            return Outcome::recv_failed;
        progress.last_recv = static_cast<int>(n);
        progress.got += static_cast<size_t>(n);
    }
    return Outcome::complete;
}

} // namespace

int cnxn_version_command(t_cnxn_command* msg) {
    build_header(msg, "ver ", 0, 0);
    return 0;
}

int cnxn_getfinfo_command(t_cnxn_command* msg, uint32_t value) {
    build_header(msg, "gfif", value, 0);
    return 0;
}

int cnxn_file_entry_command(t_cnxn_command* msg, uint32_t entry) {
    build_header(msg, "uuuu", entry, 0);
    return 0;
}

int cnxn_getdata_command(t_cnxn_command* msg) {
    build_header(msg, "data", 0, 0);
    return 0;
}

int cnxn_old_getgop_command(t_cnxn_command* msg) {
    build_header(msg, "ggop", 0, 0);
    return 0;
}

int cnxn_getgop_command(t_cnxn_command* msg) {
    build_header(msg, "cggp", 0, 0);
    return 0;
}

int cnxn_putgop_command(t_cnxn_command* msg, uint32_t value, uint32_t count) {
    build_header(msg, "pgop", value, count);
    return 0;
}

int cnxn_alive_command(t_cnxn_command* msg) {
    build_header(msg, "aliv", 0, 0);
    return 0;
}

int cnxn_sony9p_command(t_cnxn_command* msg, const t_s9p_command* cmd) {
    if (cmd->len > S9P_MAX_FRAME)
        return fail(msg, S9P_INVAL_ARG);
    build_header(msg, "s9p ", cmd->len, 0);
    std::copy_n(cmd->data, cmd->len, msg->data + CNXN_HEADER_SIZE);
    msg->len = static_cast<uint8_t>(CNXN_HEADER_SIZE + cmd->len);
    return 0;
}

int cnxn_send_data(t_s9p_handle* hdl, const uint8_t* bytes, uint32_t count, unsigned timeout_ms) {
    if (!hdl->connected)
        return -S9P_ERR_NOT_CONNECTED;
    if (count == 0)
        return 0;
    int sent = send_within(hdl->fd, bytes, count, timeout_ms, true);
    if (sent < 0)
        return -S9P_ERR_SYSTEM;
    return static_cast<uint32_t>(sent) == count ? 0 : -S9P_SEND_TIMEOUT;
}

int cnxn_send_cmd(t_s9p_handle* hdl, t_cnxn_command* msg, unsigned timeout_ms) {
    if (!hdl->connected)
        return fail(msg, S9P_ERR_NOT_CONNECTED);
    if (msg->len > CNXN_MAX_MESSAGE)
        return fail(msg, S9P_INVAL_ARG);
    int sent = send_within(hdl->fd, msg->data, msg->len, timeout_ms, false);
    if (sent < 0)
        return fail(msg, S9P_ERR_SYSTEM);
    if (sent != msg->len)
        return fail(msg, S9P_SEND_TIMEOUT);
    if (msg->payload_len == 0)
        return 0;
    int result = cnxn_send_data(hdl, msg->payload, msg->payload_len, timeout_ms);
    if (result < 0)
        return fail(msg, static_cast<e_s9p_err>(-result));
    return 0;
}

int cnxn_rcv_cmd(t_s9p_handle* hdl, t_cnxn_command* ans, unsigned timeout_ms) {
    if (!hdl->connected)
        return fail(ans, S9P_ERR_NOT_CONNECTED);
    *ans = t_cnxn_command{};
    const int wait_ms = static_cast<int>(std::min(timeout_ms, kHeaderSliceMs));
    uint8_t header[CNXN_HEADER_SIZE];
    Progress progress;
    switch (receive_sliced(hdl->fd, header, CNXN_HEADER_SIZE, wait_ms, kHeaderSliceMs, timeout_ms,
                           progress, [] {})) {
    case Outcome::complete:
        std::copy_n(header, CNXN_HEADER_SIZE, ans->data);
        return 0;
    case Outcome::timed_out:
        return fail(ans, S9P_RCV_TIMEOUT); // the partial header is dropped
    case Outcome::wait_failed:
        vlmlibtrace(VLMLIB_TRACE_TRANSPORT, "cnxn_rcv_cmd: selectin(%d) failed: got %d/%d bytes\n",
                    wait_ms, static_cast<int>(progress.got), static_cast<int>(CNXN_HEADER_SIZE));
        break;
    case Outcome::recv_failed:
        break;
    }
    return fail(ans, S9P_ERR_COMM);
}

int cnxn_rcv_data(t_s9p_handle* hdl, uint8_t* buffer, int count, unsigned timeout_ms) {
    if (!hdl->connected)
        return -S9P_ERR_NOT_CONNECTED;
    if (count <= 0)
        return 0;
    Progress progress;
    auto keep_alive = [&] {
        vlmlibtrace(VLMLIB_TRACE_TRANSPORT,
                    "%s:%d> send alive ret: %d ret2: %d size: %d tm2: %lu tm: %lu\n",
                    source_name(__FILE__), __LINE__, static_cast<int>(progress.got), progress.last_recv, count,
                    static_cast<unsigned long>(ElapsedTime2ms(&progress.start)),
                    static_cast<unsigned long>(timeout_ms));
        t_cnxn_command alive{};
        cnxn_alive_command(&alive);
        cnxn_send_cmd(hdl, &alive, 0); // one attempt, no retry: the next idle slice sends another
    };
    switch (receive_sliced(hdl->fd, buffer, static_cast<size_t>(count), kDataSliceMs, kDataSliceMs,
                           timeout_ms, progress, keep_alive)) {
    case Outcome::complete:
        return count;
    case Outcome::timed_out:
        vlmlibtrace(VLMLIB_TRACE_TRANSPORT, "cnxn_rcv_data: timeout: got %d/%d bytes in %lu msec\n",
                    static_cast<int>(progress.got), count,
                    static_cast<unsigned long>(ElapsedTime2ms(&progress.start)));
        return -S9P_RCV_TIMEOUT;
    case Outcome::wait_failed:
    case Outcome::recv_failed:
        break;
    }
    return -S9P_ERR_COMM;
}

void cnxn_flush_input(t_s9p_handle* hdl) {
    if (!hdl->connected)
        return;
    // What is waiting is dropped, but in no more reads than the stale datagrams before a
    // datagram request: a server that never stops sending must not keep the caller here.
    uint8_t scratch[kFlushChunk];
    drain_waiting(hdl->fd, kMaxStaleReads,
                  [&] { return recv(hdl->fd, scratch, sizeof scratch, 0) > 0; });
}

CnxnAnnounce cnxn_check_announce(std::span<const uint8_t, CNXN_HEADER_SIZE> header,
                                 const char (&tag)[5], int32_t capacity) {
    if (!cnxn_tag_is(header.data(), tag))
        return CnxnAnnounce::wrong_tag;
    if (capacity < 0 || cnxn_arg1(header.data()) > static_cast<uint32_t>(capacity))
        return CnxnAnnounce::too_big;
    return CnxnAnnounce::fits;
}
