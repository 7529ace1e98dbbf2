// Captures what a test's code writes to standard output or standard error (stdio and raw fd):
// the descriptor points at an unlinked temporary file until the text is taken.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

class CapturedFd {
  public:
    explicit CapturedFd(int fd) : fd_(fd) {
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
    ~CapturedFd() { restore(); }
    CapturedFd(const CapturedFd&) = delete;
    CapturedFd& operator=(const CapturedFd&) = delete;

    // Stops capturing (once) and returns everything written meanwhile.
    std::string text() {
        restore();
        return text_;
    }

  private:
    void restore() {
        if (saved_ < 0)
            return;
        fflush(nullptr);
        dup2(saved_, fd_);
        close(saved_);
        saved_ = -1;
        lseek(file_, 0, SEEK_SET);
        char buffer[4096];
        for (ssize_t n; (n = read(file_, buffer, sizeof buffer)) > 0;)
            text_.append(buffer, static_cast<size_t>(n));
        close(file_);
    }
    int fd_;
    int saved_ = -1;
    int file_ = -1;
    std::string text_;
};

struct CapturedStdout : CapturedFd {
    CapturedStdout() : CapturedFd(1) {}
};
struct CapturedStderr : CapturedFd {
    CapturedStderr() : CapturedFd(2) {}
};
