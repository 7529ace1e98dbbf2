// One Sony exchange on loopback UDP against the emulator, beside a raw datagram round trip to
// the same emulator: the ratio is what the library's exchange adds.
#include "devsim.h"

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <zqhandler/zqhandler.h>

namespace {

const uint8_t kGpiCommand[] = {0x43, 0xBF, 0xF0, 0x04, 0x0C};

void BM_raw_datagram_round_trip(benchmark::State& state) {
    devsim::DevSim sim;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(sim.listen_udp("127.0.0.1", 0));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sim.start();
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const uint8_t datagram[] = {0, 1, 0, 6, 0, 0, 0, 0, 0, 0, 0x43, 0xBF, 0xF0, 0x04, 0x0C, 0x02};
    uint8_t answer[64];
    for (auto _ : state) {
        sendto(fd, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        pollfd p{fd, POLLIN, 0};
        poll(&p, 1, 1000);
        benchmark::DoNotOptimize(recv(fd, answer, sizeof answer, 0));
    }
    close(fd);
}
BENCHMARK(BM_raw_datagram_round_trip)->UseRealTime();

void BM_cmd_misc_exchange(benchmark::State& state) {
    devsim::DevSim sim;
    std::string port = std::to_string(sim.listen_udp("127.0.0.1", 0));
    sim.start();
    t_zqhandler* h = zqhandler_create();
    zqhandler_connect_eth(h, "127.0.0.1", port.c_str());
    zqhandler_set_timeout(h, 1000);
    for (auto _ : state) {
        if (zqhandler_cmd_misc(h, kGpiCommand, 5) != 0)
            state.SkipWithError("exchange failed");
    }
    zqhandler_delete(h);
}
BENCHMARK(BM_cmd_misc_exchange)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
