// zqctl's server commands: version, disk information, file entries and GOPs over the TCP
// connection protocol; the log, disk information and pictures over the UDP management protocol.
#include "zqctl.h"

#include "cli.h"
#include "paths.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>
#include <zqhandler/mgmt.h>
#include <zqhandler/zqhandler_cnxn.h>
#include <zqhandler/zqhandler_mgmt.h>

namespace zqctl {
namespace {

constexpr int32_t kInfoCapacity = 64 * 1024;
constexpr int32_t kGopCapacity = 16 * 1024 * 1024;

// A file made for a command's result before anything is sent, so that a path where something is
// costs no exchange; removed again when the command fails.
class NewFile {
  public:
    explicit NewFile(const char* path) : path_(path), fd_(cli::create_new_file(path)) {}
    ~NewFile() {
        if (fd_ >= 0)
            close(fd_);
        if (!kept_)
            unlink(path_.c_str());
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    // Writes `bytes` and closes the file, which is kept when both succeed; the exit status.
    int keep(const char* operation, std::span<const uint8_t> bytes) {
        for (size_t done = 0; done < bytes.size();) {
            const ssize_t n = write(fd_, bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno != EINTR)
                return missing(operation, path_ + ": " + strerror(errno));
            done += n > 0 ? static_cast<size_t>(n) : 0;
        }
        const int closed = close(fd_);
        fd_ = -1;
        if (closed != 0 && errno != EINTR)
            return missing(operation, path_ + ": " + strerror(errno));
        kept_ = true;
        return 0;
    }

  private:
    std::string path_;
    int fd_;
    bool kept_ = false;
};

// One request to the management endpoint and its answer's data (`sized`: as many bytes as its
// header announces, else all that came). The answer of a Sony or Louth port (a datagram of type
// 1 or 5) is of the wrong kind, not data.
int management(Session& s, const char* operation, t_mgmt_command& request, bool sized,
               std::vector<uint8_t>& data) {
    t_s9p_handle* link = &s.handle()->comm_handle;
    if (mgmt_send_cmd(link, &request, s.zqh->timeout) != 0)
        return missing(operation, "the request could not be sent");
    const int received = mgmt_read_answer(link, &request, s.zqh->timeout);
    if (received < 0)
        return missing(operation, "no answer from the management endpoint");
    const uint16_t type = ntohs(request.hdr.type);
    if (received < MGMT_HEADER_SIZE || type == 1 || type == 5)
        return missing(operation, "answer of the wrong kind (not from a management endpoint)");
    size_t count = static_cast<size_t>(received - MGMT_HEADER_SIZE);
    if (sized)
        count = std::min<size_t>(count, ntohs(request.hdr.size));
    data.assign(request.data, request.data + count);
    return 0;
}

int version(Session& s, Args) {
    uint32_t first = 0, second = 0;
    if (zqhandler_cnxn_version(s.handle(), &first, &second) != 0)
        return failed(s, "version");
    print_text(s, "version", std::to_string(first) + "." + std::to_string(second));
    return 0;
}

// Over TCP the server sends exactly what it announced but the library does not return the count:
// trailing zero bytes are not shown.
int diskinfo(Session& s, Args) {
    std::vector<uint8_t> buffer(kInfoCapacity);
    if (s.link == kUdp) {
        t_mgmt_command request;
        mgmt_getdiskinfo(&request);
        if (int status = management(s, "diskinfo", request, true, buffer))
            return status;
    } else {
        if (zqhandler_cnxn_get_diskinfo(s.handle(), buffer.data(), kInfoCapacity) != 0)
            return failed(s, "diskinfo");
        while (!buffer.empty() && buffer.back() == 0)
            buffer.pop_back();
    }
    print_bytes(s, "diskinfo", buffer);
    return 0;
}

int file_entry(Session& s, Args args) {
    const auto entry = static_cast<uint32_t>(cli::integer(args[0], 0, UINT32_MAX, "file entry"));
    std::vector<uint8_t> buffer(kInfoCapacity);
    int32_t size = 0;
    if (zqhandler_cnxn_get_file_entry(s.handle(), entry, buffer.data(), &size, kInfoCapacity) != 0)
        return failed(s, "file entry");
    if (size <= 0)
        return missing("file entry", "no entry " + std::to_string(entry));
    print_bytes(s, "entry", {buffer.data(), static_cast<size_t>(size)});
    return 0;
}

int gop_get(Session& s, Args args) {
    NewFile file(args[0]);
    std::vector<uint8_t> buffer(kGopCapacity);
    int32_t size = 0;
    if (zqhandler_cnxn_get_gop(s.handle(), buffer.data(), &size, kGopCapacity) != 0)
        return failed(s, "gop get");
    return file.keep("gop get", {buffer.data(), static_cast<size_t>(size)});
}

int gop_put(Session& s, Args args) {
    const std::vector<uint8_t> bytes = cli::read_file(args[0]);
    if (bytes.size() > UINT32_MAX)
        refused("gop put", cli::quote(args[0]) + " is larger than a transfer carries");
    if (zqhandler_cnxn_put_gop(s.handle(), 0, bytes.data(), static_cast<uint32_t>(bytes.size())) !=
        0)
        return failed(s, "gop put");
    return 0;
}

int log(Session& s, Args) {
    t_mgmt_command request;
    mgmt_getlog(&request);
    std::vector<uint8_t> text;
    if (int status = management(s, "log", request, true, text))
        return status;
    print_text(s, "log", std::string(text.begin(), text.end()));
    return 0;
}

int picture(Session& s, Args args) {
    // Codes 0 to 2 ask the management endpoint for other things (disk information, the log).
    const auto code = static_cast<uint16_t>(cli::integer(args[0], 3, 0xFFFF, "picture"));
    NewFile file(args[1]);
    t_mgmt_command request;
    mgmt_getpicture(&request, code);
    std::vector<uint8_t> bytes;
    if (int status = management(s, "picture", request, false, bytes))
        return status;
    if (bytes.empty())
        return missing("picture", "no picture " + std::to_string(code));
    return file.keep("picture", bytes);
}

const Command kCommands[] = {
    {"version", "", 0, 0, version, "the server's protocol version (TCP)", kTcp},
    {"diskinfo", "", 0, 0, diskinfo, "the disk information in hex (TCP or UDP)", kTcp | kUdp},
    {"file entry", "N", 1, 1, file_entry, "file entry N in hex (TCP)", kTcp},
    {"gop get", "FILE", 1, 1, gop_get, "download the next GOP into FILE, a new file (TCP)", kTcp},
    {"gop put", "FILE", 1, 1, gop_put, "upload FILE as a GOP (TCP)", kTcp},
    {"log", "", 0, 0, log, "the server's log (UDP management endpoint)", kUdp},
    {"picture", "CODE FILE", 2, 2, picture,
     "picture CODE (3 to 65535) into FILE, a new file (UDP management)", kUdp},
};

} // namespace

std::span<const Command> server_commands() {
    return kCommands;
}

} // namespace zqctl
