// One SPI register read through the tlapi sim (a socket of its own for each transfer) against the
// in-process board emulator, beside a raw round trip of the same 3 bytes to the same board on one
// socket kept open. The two alternate within one loop; the ratio is what the sim's transfer adds,
// its fresh socket included.
#include "percentiles.h"
#include "tlapi.h"
#include <sdiboard/sdiboard.h>

#include <chrono>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

double microseconds(Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}

// The raw baseline: one autobound socket for the whole run, 3 bytes out, 3 bytes back.
bool rawRoundTrip(int fd, const sockaddr_un& board) {
    const unsigned char frame[3] = {0x42, sdiboard::kGpoRegister, 0x00};
    unsigned char answer[4];
    sendto(fd, frame, sizeof frame, 0, reinterpret_cast<const sockaddr*>(&board), sizeof board);
    pollfd ready{fd, POLLIN, 0};
    return poll(&ready, 1, 1000) == 1 && recv(fd, answer, sizeof answer, 0) == 3;
}

void BM_spi_read_vs_raw_round_trip(benchmark::State& state) {
    const std::string path = "/tmp/vlm-bench-spi-" + std::to_string(getpid()) + ".sock";
    setenv("TLAPI_SIM_SOCKET", path.c_str(), 1);
    sdiboard::Board board(path, sdiboard::Fault::None, 0);
    board.setRegister(sdiboard::kGpoRegister, 0x5A);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path.c_str());
    int raw = socket(AF_UNIX, SOCK_DGRAM, 0);
    bind(raw, reinterpret_cast<sockaddr*>(&address), sizeof address.sun_family); // autobind
    SPIInit();

    std::vector<double> rawUs, spiUs;
    for (auto _ : state) {
        auto start = Clock::now();
        if (!rawRoundTrip(raw, address))
            state.SkipWithError("raw round trip failed");
        auto middle = Clock::now();
        unsigned char frame[3] = {0x42, sdiboard::kGpoRegister, 0x00};
        if (SPIRead(0, frame, 3) != 0 || frame[2] != 0x5A)
            state.SkipWithError("SPI read failed");
        auto end = Clock::now();
        rawUs.push_back(microseconds(middle - start));
        spiUs.push_back(microseconds(end - middle));
    }
    reportPercentiles(state, "raw_us", rawUs);
    reportPercentiles(state, "spi_us", spiUs);
    state.counters["ratio_p50"] = percentile(spiUs, 0.5) / percentile(rawUs, 0.5);
    state.counters["ratio_p99"] = percentile(spiUs, 0.99) / percentile(rawUs, 0.99);
    close(raw);
}
BENCHMARK(BM_spi_read_vs_raw_round_trip)->Iterations(20000)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
