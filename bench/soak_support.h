// What the long runs share besides their figures (soak_figures.h): network namespaces, processes
// started and stopped by their own id, threads that run a part of a run until told to stop, a
// directory of the run's own, and readiness waits on a socket, a port or a file.
//
// Contract:
// - Namespaces need root (CAP_SYS_ADMIN). A namespace made here has its loopback up and gives
//   senders that bind no port one above 43000, so that the system's fixed ports (32896,
//   42000-42002) are never taken by a sender of the run.
// - A Process is known by its id only: it is signalled by that id, waited for through a pidfd of
//   it and reaped by its owner; nothing looks a process up by name. Its destructor kills
//   (SIGKILL) and reaps it if it still runs. A started process also gets `deathSignal` when the
//   thread that started it ends (PR_SET_PDEATHSIG): a run killed on its time-out leaves nothing.
// - Time-outs are in milliseconds: 0 looks once without waiting, a negative one waits without
//   limit. Waits survive EINTR.
// - Nothing here prints but runInFreshNamespace, which says in one line why a run did not start:
//   failures come back as text ("" when all went well) or as false.
#pragma once

#include <atomic>
#include <csignal>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace soak {

// ---- Network namespaces.

// Moves the calling thread into a new network namespace, set up as above; "" or what failed.
// Threads it starts later are in that namespace too; threads already running are not.
std::string enterFreshNetworkNamespace();

// A network namespace of its own, alive as long as this object holds a descriptor of it; the
// calling thread stays where it is. Processes start in it through Launch::netns.
class NetNamespace {
  public:
    NetNamespace();
    ~NetNamespace();
    NetNamespace(const NetNamespace&) = delete;
    NetNamespace& operator=(const NetNamespace&) = delete;
    const std::string& error() const { return error_; } // "" when the namespace is up
    int fd() const { return fd_; }                      // -1 when it is not
    // Runs `f` with the calling thread inside the namespace (a socket made there stays there),
    // then moves it back; false when it could not enter.
    bool inside(const std::function<void()>& f) const;

  private:
    int fd_ = -1;
    std::string error_;
};

// ---- Processes.

// A program to run: everything it needs is prepared before the fork, so that a process with
// threads may start one.
struct Launch {
    std::vector<std::string> argv;        // argv[0] is looked for in PATH
    std::vector<std::string> environment; // "NAME=value", replacing NAME in this one's environment
    std::string outputFile, errorFile;    // standard output and error ("": this process's own);
                                          // created or emptied, mode 0600
    int netns = -1;                       // NetNamespace::fd() to run in; -1: the caller's
    int deathSignal = SIGKILL;
};

class Process {
  public:
    // Runs `launch`; a program that cannot be executed ends with status 127.
    explicit Process(const Launch& launch);
    // Runs `body` in a copy of this process, which ends with what `body` returns. The copy has
    // only the calling thread: start it before any other thread that holds a lock it needs.
    explicit Process(const std::function<int()>& body, int deathSignal = SIGTERM);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }                  // -1 when it could not start
    const std::string& error() const { return error_; } // "" when it started
    // Waits up to `timeoutMs` for the process to end: its wait status, or -1 while it runs.
    int waitExit(int timeoutMs);
    bool running() { return waitExit(0) == -1; }
    // Sends `signal` to the process, waits up to `timeoutMs` for it to end, then kills it
    // (SIGKILL): its wait status.
    int stop(int signal = SIGTERM, int timeoutMs = 10000);
    // What it wrote to Launch::outputFile or errorFile, read now ("" for an inherited one).
    std::string output() const;
    std::string errors() const;

  private:
    void started(pid_t pid);
    pid_t pid_ = -1;
    int pidFd_ = -1;
    int status_ = -1;
    std::string files_[2];
    std::string error_;
};

// ---- Threads.

// A part of a run on a thread of its own: started with its loop, which ends once stopping() says
// so; stop() tells it and joins it, as the destructor does at the latest.
class RunThread {
  public:
    RunThread() = default;
    ~RunThread() { stop(); }
    RunThread(const RunThread&) = delete;
    RunThread& operator=(const RunThread&) = delete;
    template <typename F> void start(F&& loop) { thread_ = std::thread(std::forward<F>(loop)); }
    void stop() {
        stopping_ = true;
        if (thread_.joinable())
            thread_.join();
    }
    bool stopping() const { return stopping_; }

  private:
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// ---- Files.

// A directory of the run's own, "/tmp/PREFIX-XXXXXX", removed with the files in it at the end.
class TempDir {
  public:
    explicit TempDir(const std::string& prefix);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; } // "" when it could not be made
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// ---- Readiness.

// Calls `ready` every `stepMs` until it gives true (true) or `timeoutMs` have passed (false).
bool waitUntil(const std::function<bool()>& ready, int timeoutMs, int stepMs = 10);
// `fd` has something to read (a datagram, a connection, a message of a process, its end).
bool waitReadable(int fd, int timeoutMs);
// Something is at `path` (a file, or a Unix socket a server has bound).
bool waitForPath(const std::string& path, int timeoutMs);
// A TCP connection to `address`:`port` (dotted IPv4) is accepted, in the caller's namespace.
bool waitForTcpPort(uint16_t port, int timeoutMs, const char* address = "127.0.0.1");

// ---- A whole run.

// Runs `run` with the calling thread in a fresh network namespace, a directory of its own (a
// TempDir of `prefix`) and SIGPIPE ignored, and gives what it returns. Without root: 77 (skipped);
// when the directory or the namespace cannot be made: 1; each with one line on standard error
// that starts with `program`.
int runInFreshNamespace(const char* program, const std::string& prefix,
                        const std::function<int(const TempDir&)>& run);

} // namespace soak
