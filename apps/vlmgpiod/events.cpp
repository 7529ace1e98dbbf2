// GPI and GPO events: what the board and the datagrams say to each other.
#include "events.h"

#include "bridge.h"
#include "output.h"
#include "socket.h"
#include "tavsdi.h"

#include <arpa/inet.h>
#include <cstdio>
#include <netinet/in.h>

namespace {

constexpr int kAllLines = 255;
constexpr int kLineCount = 8;

enum GpiStatus { GPI_CLEAR = 0, GPI_SET = 1, GPI_CHANGED_BACK = 2 };

// The GPO register as this process last wrote it; the board's is never read back.
int _gpo_values = 0;

sockaddr_in ipv4Address(in_addr_t address, int port) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = address;
    return to;
}

void sendEvent(int fd, const sockaddr_in& to, const Gpio& gpio, const char* failure) {
    GpioDatagram datagram = gpioEncode(gpio);
    if (socketSendTo(fd, datagram.data(), datagram.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to) == -1)
        perror(failure);
}

int gpiStatus(int gpi, int previousGpi, int mask) {
    if ((gpi & mask) == (previousGpi & mask))
        return GPI_CHANGED_BACK;
    return (gpi & mask) != 0 ? GPI_SET : GPI_CLEAR;
}

} // namespace

void sendGPI(const Application* app, const Gpio& gpio) {
    const sockaddr_in to = ipv4Address(htonl(INADDR_LOOPBACK), LOOP_GPI_PORT);
    outputWrite(VerbosityLevel0, "DEBUG: Raise GPI (#%d, %d) to the network.\n", gpio.lines,
                gpio.status);
    sendEvent(app->s_lgpi, to, gpio, "WARNING: sendGPI() -> socketSendTo()");
}

void sendGPO(const Application* app, const Gpio& gpio) {
    const sockaddr_in to = ipv4Address(inet_addr(MCAST_ADDR), INET_GPI_PORT);
    outputWrite(VerbosityLevel0, "DEBUG: Raise GPO (#%d, %d) to the network.\n", gpio.lines,
                gpio.status);
    sendEvent(app->s_igpi, to, gpio, "WARNING: sendGPO() -> socketSendTo()");
}

void setSdiGPO(const Gpio& gpio) {
    if (gpio.lines == kAllLines) {
        _gpo_values = gpio.status & 0xFF;
    } else if (gpio.lines >= 0 && gpio.lines < kLineCount) {
        int bit = 1 << gpio.lines;
        _gpo_values = gpio.status != 0 ? (_gpo_values | bit) : (_gpo_values & ~bit);
    }
    Write_SDI_Board_Reg(TAVSDI_GPO_ADDR, static_cast<uint8_t>(_gpo_values));
    outputWrite(VerbosityLevel0, "DEBUG: setSdiGPO(): _gpo_values = 0x%02X.\n", _gpo_values);
}

void detectBoard(Application* app) {
    app->haveSdi = init_tavsdi() == 0;
    if (app->haveSdi)
        app->gpi = Read_SDI_Board_Reg(TAVSDI_GPI_ADDR);
}

void pollGpi(Application* app) {
    int gpit = Read_SDI_Board_Reg(TAVSDI_GPIT_ADDR);
    int gpi = Read_SDI_Board_Reg(TAVSDI_GPI_ADDR);
    if (gpit != 0) {
        sendS9P(app, gpit, gpi); // ctrld.out hears of it before the event datagrams go out
        for (int line = 0; line < kLineCount; ++line) {
            int mask = 1 << line;
            if (gpit & mask)
                sendGPI(app, {line, gpiStatus(gpi, app->gpi, mask)});
        }
    }
    app->gpi = gpi;
}

void handleGpoRequest(const Application* app, const Gpio& request) {
    if (app->haveSdi)
        setSdiGPO(request);
    if (app->mcastGpo)
        sendGPO(app, request);
}
