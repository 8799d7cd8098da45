// The eviction's cost per megabyte in both record shapes, and the snapshot
// of a full, wrapped 64 MiB ring.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cstring>

#include "dstream.h"
#include "log.h"
#include "mmr.h"
#include "mmr_ring.h"

namespace {

constexpr size_t kRing = 64 * BYTES_IN_MB;

// A ring of 188-byte TS, detected as the loop would, holding `fill` bytes.
mmr_t make_ring(bool per_packet)
{
    mmr_t ring = nullptr;
    if (mmr_create(&ring, kRing) != 0)
        return nullptr;
    mm_ring* mr = static_cast<mm_ring*>(ring);
    for (size_t i = 0; i < kRing; ++i)
        mr->buf[i] = (i % 188 == 0) ? TS_SYNC : (uint8_t)i;
    mr->stype = STY_MPEGTS;
    mr->ts_len = 188;
    mr->pld_pos = 0;
    mr->opt.no_mtu_pack = per_packet;
    return ring;
}

// Each iteration: the ring holds 2 MiB over the limit, the cap drops it.
void BM_CapPerMegabyte(benchmark::State& state)
{
    const bool per_packet = state.range(0) != 0;
    mmr_t ring = make_ring(per_packet);
    if (ring == nullptr) {
        state.SkipWithError("mmr_create failed");
        return;
    }
    mm_ring* mr = static_cast<mm_ring*>(ring);
    const size_t limit = 8 * BYTES_IN_MB - (8 * BYTES_IN_MB) % 188;
    const size_t over = 2 * BYTES_IN_MB - (2 * BYTES_IN_MB) % 188;
    for (auto _ : state) {
        state.PauseTiming();
        // The reads of one turn left the ring this much over its limit. The
        // head starts on the packet grid again each time: the ring's size is
        // no multiple of 188, so the pattern doesn't carry across its wrap.
        mr->pld_pos = 0;
        mr->pld_size = limit + over;
        state.ResumeTiming();
        benchmark::DoNotOptimize(mmr_cap(ring, limit));
    }
    state.SetBytesProcessed((int64_t)(state.iterations() * over));
    state.counters["us_per_MiB"] = benchmark::Counter((double)state.iterations() * (double)over / BYTES_IN_MB,
                                                      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.SetLabel(per_packet ? "packets" : "messages");
    mmr_destroy(ring);
}
BENCHMARK(BM_CapPerMegabyte)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// One write of the whole payload, across the wrap, into a file in memory.
void BM_SnapshotFullWrappedRing(benchmark::State& state)
{
    mmr_t ring = make_ring(false);
    if (ring == nullptr) {
        state.SkipWithError("mmr_create failed");
        return;
    }
    mm_ring* mr = static_cast<mm_ring*>(ring);
    mr->pld_pos = (off_t)(kRing / 2 + 188 * 3);
    mr->pld_size = kRing;
    const int fd = memfd_create("kst-bench-snap", 0);
    for (auto _ : state) {
        state.PauseTiming();
        if (ftruncate(fd, 0) != 0 || lseek(fd, 0, SEEK_SET) != 0)
            state.SkipWithError("truncate failed");
        state.ResumeTiming();
        if (mmr_snapshot(ring, fd) != (ssize_t)kRing)
            state.SkipWithError("short write");
    }
    state.SetBytesProcessed((int64_t)(state.iterations() * kRing));
    close(fd);
    mmr_destroy(ring);
}
BENCHMARK(BM_SnapshotFullWrappedRing)->Unit(benchmark::kMillisecond);

}  // namespace
