// The analyzer's cost per packet on a real stream, against a plain scan that
// reads only each packet's header: the tracker alone, and the whole analysis
// pass as the capture loop runs it after each read.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "analysis.h"
#include "kst.h"
#include "log.h"
#include "tsanalyze.h"

namespace {

constexpr size_t kPkt = 188;

// Ten seconds of ffmpeg's test picture and tone, 640x360 MPEG-2 video and
// MP2 audio, or the file named by KST_BENCH_TS.
const std::vector<uint8_t>& stream()
{
    static std::vector<uint8_t> data;
    if (!data.empty())
        return data;
    std::string path = getenv("KST_BENCH_TS") ? getenv("KST_BENCH_TS") : "";
    if (path.empty()) {
        path = "/tmp/kst-bench-tsan.ts";
        const std::string cmd = "ffmpeg -hide_banner -loglevel error -y -f lavfi -i testsrc=size=640x360:rate=25 "
                                "-f lavfi -i sine=frequency=1000:sample_rate=48000 -t 10 -c:v mpeg2video "
                                "-b:v 4M -c:a mp2 -f mpegts " + path;
        if (system(cmd.c_str()) != 0)
            return data;
    }
    FILE* fp = fopen(path.c_str(), "rb");
    if (fp == nullptr)
        return data;
    uint8_t buf[1 << 16];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), fp)) > 0)
        data.insert(data.end(), buf, buf + n);
    fclose(fp);
    data.resize(data.size() - data.size() % kPkt);
    return data;
}

tsan_config bench_config()
{
    tsan_config cfg{};
    cfg.is_enabled = true;
    snprintf(cfg.source, sizeof(cfg.source), "bench");
    cfg.max_skip_pkts = D_MAX_NO_ANALYZE;
    cfg.max_pdts_delta = D_MAX_DELTA_MS;
    cfg.max_pcr_delta = 1000;
    cfg.pcr_freq_ms = 100;
    return cfg;
}

// Seconds per packet, printed with its SI prefix ("4.2n" is 4.2 ns).
void per_packet_counter(benchmark::State& state, double npkts)
{
    state.counters["per_pkt"] = benchmark::Counter(npkts, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Only errors: a stream played over and over steps its PCR back once a pass.
void quiet_log()
{
    for (int i = 0; i < LL_MAX_MODULES; ++i)
        g_mod_ll[i] = ERR_level;
}

// The floor: each packet's sync byte, PID and flags, and nothing else.
void BM_HeaderScan(benchmark::State& state)
{
    const std::vector<uint8_t>& data = stream();
    if (data.empty()) {
        state.SkipWithError("no stream (ffmpeg missing?)");
        return;
    }
    const size_t npkts = data.size() / kPkt;
    for (auto _ : state) {
        uint64_t sum = 0;
        for (size_t i = 0; i < data.size(); i += kPkt) {
            const uint8_t* p = data.data() + i;
            sum += (p[0] == 0x47) + (((p[1] & 0x1Fu) << 8) | p[2]) + (p[3] & 0x30u);
        }
        benchmark::DoNotOptimize(sum);
    }
    per_packet_counter(state, (double)state.iterations() * (double)npkts);
}
BENCHMARK(BM_HeaderScan)->Unit(benchmark::kMicrosecond);

// tsan_process on every packet; the context stays, so after the first pass
// it is tracking, as in a long run.
void BM_Tracker(benchmark::State& state)
{
    const std::vector<uint8_t>& data = stream();
    if (data.empty()) {
        state.SkipWithError("no stream (ffmpeg missing?)");
        return;
    }
    quiet_log();
    const tsan_config cfg = bench_config();
    tsan_t t = tsan_init(nullptr, &cfg, nullptr);
    const size_t npkts = data.size() / kPkt;
    const uint8_t* end = data.data() + data.size();
    int failed = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < data.size(); i += kPkt)
            failed |= tsan_process(t, data.data() + i, end);
    }
    if (failed != 0)
        state.SkipWithError("tsan_process failed");
    per_packet_counter(state, (double)state.iterations() * (double)npkts);
    tsan_free(t);
}
BENCHMARK(BM_Tracker)->Unit(benchmark::kMicrosecond);

// The whole pass as the loop runs it: commit a read of range(0) bytes to the
// ring, analyze_input on it if range(1), evict to the ring's limit. Without
// the analysis it is the loop's own cost, less the read.
void BM_AnalysisPass(benchmark::State& state)
{
    const std::vector<uint8_t>& data = stream();
    if (data.empty()) {
        state.SkipWithError("no stream (ffmpeg missing?)");
        return;
    }
    quiet_log();
    const size_t chunk = (size_t)state.range(0);
    const bool analyze = state.range(1) != 0;
    g_cfg.cache_sz_mb = 8;
    // The ring keeps room for one whole read, as a configured reserve would.
    g_cfg.min_read_bytes = std::max(D_MINREAD_BYTES, chunk);
    g_cfg.lost_sync_alert = true;
    g_cfg.tsa = bench_config();
    g_ctx.an = analysis_ctx{};
    if (mmr_create(&g_ctx.mmr, ring_bytes(g_cfg)) != 0) {
        state.SkipWithError("mmr_create failed");
        return;
    }
    g_ctx.tc = tsan_init(nullptr, &g_cfg.tsa, nullptr);
    const size_t max_pld = g_cfg.cache_sz_mb * BYTES_IN_MB - g_cfg.min_read_bytes;
    size_t pos = 0;
    size_t npkts = 0;
    int failed = 0;
    for (auto _ : state) {
        for (size_t done = 0; done < data.size(); done += chunk) {
            failed |= (mmr_cap(g_ctx.mmr, max_pld) < 0);
            mm_point pt{};
            uint8_t* dest = mmr_iget(g_ctx.mmr, &pt);
            const size_t n = std::min({chunk, pt.len, data.size() - pos});
            memcpy(dest, data.data() + pos, n);
            pos = (pos + n) % data.size();
            pt.len = n;
            failed |= mmr_iput(g_ctx.mmr, &pt);
            if (analyze)
                failed |= analyze_input(dest, pt.len);
            npkts += n / kPkt;
        }
    }
    if (failed != 0)
        state.SkipWithError("the pass failed");
    per_packet_counter(state, (double)npkts);
    tsan_free(g_ctx.tc);
    mmr_destroy(g_ctx.mmr);
    free(g_ctx.abuf);
    g_ctx = ksti_ctx{};
}
BENCHMARK(BM_AnalysisPass)
    ->ArgNames({"read", "analyze"})
    ->ArgsProduct({{1316, 65536}, {0, 1}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
