// Safe creation and reading of the paths a program is given.
#include "paths.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace cli {

namespace {

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    throw std::runtime_error(path + ": " + why);
}

[[noreturn]] void refuse_errno(const std::string& path, int error) {
    refuse(path, strerror(error));
}

// What lstat says is at `path`; false when nothing is.
bool something_at(const std::string& path, struct stat& status) {
    if (lstat(path.c_str(), &status) == 0)
        return true;
    if (errno != ENOENT)
        refuse_errno(path, errno);
    return false;
}

std::string link_target(const std::string& path) {
    char target[4096];
    const ssize_t n = readlink(path.c_str(), target, sizeof target);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

void remove_stale(const std::string& path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        refuse_errno(path, errno);
}

} // namespace

void claim_pty_link(const std::string& path) {
    struct stat status {};
    if (!something_at(path, status))
        return;
    if (!S_ISLNK(status.st_mode))
        refuse(path, "exists and is not a link to a pty");
    const std::string target = link_target(path);
    if (target.rfind("/dev/pts/", 0) != 0)
        refuse(path, "is a link to " + target + ", not to a pty");
    if (access(target.c_str(), F_OK) == 0)
        refuse(path, "links to " + target + ", a pty in use");
    remove_stale(path);
}

void claim_socket(const std::string& path) {
    struct stat status {};
    if (!something_at(path, status))
        return;
    if (!S_ISSOCK(status.st_mode))
        refuse(path, "exists and is not a socket");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        refuse_errno(path, ENAMETOOLONG);
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int served =
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0
                                                                                         : errno;
    close(probe);
    if (served == 0)
        refuse(path, "a socket another program serves");
    if (served != ECONNREFUSED)
        refuse_errno(path, served);
    remove_stale(path);
}

bool remove_own_link(const std::string& path, const std::string& target) {
    return link_target(path) == target && unlink(path.c_str()) == 0;
}

int create_new_file(const std::string& path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0)
        refuse_errno(path, errno);
    return fd;
}

std::vector<uint8_t> read_file(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0) {
        const int error = errno;
        if (fd >= 0)
            close(fd);
        refuse_errno(path, error);
    }
    if (!S_ISREG(status.st_mode)) {
        close(fd);
        refuse(path, S_ISDIR(status.st_mode) ? strerror(EISDIR) : "not a regular file");
    }
    std::vector<uint8_t> bytes;
    uint8_t chunk[65536];
    for (ssize_t n; (n = read(fd, chunk, sizeof chunk)) != 0;) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            const int error = errno;
            close(fd);
            refuse_errno(path, error);
        }
        bytes.insert(bytes.end(), chunk, chunk + n);
    }
    close(fd);
    return bytes;
}

void check_terminal(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        refuse_errno(path, errno);
    if (!S_ISCHR(status.st_mode))
        refuse(path, "not a terminal");
    const int fd = open(path.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        refuse_errno(path, errno);
    const bool terminal = isatty(fd);
    close(fd);
    if (!terminal)
        refuse(path, "not a terminal");
}

} // namespace cli
