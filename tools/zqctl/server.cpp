// zqctl's server commands: version, disk information, file entries and GOPs over the TCP
// connection protocol; the log, disk information and pictures over the UDP management protocol.
#include "zqctl.h"

#include <cstdio>
#include <string>
#include <vector>
#include <zqhandler/mgmt.h>
#include <zqhandler/zqhandler_cnxn.h>
#include <zqhandler/zqhandler_mgmt.h>

namespace zqctl {
namespace {

constexpr int32_t kInfoCapacity = 64 * 1024;
constexpr int32_t kGopCapacity = 16 * 1024 * 1024;

bool number_argument(const char* operation, const char* text, int64_t low, int64_t high,
                     int64_t& value, int& status) {
    if (integer(text, value) && value >= low && value <= high)
        return true;
    status = refused(operation, std::string("'") + text + "' is out of range");
    return false;
}

int write_file(const char* operation, const char* path, const uint8_t* bytes, size_t count) {
    FILE* file = fopen(path, "wb");
    bool ok = file && fwrite(bytes, 1, count, file) == count;
    if (file && fclose(file) != 0)
        ok = false;
    if (!ok) {
        perror((std::string("zqctl: ") + operation + ": " + path).c_str());
        return 1;
    }
    return 0;
}

int version(Session& s, Args) {
    uint32_t first = 0, second = 0;
    if (zqhandler_cnxn_version(s.zqh, &first, &second) != 0)
        return failed(s, "version");
    print_text(s, "version", std::to_string(first) + "." + std::to_string(second));
    return 0;
}

// Over TCP the server sends exactly what it announced but the library does not return the count:
// trailing zero bytes are not shown.
int diskinfo(Session& s, Args) {
    std::vector<uint8_t> buffer(kInfoCapacity);
    int n = zqhandler_get_diskinfo(s.zqh, buffer.data(), kInfoCapacity);
    if (n < 0)
        return failed(s, "diskinfo");
    size_t shown = static_cast<size_t>(n);
    if (s.zqh->comm_handle.connected == S9P_LINK_STREAM)
        for (shown = buffer.size(); shown > 0 && buffer[shown - 1] == 0;)
            --shown;
    print_bytes(s, "diskinfo", {buffer.data(), shown});
    return 0;
}

int file_entry(Session& s, Args args) {
    int64_t entry = 0;
    int status = 0;
    if (!number_argument("file entry", args[0], 0, 0xFFFFFFFF, entry, status))
        return status;
    std::vector<uint8_t> buffer(kInfoCapacity);
    int32_t size = 0;
    if (zqhandler_cnxn_get_file_entry(s.zqh, static_cast<uint32_t>(entry), buffer.data(), &size,
                                      kInfoCapacity) != 0)
        return failed(s, "file entry");
    print_bytes(s, "entry", {buffer.data(), static_cast<size_t>(size)});
    return 0;
}

int gop_get(Session& s, Args args) {
    std::vector<uint8_t> buffer(kGopCapacity);
    int32_t size = 0;
    if (zqhandler_cnxn_get_gop(s.zqh, buffer.data(), &size, kGopCapacity) != 0)
        return failed(s, "gop get");
    return write_file("gop get", args[0], buffer.data(), static_cast<size_t>(size));
}

int gop_put(Session& s, Args args) {
    FILE* file = fopen(args[0], "rb");
    if (!file) {
        perror((std::string("zqctl: gop put: ") + args[0]).c_str());
        return 1;
    }
    std::vector<uint8_t> bytes;
    uint8_t chunk[65536];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, file)) > 0;)
        bytes.insert(bytes.end(), chunk, chunk + n);
    fclose(file);
    if (zqhandler_cnxn_put_gop(s.zqh, 0, bytes.data(), static_cast<uint32_t>(bytes.size())) != 0)
        return failed(s, "gop put");
    return 0;
}

// The management operations leave no error code: a failure is named by what it was.
int management_failed(const char* operation) {
    fprintf(stderr, "zqctl: %s: no answer from the management endpoint\n", operation);
    return 1;
}

int log(Session& s, Args) {
    std::vector<uint8_t> buffer(MGMT_MAX_DATA);
    int n = zqhandler_mgmt_getlog(s.zqh, buffer.data());
    if (n < 0)
        return management_failed("log");
    print_text(s, "log", std::string(buffer.begin(), buffer.begin() + n));
    return 0;
}

int picture(Session& s, Args args) {
    int64_t code = 0;
    int status = 0;
    if (!number_argument("picture", args[0], 0, 0xFFFF, code, status))
        return status;
    std::vector<uint8_t> buffer(MGMT_MAX_DATA);
    int n = zqhandler_mgmt_get_picture(s.zqh, buffer.data(), MGMT_MAX_DATA,
                                       static_cast<uint16_t>(code));
    if (n <= 0)
        return management_failed("picture");
    return write_file("picture", args[1], buffer.data(), static_cast<size_t>(n));
}

const Command kCommands[] = {
    {"version", "", 0, 0, version, "the server's protocol version (TCP)"},
    {"diskinfo", "", 0, 0, diskinfo, "the disk information in hex (TCP or UDP)"},
    {"file entry", "N", 1, 1, file_entry, "file entry N in hex (TCP)"},
    {"gop get", "FILE", 1, 1, gop_get, "download the next GOP into FILE (TCP)"},
    {"gop put", "FILE", 1, 1, gop_put, "upload FILE as a GOP (TCP)"},
    {"log", "", 0, 0, log, "the server's log (UDP management endpoint)"},
    {"picture", "CODE FILE", 2, 2, picture, "picture CODE into FILE (UDP management endpoint)"},
};

} // namespace

std::span<const Command> server_commands() {
    return kCommands;
}

} // namespace zqctl
