// The daemon's spine: options, start-up in its fixed order, and the endless loop.
#include "vlmgpiod.h"

#include "bridge.h"
#include "daemonize.h"
#include "events.h"
#include "output.h"
#include "socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <optional>
#include <sys/select.h>
#include <unistd.h>

namespace {

[[noreturn]] void usage() {
    printf("USAGE: vlmgpiod.out [OPTIONS]\n"
           "       -v: verbose output\n"
           "       -d: daemonize the application\n"
           "       -m: multicast GPO events over network (through multicast address %s)\n",
           MCAST_ADDR);
    exit(0);
}

void setIntOption(int fd, int name, int value) {
    socketSetSockOpt(fd, IPPROTO_IP, name, &value, sizeof value);
}

// Standard output and standard error become the log file: closing 1 and 2 makes the two opens
// take exactly those descriptors. Nothing can be reported if the opens fail.
void redirectOutputToLog() {
    close(1);
    close(2);
    (void)open(LOG_FILENAME, O_WRONLY | O_APPEND | O_CREAT, 0600);
    (void)open(LOG_FILENAME, O_WRONLY | O_APPEND | O_CREAT, 0600);
}

// One datagram from a socket select reported readable; only a full 8 bytes makes an event. A
// longer datagram gives its first 8 bytes, the socket drops the rest.
std::optional<Gpio> receiveGpio(int fd) {
    GpioDatagram datagram;
    sockaddr_in from{};
    socklen_t fromLength = sizeof from;
    ssize_t got = socketRecvFrom(fd, datagram.data(), datagram.size(), 0,
                                 reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (got != static_cast<ssize_t>(datagram.size()))
        return std::nullopt;
    return gpioDecode(datagram);
}

// Waits up to SELECT_TIMEOUT for either socket; a failure other than a signal is fatal.
fd_set waitForDatagrams(const Application* app) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(app->s_lgpo, &readable);
    FD_SET(app->s_igpi, &readable);
    timeval timeout{0, SELECT_TIMEOUT};
    while (select(app->maxfd, &readable, nullptr, nullptr, &timeout) < 0) {
        if (errno != EINTR) {
            int error = errno;
            perror("select");
            exit(error);
        }
    }
    return readable;
}

} // namespace

void init(Application* app, int argc, char** argv) {
    memset(app, 0, sizeof *app);
    outputSetVerbosity(VerbosityLevel1);
    for (int option; (option = getopt(argc, argv, "dmv")) != -1;) {
        switch (option) {
        case 'd':
            app->daemonize = 1;
            break;
        case 'm':
            app->mcastGpo = 1;
            break;
        case 'v':
            outputSetVerbosity(VerbosityLevel0);
            break;
        default:
            usage();
        }
    }
}

void startup(Application* app) {
    socketInit();
    app->s_lgpi = socketSocket(AF_INET, SOCK_DGRAM, 0);
    app->s_lgpo = socketSocket(AF_INET, SOCK_DGRAM, 0);
    app->s_igpi = socketSocket(AF_INET, SOCK_DGRAM, 0);
    app->maxfd = app->s_igpi + 1;
    if (app->maxfd > FD_SETSIZE) { // select could not watch it
        errno = EMFILE;
        perror("socket");
        exit(EMFILE);
    }

    sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(LOOP_GPO_PORT);
    socketBind(app->s_lgpo, reinterpret_cast<sockaddr*>(&address), sizeof address);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(INET_GPI_PORT);
    socketBind(app->s_igpi, reinterpret_cast<sockaddr*>(&address), sizeof address);

    // Our own GPO events must not come back to this host as network GPI events.
    setIntOption(app->s_igpi, IP_MULTICAST_LOOP, 0);
    setIntOption(app->s_igpi, IP_MULTICAST_TTL, 32);
    // The system reads the any address as no particular interface: the routes choose.
    socketSetSockOpt(app->s_igpi, IPPROTO_IP, IP_MULTICAST_IF, &address, sizeof address);

    openCtrldHandle(app);

    detectBoard(app);

    if (app->daemonize) {
        (void)daemonize(0, 0); // on failure, whichever process survived runs on
        redirectOutputToLog();
    }
}

void run(Application* app) {
    for (;;) {
        fd_set readable = waitForDatagrams(app);
        if (app->haveSdi)
            pollGpi(app);
        if (FD_ISSET(app->s_lgpo, &readable)) {
            if (auto request = receiveGpio(app->s_lgpo))
                handleGpoRequest(app, *request);
        }
        if (FD_ISSET(app->s_igpi, &readable)) {
            if (auto event = receiveGpio(app->s_igpi))
                sendGPI(app, *event);
        }
    }
}
