// Percentiles of a run's samples, reported as Google Benchmark counters.
#pragma once

#include <algorithm>
#include <benchmark/benchmark.h>
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
