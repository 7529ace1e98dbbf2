// Captures what a test's code writes to standard output or standard error (stdio and raw fd).
#pragma once

#include <string>

class CapturedFd {
  public:
    // Starts capturing fd 1 or 2 into a temporary file.
    explicit CapturedFd(int fd);
    ~CapturedFd();
    CapturedFd(const CapturedFd&) = delete;
    CapturedFd& operator=(const CapturedFd&) = delete;

    // Stops capturing (once) and returns everything written meanwhile.
    std::string text();

  private:
    void restore();
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
