// Connection protocol: request builders and the transfers on the TCP stream, with the keep-alive
// that tells the server a client waiting for raw bytes is still there.
#include "cnxn.h"

#include "mytime.h"
#include "select.h"
#include "trace.h"

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
    if (cmd->len > S9P_MAX_FRAME) {
        msg->err_status = S9P_INVAL_ARG;
        return -1;
    }
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
    if (!hdl->connected) {
        msg->err_status = S9P_ERR_NOT_CONNECTED;
        return -1;
    }
    if (msg->len > CNXN_MAX_MESSAGE) {
        msg->err_status = S9P_INVAL_ARG;
        return -1;
    }
    int sent = send_within(hdl->fd, msg->data, msg->len, timeout_ms, false);
    if (sent < 0) {
        msg->err_status = S9P_ERR_SYSTEM;
        return -1;
    }
    if (sent != msg->len) {
        msg->err_status = S9P_SEND_TIMEOUT;
        return -1;
    }
    if (msg->payload_len == 0)
        return 0;
    int result = cnxn_send_data(hdl, msg->payload, msg->payload_len, timeout_ms);
    if (result < 0) {
        msg->err_status = static_cast<uint32_t>(-result);
        return -1;
    }
    return 0;
}

int cnxn_rcv_cmd(t_s9p_handle* hdl, t_cnxn_command* ans, unsigned timeout_ms) {
    if (!hdl->connected) {
        ans->err_status = S9P_ERR_NOT_CONNECTED;
        return -1;
    }
    *ans = t_cnxn_command{};
    const int slice_ms = static_cast<int>(std::min(timeout_ms, kHeaderSliceMs));
    uint8_t header[CNXN_HEADER_SIZE];
    size_t got = 0;
    unsigned passes = 0;
    MyTick start;
    GetMyTick(&start);
    // A closed peer reads as 0 bytes and does not end the wait: only the time-out does.
    while (got < CNXN_HEADER_SIZE) {
        if (expired(passes, kHeaderSliceMs, start, timeout_ms)) {
            ans->err_status = S9P_RCV_TIMEOUT;
            return -1;
        }
        int ready = selectin(hdl->fd, slice_ms);
        if (ready < 0) {
            vlmlibtrace(VLMLIB_TRACE_TRANSPORT,
                        "cnxn_rcv_cmd: selectin(%d) failed: got %d/%d bytes\n", slice_ms,
                        static_cast<int>(got), static_cast<int>(CNXN_HEADER_SIZE));
            ans->err_status = S9P_ERR_COMM;
            return -1;
        }
        ++passes;
        if (ready == 0)
            continue;
        ssize_t n = recv(hdl->fd, header + got, CNXN_HEADER_SIZE - got, 0);
        if (n < 0) {
            ans->err_status = S9P_ERR_COMM;
            return -1;
        }
        got += static_cast<size_t>(n);
    }
    std::copy_n(header, CNXN_HEADER_SIZE, ans->data);
    return 0;
}

int cnxn_rcv_data(t_s9p_handle* hdl, uint8_t* buffer, int count, unsigned timeout_ms) {
    if (!hdl->connected)
        return -S9P_ERR_NOT_CONNECTED;
    if (count <= 0)
        return 0;
    int got = 0;
    int last_recv = 0;
    unsigned passes = 0;
    MyTick start;
    GetMyTick(&start);
    while (got < count) {
        if (expired(passes, kDataSliceMs, start, timeout_ms)) {
            vlmlibtrace(VLMLIB_TRACE_TRANSPORT,
                        "cnxn_rcv_data: timeout: got %d/%d bytes in %lu msec\n", got, count,
                        static_cast<unsigned long>(ElapsedTime2ms(&start)));
            return -S9P_RCV_TIMEOUT;
        }
        int ready = selectin(hdl->fd, kDataSliceMs);
        if (ready < 0)
            return -S9P_ERR_COMM;
        ++passes;
        if (ready > 0) {
            ssize_t n = recv(hdl->fd, buffer + got, static_cast<size_t>(count - got), 0);
            if (n < 0)
                return -S9P_ERR_COMM;
            last_recv = static_cast<int>(n);
            got += last_recv;
            continue;
        }
        vlmlibtrace(VLMLIB_TRACE_TRANSPORT,
                    "%s:%d> send alive ret: %d ret2: %d size: %d tm2: %lu tm: %lu\n", "cnxn",
                    __LINE__, got, last_recv, count,
                    static_cast<unsigned long>(ElapsedTime2ms(&start)),
                    static_cast<unsigned long>(timeout_ms));
        t_cnxn_command alive{};
        cnxn_alive_command(&alive);
        cnxn_send_cmd(hdl, &alive, 0); // one attempt, no retry: the next idle slice sends another
    }
    return got;
}

void cnxn_flush_input(t_s9p_handle* hdl) {
    if (!hdl->connected)
        return;
    uint8_t scratch[kFlushChunk];
    while (selectin(hdl->fd, 0) > 0) {
        if (recv(hdl->fd, scratch, sizeof scratch, 0) <= 0)
            return;
    }
}
