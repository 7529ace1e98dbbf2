// One SPI register read through the tlapi sim (a socket of its own for each transfer) against the
// in-process board emulator, beside a raw round trip of the same 3 bytes to the same board on one
// socket kept open. The two alternate within one loop; the ratio is what the sim's transfer adds,
// its fresh socket included.
#include "percentiles.h"
#include "tlapi.h"
#include <sdiboard/sdiboard.h>

#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

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

    timeBesideBaseline(
        state, "raw", [&] { return rawRoundTrip(raw, address); }, "spi",
        [] {
            unsigned char frame[3] = {0x42, sdiboard::kGpoRegister, 0x00};
            return SPIRead(0, frame, 3) == 0 && frame[2] == 0x5A;
        });
    close(raw);
}
BENCHMARK(BM_spi_read_vs_raw_round_trip)->Iterations(20000)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
