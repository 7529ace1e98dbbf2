// Percentiles of a run's samples, reported as Google Benchmark counters, and a path timed beside
// its raw baseline in the same loop.
#pragma once

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <string>
#include <vector>

// The sample at or below which `fraction` of the samples lie (nearest rank).
inline double percentile(std::vector<double> samples, double fraction) {
    if (samples.empty())
        return 0;
    std::sort(samples.begin(), samples.end());
    size_t rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(samples.size())));
    return samples[std::max<size_t>(rank, 1) - 1];
}

// Sets <name>_p50, <name>_p99 and <name>_max.
inline void reportPercentiles(benchmark::State& state, const std::string& name,
                              const std::vector<double>& samples) {
    state.counters[name + "_p50"] = percentile(samples, 0.50);
    state.counters[name + "_p99"] = percentile(samples, 0.99);
    state.counters[name + "_max"] = percentile(samples, 1.0);
}

// A path beside its baseline, one round trip of each in every iteration of `state`, so that both
// see the same machine: <baseName>_us and <name>_us percentiles, and ratio_p50 and ratio_p99 of
// the path over the baseline. Each callable gives false when its round trip failed; the run is
// then marked "<its name> failed". With `alternate` the two take turns at going first, so that
// neither always follows the other.
template <typename Base, typename Path>
void timeBesideBaseline(benchmark::State& state, const std::string& baseName, Base&& base,
                        const std::string& name, Path&& path, bool alternate = false) {
    const std::string baseFailed = baseName + " failed", pathFailed = name + " failed";
    std::vector<double> baseUs, pathUs;
    auto timed = [&](auto& roundTrip, std::vector<double>& samples, const std::string& failed) {
        const auto start = std::chrono::steady_clock::now();
        if (!roundTrip())
            state.SkipWithError(failed.c_str());
        const auto took = std::chrono::steady_clock::now() - start;
        samples.push_back(std::chrono::duration<double, std::micro>(took).count());
    };
    bool baseFirst = true;
    for (auto _ : state) {
        if (baseFirst) {
            timed(base, baseUs, baseFailed);
            timed(path, pathUs, pathFailed);
        } else {
            timed(path, pathUs, pathFailed);
            timed(base, baseUs, baseFailed);
        }
        baseFirst = !alternate || !baseFirst;
    }
    reportPercentiles(state, baseName + "_us", baseUs);
    reportPercentiles(state, name + "_us", pathUs);
    state.counters["ratio_p50"] = percentile(pathUs, 0.5) / percentile(baseUs, 0.5);
    state.counters["ratio_p99"] = percentile(pathUs, 0.99) / percentile(baseUs, 0.99);
}
