// One Sony exchange (zqhandler_cmd_misc) on loopback UDP against the in-process emulator, beside
// a raw ping-pong of the same datagrams with the same responder. The two alternate within one
// loop, so both see the same machine; the ratios are what the library's exchange adds.
#include "percentiles.h"
#include <devsim/devsim.h>

#include <arpa/inet.h>
#include <chrono>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <zqhandler/zqhandler.h>
#include <zqhandler/zqhandler_louth.h>
#include <zqhandler/zqhandler_sony.h>

namespace {

using Clock = std::chrono::steady_clock;

const uint8_t kGpiCommand[] = {0x43, 0xBF, 0xF0, 0x04, 0x0C};
// What the exchange sends for kGpiCommand: ComHdr (type 1, size 6) and the frame.
const uint8_t kGpiDatagram[] = {0, 1, 0, 6, 0, 0, 0, 0, 0, 0, 0x43, 0xBF, 0xF0, 0x04, 0x0C, 0x02};

double microseconds(Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}

// The raw baseline: send the datagram, wait for the answer, read it.
bool rawRoundTrip(int fd, const sockaddr_in& to) {
    uint8_t answer[64];
    sendto(fd, kGpiDatagram, sizeof kGpiDatagram, 0, reinterpret_cast<const sockaddr*>(&to),
           sizeof to);
    pollfd ready{fd, POLLIN, 0};
    return poll(&ready, 1, 1000) == 1 && recv(fd, answer, sizeof answer, 0) == 13;
}

void BM_exchange_vs_raw_round_trip(benchmark::State& state) {
    devsim::DevSim responder;
    uint16_t port = responder.listen_udp("127.0.0.1", 0);
    responder.start();
    const sockaddr_in to = [&] {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }();
    int raw = socket(AF_INET, SOCK_DGRAM, 0);
    t_zqhandler* handle = zqhandler_create();
    zqhandler_connect_eth(handle, "127.0.0.1", std::to_string(port).c_str());
    zqhandler_set_timeout(handle, 1000);

    std::vector<double> rawUs, exchangeUs;
    for (auto _ : state) {
        auto start = Clock::now();
        if (!rawRoundTrip(raw, to))
            state.SkipWithError("raw round trip failed");
        auto middle = Clock::now();
        if (zqhandler_cmd_misc(handle, kGpiCommand, sizeof kGpiCommand) != 0)
            state.SkipWithError("exchange failed");
        auto end = Clock::now();
        rawUs.push_back(microseconds(middle - start));
        exchangeUs.push_back(microseconds(end - middle));
    }
    reportPercentiles(state, "raw_us", rawUs);
    reportPercentiles(state, "exchange_us", exchangeUs);
    state.counters["ratio_p50"] = percentile(exchangeUs, 0.5) / percentile(rawUs, 0.5);
    state.counters["ratio_p99"] = percentile(exchangeUs, 0.99) / percentile(rawUs, 0.99);
    zqhandler_delete(handle);
    close(raw);
}
BENCHMARK(BM_exchange_vs_raw_round_trip)->Iterations(20000)->UseRealTime();

// The status sense through the basic sense table beside the same frame through
// zqhandler_cmd_sense_misc, alternating on one handle and one responder: the same datagram out
// (61 20 0A) and the same answer back (7A 20 and ten status bytes), so the ratio is what the
// table, its answer check and the copy cost.
void BM_sense_basic_vs_misc(benchmark::State& state) {
    devsim::DevSim responder;
    uint16_t port = responder.listen_udp("127.0.0.1", 0);
    responder.start();
    t_zqhandler* handle = zqhandler_create();
    zqhandler_connect_eth(handle, "127.0.0.1", std::to_string(port).c_str());
    zqhandler_set_timeout(handle, 1000);
    const uint8_t status_sense[] = {0x61, 0x20, 0x0A};
    uint8_t answer[S9P_MAX_FRAME], status[ZQ_SENSE_BYTES];

    std::vector<double> miscUs, basicUs;
    for (auto _ : state) {
        auto start = Clock::now();
        if (zqhandler_cmd_sense_misc(handle, status_sense, 3, answer) != 13)
            state.SkipWithError("misc sense failed");
        auto middle = Clock::now();
        if (zqhandler_cmd_sense_status(handle, status) != 10)
            state.SkipWithError("basic sense failed");
        auto end = Clock::now();
        miscUs.push_back(microseconds(middle - start));
        basicUs.push_back(microseconds(end - middle));
    }
    reportPercentiles(state, "misc_us", miscUs);
    reportPercentiles(state, "basic_us", basicUs);
    state.counters["ratio_p50"] = percentile(basicUs, 0.5) / percentile(miscUs, 0.5);
    state.counters["ratio_p99"] = percentile(basicUs, 0.99) / percentile(miscUs, 0.99);
    zqhandler_delete(handle);
}
BENCHMARK(BM_sense_basic_vs_misc)->Iterations(20000)->UseRealTime();

// A Louth exchange (play, acknowledged) beside the Sony one, alternating on one handle with the
// same responder: one emulator link answers both, telling them apart by the datagram's type.
void BM_louth_vs_sony_exchange(benchmark::State& state) {
    devsim::DevSim responder;
    uint16_t port = responder.listen_udp("127.0.0.1", 0);
    responder.start();
    t_zqhandler* handle = zqhandler_create();
    zqhandler_connect_eth(handle, "127.0.0.1", std::to_string(port).c_str());
    zqhandler_set_timeout(handle, 1000);

    // Each goes first in every other round, so neither always follows the other.
    std::vector<double> sonyUs, louthUs;
    auto timed = [&](auto exchange, std::vector<double>& samples) {
        auto start = Clock::now();
        if (exchange() != 0)
            state.SkipWithError("exchange failed");
        samples.push_back(microseconds(Clock::now() - start));
    };
    auto sony = [&] { return zqhandler_cmd_misc(handle, kGpiCommand, sizeof kGpiCommand); };
    auto louth = [&] { return zqhandler_cmd_louth_basic(handle, BAS_CMD_PLAY, 0); };
    bool sony_first = true;
    for (auto _ : state) {
        if (sony_first) {
            timed(sony, sonyUs);
            timed(louth, louthUs);
        } else {
            timed(louth, louthUs);
            timed(sony, sonyUs);
        }
        sony_first = !sony_first;
    }
    reportPercentiles(state, "sony_us", sonyUs);
    reportPercentiles(state, "louth_us", louthUs);
    state.counters["ratio_p50"] = percentile(louthUs, 0.5) / percentile(sonyUs, 0.5);
    state.counters["ratio_p99"] = percentile(louthUs, 0.99) / percentile(sonyUs, 0.99);
    zqhandler_delete(handle);
}
BENCHMARK(BM_louth_vs_sony_exchange)->Iterations(20000)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
