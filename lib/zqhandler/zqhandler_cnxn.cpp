// Connection-protocol handle operations: version, disk information, file entries, GOP downloads
// and uploads, each its own steps on one small request/answer helper; and zqhandler_get_diskinfo,
// which picks this protocol or the management one by the handle's link.
#include "cnxn_private.h"
#include "trace_private.h"
#include "zqhandler_private.h"

#include <cstdarg>
#include <cstdio>
#include <zqhandler/zqhandler_cnxn.h>
#include <zqhandler/zqhandler_mgmt.h>

namespace {

// Raw bytes get this long whatever the handle's time-out.
constexpr unsigned kRawTimeoutMs = 5000;

// What an operation says when a step fails (null: nothing). The wrong-tag text may print the tag
// received with %x.
struct Says {
    const char* request;      // sending the request
    const char* header;       // receiving its answer header
    const char* tag;          // an answer with another tag
    const char* data_request; // sending "data"
    const char* raw;          // the raw bytes, received or sent
    bool on_stdout = false;   // printed on standard output, else traced at level 200
};

const Says kVersion = {"zqhandler_cnxn_version: cnxn_send_cmd() failure\n",
                       "zqhandler_cnxn_version: cnxn_rcv_cmd() failure\n",
                       "zqhandler_cnxn_version: protocol err\n", nullptr, nullptr};
const Says kDiskinfo = {"zqhandler_cnxn_get_diskinfo: cnxn_send_cmd() failure\n",
                        "zqhandler_cnxn_get_diskinfo: cnxn_rcv_cmd() failure\n",
                        "zqhandler_cnxn_get_diskinfo: protocol err (%x)\n",
                        "zqhandler_cnxn_get_diskinfo: cnxn_getdata_command() send failure\n",
                        "zqhandler_cnxn_get_diskinfo: cnxn_rcv_data() failure\n"};
const Says kFileEntry = {"send failed\n", "recv failed\n", "protocol err\n",
                         "send failed\n", "recv failed\n", true};
const Says kGop = {"zqhandler_cnxn_get_gop: cnxn_send_cmd() failure\n",
                   "zqhandler_cnxn_get_gop: cnxn_rcv_cmd() failure\n",
                   "zqhandler_cnxn_get_gop: protocol err (%x)\n",
                   "zqhandler_cnxn_get_gop: cnxn_send_cmd#2() failure\n",
                   "zqhandler_cnxn_get_gop: cnxn_rcv_data() failure\n"};
const Says kOldGop = {"zqhandler_cnxn_old_get_gop: cnxn_send_cmd() failure\n", nullptr, nullptr,
                      nullptr, "zqhandler_cnxn_old_get_gop: cnxn_rcv_cmd() failure\n"};
const Says kPutGop = {"zqhandler_cnxn_put_gop: cnxn_send_cmd() failure\n",
                      "zqhandler_cnxn_put_gop: cnxn_rcv_cmd() failure\n", nullptr, nullptr,
                      "zqhandler_cnxn_put_gop: cnxn_send_data() failure\n"};

// One operation's exchanges on the handle's stream. A step that fails stores its code in lasterr,
// says the operation's text for it and returns false.
class Transfer {
  public:
    Transfer(t_zqhandler* zqh, const Says& says)
        : zqh_(zqh), link_(&zqh->comm_handle), timeout_(static_cast<unsigned>(zqh->timeout)),
          says_(says) {}

    // Sends `request` after dropping the input already waiting.
    bool send(t_cnxn_command& request, const char* failure) {
        cnxn_flush_input(link_);
        return cnxn_send_cmd(link_, &request, timeout_) == 0 ||
               failed(static_cast<e_s9p_err>(request.err_status), failure);
    }
    // Sends `request` and receives its answer header.
    bool ask(t_cnxn_command& request) {
        return send(request, says_.request) &&
               (cnxn_rcv_cmd(link_, &answer_, timeout_) == 0 ||
                failed(static_cast<e_s9p_err>(answer_.err_status), says_.header));
    }
    // ...which must carry `tag`; whether it announces a size that `capacity` bytes hold is then
    // fits().
    bool ask(t_cnxn_command& request, const char (&tag)[5], int32_t capacity = 0) {
        if (!ask(request))
            return false;
        verdict_ = cnxn_check_announce(header(), tag, capacity);
        if (verdict_ != CnxnAnnounce::wrong_tag)
            return true;
        if (says_.tag)
            say(says_.on_stdout, says_.tag, static_cast<unsigned>(get_be32(answer_.data)));
        return failed(S9P_ERR_PROTOCOL, nullptr);
    }
    bool fits() const { return verdict_ == CnxnAnnounce::fits; }
    bool tag_is(const char (&tag)[5]) const { return cnxn_tag_is(answer_.data, tag); }
    uint32_t arg1() const { return cnxn_arg1(answer_.data); }
    uint32_t arg2() const { return cnxn_arg2(answer_.data); }

    // Exactly `count` raw bytes into `buffer`.
    bool receive_raw(uint8_t* buffer, int count) {
        int got = cnxn_rcv_data(link_, buffer, count, kRawTimeoutMs);
        return got >= 0 || failed(static_cast<e_s9p_err>(-got), says_.raw);
    }
    // "data", then the arg1 bytes the answer header announced.
    bool fetch(uint8_t* buffer) {
        t_cnxn_command request;
        cnxn_getdata_command(&request);
        return send(request, says_.data_request) && receive_raw(buffer, static_cast<int>(arg1()));
    }
    bool send_raw(const uint8_t* bytes, uint32_t count) {
        int result = cnxn_send_data(link_, bytes, count, kRawTimeoutMs);
        return result == 0 || failed(static_cast<e_s9p_err>(-result), says_.raw);
    }

    // Fails the operation with `code`, after saying `format` when it is given.
    int refuse(e_s9p_err code) { return fail(zqh_, code); }
    VLM_PRINTF(3, 4) int refuse(e_s9p_err code, const char* format, ...) {
        va_list args;
        va_start(args, format);
        vsay(says_.on_stdout, format, args);
        va_end(args);
        return fail(zqh_, code);
    }

  private:
    std::span<const uint8_t, CNXN_HEADER_SIZE> header() const {
        return std::span<const uint8_t, CNXN_HEADER_SIZE>(answer_.data, CNXN_HEADER_SIZE);
    }
    bool failed(e_s9p_err code, const char* text) {
        if (text)
            say(says_.on_stdout, "%s", text);
        fail(zqh_, code);
        return false;
    }
    VLM_PRINTF(2, 3) static void say(bool on_stdout, const char* format, ...) {
        va_list args;
        va_start(args, format);
        vsay(on_stdout, format, args);
        va_end(args);
    }
    static void vsay(bool on_stdout, const char* format, va_list args) {
        char text[128];
        vsnprintf(text, sizeof text, format, args);
        if (on_stdout)
            printf("%s", text);
        else
            vlmlibtrace(VLMLIB_TRACE_TRANSPORT, "%s", text);
    }

    t_zqhandler* zqh_;
    t_s9p_handle* link_;
    unsigned timeout_; // a negative handle time-out becomes a wait without limit
    const Says& says_;
    t_cnxn_command answer_{};
    CnxnAnnounce verdict_ = CnxnAnnounce::wrong_tag;
};

// Arguments every download checks before anything is sent.
bool download_args_ok(const t_zqhandler* zqh, const uint8_t* buffer, int32_t capacity) {
    return zqh && capacity >= 0 && (buffer || capacity == 0);
}

// The size announced, as the size out-argument holds it.
void store_size(int32_t* size, uint32_t announced) {
    if (size)
        *size = static_cast<int32_t>(announced);
}

int get_old_gop(t_zqhandler* zqh, uint8_t* buffer, int32_t capacity) {
    Transfer t(zqh, kOldGop);
    t_cnxn_command request;
    cnxn_old_getgop_command(&request);
    return t.send(request, kOldGop.request) && t.receive_raw(buffer, capacity) ? 0 : -1;
}

} // namespace

int zqhandler_get_diskinfo(t_zqhandler* zqh, uint8_t* buffer, int32_t capacity) {
    if (!zqh)
        return -1;
    switch (zqh->comm_handle.connected) {
    case S9P_LINK_STREAM:
        return zqhandler_cnxn_get_diskinfo(zqh, buffer, capacity);
    case S9P_LINK_DATAGRAM:
        return zqhandler_mgmt_get_diskinfo(zqh, buffer, capacity);
    default:
        return -1;
    }
}

int zqhandler_cnxn_version(t_zqhandler* zqh, uint32_t* first, uint32_t* second) {
    if (!zqh)
        return -1;
    Transfer t(zqh, kVersion);
    t_cnxn_command request;
    cnxn_version_command(&request);
    if (!t.ask(request, "ver "))
        return -1;
    if (first)
        *first = t.arg1();
    if (second)
        *second = t.arg2();
    return 0;
}

int zqhandler_cnxn_get_diskinfo(t_zqhandler* zqh, uint8_t* buffer, int32_t capacity) {
    if (!download_args_ok(zqh, buffer, capacity))
        return -1;
    Transfer t(zqh, kDiskinfo);
    t_cnxn_command request;
    cnxn_getfinfo_command(&request, static_cast<uint32_t>(capacity));
    if (!t.ask(request, "gfif", capacity))
        return -1;
    if (!t.fits())
        return t.refuse(S9P_ERR_PROTOCOL, "zqhandler_cnxn_get_diskinfo: size too big (%d)\n",
                        static_cast<int>(t.arg1()));
    return t.fetch(buffer) ? 0 : -1;
}

int zqhandler_cnxn_get_file_entry(t_zqhandler* zqh, uint32_t entry, uint8_t* buffer, int32_t* size,
                                  int32_t capacity) {
    if (!download_args_ok(zqh, buffer, capacity))
        return -1;
    Transfer t(zqh, kFileEntry);
    t_cnxn_command request;
    cnxn_file_entry_command(&request, entry);
    if (!t.ask(request, "uuuu", capacity))
        return -1;
    store_size(size, t.arg1());
    if (!t.fits())
        return t.refuse(S9P_INVAL_ARG, "size too small\n");
    return t.fetch(buffer) ? 0 : -1;
}

int zqhandler_cnxn_get_gop(t_zqhandler* zqh, uint8_t* buffer, int32_t* size, int32_t capacity) {
    if (!download_args_ok(zqh, buffer, capacity))
        return -1;
    if (zqh->proto_ver <= 0)
        return get_old_gop(zqh, buffer, capacity);
    Transfer t(zqh, kGop);
    t_cnxn_command request;
    cnxn_getgop_command(&request);
    if (!t.ask(request, "cggp", capacity))
        return -1;
    store_size(size, t.arg1());
    if (!t.fits())
        return t.refuse(S9P_INVAL_ARG);
    return t.fetch(buffer) ? 0 : -1;
}

int zqhandler_cnxn_put_gop(t_zqhandler* zqh, uint32_t value, const uint8_t* bytes, uint32_t count) {
    if (!zqh || (!bytes && count > 0))
        return -1;
    Transfer t(zqh, kPutGop);
    t_cnxn_command request;
    cnxn_putgop_command(&request, value, count);
    if (!t.ask(request))
        return -1;
    if (t.tag_is("pgna"))
        return t.refuse(S9P_PERMISSION_DENIED, "zqhandler_cnxn_put_gop: got permission denied\n");
    if (!t.tag_is("pgac"))
        return t.refuse(S9P_ERR_PROTOCOL);
    return t.send_raw(bytes, count) ? 0 : -1;
}
