// Output capture for tests: fd 1 or 2 is pointed at an unlinked temporary file and back.
#include "capture.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

CapturedFd::CapturedFd(int fd) : fd_(fd) {
    fflush(nullptr);
    char path[] = "/tmp/vlm-capture-XXXXXX";
    file_ = mkstemp(path);
    if (file_ < 0) {
        perror("mkstemp");
        abort();
    }
    unlink(path);
    saved_ = dup(fd_);
    dup2(file_, fd_);
}

CapturedFd::~CapturedFd() { restore(); }

void CapturedFd::restore() {
    if (saved_ < 0)
        return;
    fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
    saved_ = -1;
    lseek(file_, 0, SEEK_SET);
    char buffer[4096];
    ssize_t n;
    while ((n = read(file_, buffer, sizeof buffer)) > 0)
        text_.append(buffer, static_cast<size_t>(n));
    close(file_);
    file_ = -1;
}

std::string CapturedFd::text() {
    restore();
    return text_;
}
