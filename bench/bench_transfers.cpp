// A 1 MB GOP download ("cggp", "data") and a 1 MB GOP upload ("pgop", the bytes) through the
// library against the in-process emulator on loopback TCP, beside a raw client that speaks the
// same requests with plain blocking send and recv to an emulator of its own holding the same GOP.
// The two alternate within one loop, so both see the same machine; the ratios are the library's
// throughput against the raw one.
#include "percentiles.h"
#include <devsim/devsim.h>

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <zqhandler/zqhandler_cnxn.h>

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kGop = 1 << 20;

double mb_per_s(Clock::duration d) {
    return double(kGop) / 1e6 / std::chrono::duration<double>(d).count();
}

// An emulator holding the GOP, listening on loopback TCP.
struct Server {
    devsim::DevSim sim;
    uint16_t port;
    explicit Server(const devsim::Bytes& gop) : port(sim.listen_tcp("127.0.0.1", 0)) {
        sim.transfers().set_gop(gop);
        sim.start();
    }
};

// The raw client: blocking send and recv of the same requests, no waits, no keep-alive.
class RawClient {
  public:
    explicit RawClient(uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        int on = 1; // as the library's stream: small requests go at once
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    ~RawClient() { close(fd_); }
    bool download(uint8_t* buffer) {
        uint8_t header[12];
        return request("cggp", 0, 0) && receive(header, 12) && request("data", 0, 0) &&
               receive(buffer, kGop);
    }
    bool upload(const uint8_t* bytes) {
        uint8_t header[12];
        return request("pgop", 0, kGop) && receive(header, 12) && memcmp(header, "pgac", 4) == 0 &&
               send_all(bytes, kGop);
    }

  private:
    bool request(const char* tag, uint32_t arg1, uint32_t arg2) {
        uint8_t h[12];
        memcpy(h, tag, 4);
        uint32_t be[2] = {htonl(arg1), htonl(arg2)};
        memcpy(h + 4, be, 8);
        return send_all(h, 12);
    }
    bool send_all(const uint8_t* bytes, size_t count) {
        for (size_t sent = 0; sent < count;) {
            ssize_t n = send(fd_, bytes + sent, count - sent, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            sent += size_t(n);
        }
        return true;
    }
    bool receive(uint8_t* buffer, size_t count) {
        for (size_t got = 0; got < count;) {
            ssize_t n = recv(fd_, buffer + got, count - got, 0);
            if (n <= 0)
                return false;
            got += size_t(n);
        }
        return true;
    }
    int fd_;
};

devsim::Bytes gop_bytes() {
    devsim::Bytes gop(kGop);
    for (size_t i = 0; i < kGop; ++i)
        gop[i] = uint8_t(i * 31 + 7);
    return gop;
}

t_zqhandler* connected(uint16_t port) {
    t_zqhandler* zqh = zqhandler_create();
    zqhandler_connect_tcp(zqh, "127.0.0.1", std::to_string(port).c_str());
    zqhandler_set_timeout(zqh, 1000);
    return zqh;
}

// Runs `raw` and `library` one after the other, the first one alternating, and notes each's
// throughput; false when either failed.
template <typename Raw, typename Library>
bool timed_pair(size_t round, Raw&& raw, Library&& library, std::vector<double>& raw_mbps,
                std::vector<double>& library_mbps) {
    auto timed = [](auto&& run, std::vector<double>& mbps) {
        auto start = Clock::now();
        bool ok = run();
        mbps.push_back(mb_per_s(Clock::now() - start));
        return ok;
    };
    if (round % 2)
        return timed(library, library_mbps) && timed(raw, raw_mbps);
    return timed(raw, raw_mbps) && timed(library, library_mbps);
}

void report(benchmark::State& state, const std::vector<double>& raw,
            const std::vector<double>& library) {
    reportPercentiles(state, "raw_MBps", raw);
    reportPercentiles(state, "library_MBps", library);
    state.counters["ratio_p50"] = percentile(library, 0.5) / percentile(raw, 0.5);
}

void BM_gop_download_vs_raw(benchmark::State& state) {
    const devsim::Bytes gop = gop_bytes();
    Server for_raw(gop), for_library(gop);
    RawClient raw(for_raw.port);
    t_zqhandler* zqh = connected(for_library.port);
    std::vector<uint8_t> buffer(kGop);
    std::vector<double> raw_mbps, library_mbps;
    size_t round = 0;
    for (auto _ : state) {
        int32_t size = 0;
        if (!timed_pair(
                round++, [&] { return raw.download(buffer.data()); },
                [&] {
                    return zqhandler_cnxn_get_gop(zqh, buffer.data(), &size, int32_t(kGop)) == 0 &&
                           size == int32_t(kGop);
                },
                raw_mbps, library_mbps))
            state.SkipWithError("download failed");
    }
    if (buffer != gop)
        state.SkipWithError("the GOP arrived altered");
    report(state, raw_mbps, library_mbps);
    zqhandler_delete(zqh);
}
BENCHMARK(BM_gop_download_vs_raw)->Iterations(400)->UseRealTime();

// An upload counts as done when the emulator has all its bytes.
void BM_gop_upload_vs_raw(benchmark::State& state) {
    const devsim::Bytes gop = gop_bytes();
    Server for_raw(gop), for_library(gop);
    RawClient raw(for_raw.port);
    t_zqhandler* zqh = connected(for_library.port);
    std::vector<double> raw_mbps, library_mbps;
    std::vector<double> call_ms; // until zqhandler_cnxn_put_gop returns: the bytes are handed over
    size_t uploads = 0;
    for (auto _ : state) {
        ++uploads;
        if (!timed_pair(
                uploads,
                [&] {
                    return raw.upload(gop.data()) &&
                           for_raw.sim.transfers().wait_uploads(uploads, 5000);
                },
                [&] {
                    auto start = Clock::now();
                    bool sent = zqhandler_cnxn_put_gop(zqh, 0, gop.data(), uint32_t(kGop)) == 0;
                    call_ms.push_back(
                        std::chrono::duration<double, std::milli>(Clock::now() - start).count());
                    return sent && for_library.sim.transfers().wait_uploads(uploads, 5000);
                },
                raw_mbps, library_mbps))
            state.SkipWithError("upload failed");
    }
    if (for_library.sim.transfers().uploaded() != gop)
        state.SkipWithError("the upload arrived altered");
    report(state, raw_mbps, library_mbps);
    reportPercentiles(state, "library_call_ms", call_ms);
    zqhandler_delete(zqh);
}
BENCHMARK(BM_gop_upload_vs_raw)->Iterations(400)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
