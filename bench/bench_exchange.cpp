// One Sony exchange (zqhandler_cmd_misc) on loopback UDP against the in-process emulator, beside
// a raw ping-pong of the same datagrams with the same responder. The two alternate within one
// loop, so both see the same machine; the ratios are what the library's exchange adds.
#include "percentiles.h"
#include <devsim/devsim.h>

#include <arpa/inet.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <zqhandler/zqhandler.h>
#include <zqhandler/zqhandler_louth.h>
#include <zqhandler/zqhandler_sony.h>

namespace {

const uint8_t kGpiCommand[] = {0x43, 0xBF, 0xF0, 0x04, 0x0C};
// What the exchange sends for kGpiCommand: ComHdr (type 1, size 6) and the frame.
const uint8_t kGpiDatagram[] = {0, 1, 0, 6, 0, 0, 0, 0, 0, 0, 0x43, 0xBF, 0xF0, 0x04, 0x0C, 0x02};

// The in-process emulator on loopback UDP and a handle connected to it.
struct Emulator {
    devsim::DevSim responder;
    const uint16_t port = responder.listen_udp("127.0.0.1", 0);
    t_zqhandler* const handle = zqhandler_create();

    Emulator() {
        responder.start();
        zqhandler_connect_eth(handle, "127.0.0.1", std::to_string(port).c_str());
        zqhandler_set_timeout(handle, 1000);
    }
    ~Emulator() { zqhandler_delete(handle); }
};

// The raw baseline: send the datagram, wait for the answer, read it.
bool rawRoundTrip(int fd, const sockaddr_in& to) {
    uint8_t answer[64];
    sendto(fd, kGpiDatagram, sizeof kGpiDatagram, 0, reinterpret_cast<const sockaddr*>(&to),
           sizeof to);
    pollfd ready{fd, POLLIN, 0};
    return poll(&ready, 1, 1000) == 1 && recv(fd, answer, sizeof answer, 0) == 13;
}

void BM_exchange_vs_raw_round_trip(benchmark::State& state) {
    Emulator emulator;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(emulator.port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int raw = socket(AF_INET, SOCK_DGRAM, 0);
    timeBesideBaseline(
        state, "raw", [&] { return rawRoundTrip(raw, to); }, "exchange",
        [&] { return zqhandler_cmd_misc(emulator.handle, kGpiCommand, sizeof kGpiCommand) == 0; });
    close(raw);
}
BENCHMARK(BM_exchange_vs_raw_round_trip)->Iterations(20000)->UseRealTime();

// The status sense through the basic sense table beside the same frame through
// zqhandler_cmd_sense_misc, alternating on one handle and one responder: the same datagram out
// (61 20 0A) and the same answer back (7A 20 and ten status bytes), so the ratio is what the
// table, its answer check and the copy cost.
void BM_sense_basic_vs_misc(benchmark::State& state) {
    Emulator emulator;
    const uint8_t status_sense[] = {0x61, 0x20, 0x0A};
    uint8_t answer[S9P_MAX_FRAME], status[ZQ_SENSE_BYTES];
    timeBesideBaseline(
        state, "misc",
        [&] { return zqhandler_cmd_sense_misc(emulator.handle, status_sense, 3, answer) == 13; },
        "basic", [&] { return zqhandler_cmd_sense_status(emulator.handle, status) == 10; });
}
BENCHMARK(BM_sense_basic_vs_misc)->Iterations(20000)->UseRealTime();

// A Louth exchange (play, acknowledged) beside the Sony one, alternating on one handle with the
// same responder: one emulator link answers both, telling them apart by the datagram's type. Each
// goes first in every other round, so neither always follows the other.
void BM_louth_vs_sony_exchange(benchmark::State& state) {
    Emulator emulator;
    timeBesideBaseline(
        state, "sony",
        [&] { return zqhandler_cmd_misc(emulator.handle, kGpiCommand, sizeof kGpiCommand) == 0; },
        "louth", [&] { return zqhandler_cmd_louth_basic(emulator.handle, BAS_CMD_PLAY, 0) == 0; },
        true);
}
BENCHMARK(BM_louth_vs_sony_exchange)->Iterations(20000)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
