// Timecode conversions per second over a whole day of 29.97 drop-frame, beside snprintf.
#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <vector>
#include <zqhandler/tc.h>

namespace {

constexpr int32_t kRate = 30; // 29.97 frames per second is counted at 30 with drop-frame
constexpr int32_t kDrop = 1;
constexpr uint32_t kFramesPerDay = 24 * 107892;

using Label = std::array<char, 12>;

// Each iteration converts every frame count of the day to its label.
void BM_frames2tcstr_day(benchmark::State& state) {
    Label out{};
    for (auto _ : state) {
        for (uint32_t n = 0; n < kFramesPerDay; ++n) {
            tc_frames2tcstr(n, kRate, kDrop, out.data());
            benchmark::DoNotOptimize(out);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kFramesPerDay);
}

// Each iteration converts every label of the day (made before timing) back to its count.
void BM_tcstr2frames_day(benchmark::State& state) {
    std::vector<Label> labels(kFramesPerDay);
    for (uint32_t n = 0; n < kFramesPerDay; ++n)
        tc_frames2tcstr(n, kRate, kDrop, labels[n].data());
    for (auto _ : state) {
        for (const Label& label : labels)
            benchmark::DoNotOptimize(tc_tcstr2frames(label.data(), kRate, kDrop));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kFramesPerDay);
}

// The baseline: the same number of labels printed by snprintf from four two-digit numbers.
void BM_snprintf_four_numbers_day(benchmark::State& state) {
    char out[32]; // room for any int, so the compiler sees no truncation
    for (auto _ : state) {
        for (uint32_t n = 0; n < kFramesPerDay; ++n) {
            std::snprintf(out, sizeof out, "%02d:%02d:%02d:%02d", static_cast<int>(n % 24),
                          static_cast<int>(n % 60), static_cast<int>(n / 60 % 60),
                          static_cast<int>(n % 30));
            benchmark::DoNotOptimize(out);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kFramesPerDay);
}

} // namespace

BENCHMARK(BM_snprintf_four_numbers_day)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_frames2tcstr_day)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_tcstr2frames_day)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
