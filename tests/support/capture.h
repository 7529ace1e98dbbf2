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
        if ((file_ = mkstemp(path)) < 0)
            abort();
        unlink(path);
        saved_ = dup(fd_);
        dup2(file_, fd_);
    }
    ~CapturedFd() { text(); }
    CapturedFd(const CapturedFd&) = delete;
    CapturedFd& operator=(const CapturedFd&) = delete;

    // Stops capturing (once) and returns everything written meanwhile.
    std::string text() {
        if (saved_ >= 0) {
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
        return text_;
    }

  private:
    int fd_, saved_ = -1, file_ = -1;
    std::string text_;
};

struct CapturedStdout : CapturedFd {
    CapturedStdout() : CapturedFd(1) {}
};
struct CapturedStderr : CapturedFd {
    CapturedStderr() : CapturedFd(2) {}
};
