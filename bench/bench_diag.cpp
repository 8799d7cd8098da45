// The library's diagnostics: what a probe point costs switched off and on,
// against the same loop without one; and a line into the flight recorder
// against snprintf into a private buffer (the floor of composing a line).
#include <benchmark/benchmark.h>

#include <unistd.h>
#include <cstdio>
#include <string>

#include "lard.h"
#include "log.h"
#include "psensor.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

// The work measured: a few additions the compiler can't drop.
inline uint64_t work(uint64_t x)
{
    benchmark::DoNotOptimize(x += 0x9E3779B97F4A7C15ULL);
    return x;
}

void BM_LoopWithoutProbe(benchmark::State& state)
{
    uint64_t x = 0;
    for (auto _ : state)
        x = work(x);
    benchmark::DoNotOptimize(x);
}
BENCHMARK(BM_LoopWithoutProbe);

void BM_LoopWithDisabledProbe(benchmark::State& state)
{
    psensors_init(nullptr, 0);
    uint64_t x = 0;
    for (auto _ : state) {
        psensor_begin(PRF_DATAIN);
        x = work(x);
        psensor_end(PRF_DATAIN);
    }
    benchmark::DoNotOptimize(x);
}
BENCHMARK(BM_LoopWithDisabledProbe);

// A DEBUG line below the level, with no flight recorder: the level test
// alone, before any argument is evaluated or anything is composed.
void BM_LoopWithFilteredLine(benchmark::State& state)
{
    glog_init("bench");
    log_default(&g_log, stderr);
    g_mod_ll[LLMOD_DEFAULT] = INFO_level;
    uint64_t x = 0;
    for (auto _ : state) {
        x = work(x);
        LOG_AT(DEBUG_level, "%s: x=%lu\n", "bench", (unsigned long)x);
    }
    benchmark::DoNotOptimize(x);
}
BENCHMARK(BM_LoopWithFilteredLine);

void BM_LoopWithEnabledProbe(benchmark::State& state)
{
    psensors_init(nullptr, 1);
    uint64_t x = 0;
    for (auto _ : state) {
        psensor_begin(PRF_DATAIN);
        x = work(x);
        psensor_end(PRF_DATAIN);
    }
    benchmark::DoNotOptimize(x);
    psensors_destroy();
    psensors_init(nullptr, 0);
}
BENCHMARK(BM_LoopWithEnabledProbe);

// A log line as the logger composes it: prefix and a short message.
constexpr const char* kLine =
    "2026-11-15 01:02:03.000456 UTC 1234  (DBG)  KSTI  mmr_cap: evicted 7 packets, 1316 bytes\n";

void BM_SnprintfPrivateBuffer(benchmark::State& state)
{
    char buf[2048];
    for (auto _ : state) {
        // Through an opaque pointer, as lard_puts gets it: the compiler may
        // not turn the call into a copy of a known string.
        const char* line = kLine;
        benchmark::DoNotOptimize(line);
        const int n = snprintf(buf, sizeof(buf), "%s", line);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_SnprintfPrivateBuffer);

void BM_LardPuts(benchmark::State& state)
{
    const std::string name = "kst_bench_lard." + std::to_string(getpid());
    lard_t lh = lard_create(name.c_str(), (size_t)state.range(0));
    if (lh == nullptr) {
        state.SkipWithError("lard_create failed");
        return;
    }
    for (auto _ : state) {
        const int n = lard_puts(lh, kLine);
        benchmark::DoNotOptimize(n);
    }
    lard_destroy(lh);
}
BENCHMARK(BM_LardPuts)->Arg(1)->Arg(64);

}  // namespace
