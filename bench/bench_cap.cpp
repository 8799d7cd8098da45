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
        mr->buf[i] = (i % 188 == 0) ? MPEG_TS_SYNC : (uint8_t)i;
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

// The cap as the capture loop meets it: a full ring of range(0) MiB, one
// datagram of seven 188-byte packets committed a turn, then the cap back to
// the limit that keeps the reserve free. Message shape (no analyzer) in
// range(1) == 0, packet shape in 1; in 2 the floor, the same turn with the
// datagram released by hand and no walk at all: what touching the ring's
// memory costs whatever the cap does. The cap's part (the difference) must
// not depend on how much the ring holds.
void BM_CapPerRead(benchmark::State& state)
{
    const size_t ring_sz = (size_t)state.range(0) * BYTES_IN_MB;
    const bool per_packet = state.range(1) == 1;
    const bool floor_only = state.range(1) == 2;
    constexpr size_t kDgram = 7 * 188;
    constexpr size_t kReserve = 4096;
    mmr_t ring = nullptr;
    if (mmr_create(&ring, ring_sz) != 0) {
        state.SkipWithError("mmr_create failed");
        return;
    }
    mm_ring* mr = static_cast<mm_ring*>(ring);
    mr->stype = STY_MPEGTS;
    mr->ts_len = 188;
    mr->pld_pos = 0;
    mr->opt.no_mtu_pack = per_packet;
    uint8_t dgram[kDgram];
    for (size_t i = 0; i < kDgram; ++i)
        dgram[i] = (i % 188 == 0) ? MPEG_TS_SYNC : (uint8_t)i;

    const size_t limit = ring_sz - kReserve;
    int failed = 0;
    const auto one_read = [&] {
        if (!floor_only) {
            failed |= (mmr_cap(ring, limit) < 0);
        } else if (mr->pld_size > limit) {
            // The floor: the same bytes leave without any walk.
            const iovec out{mr->buf + mr->pld_pos, kDgram};
            mmr_oput(ring, &out, 1);
        }
        mm_point pt{};
        uint8_t* dest = mmr_iget(ring, &pt);
        memcpy(dest, dgram, kDgram);
        pt.len = kDgram;
        failed |= mmr_iput(ring, &pt);
    };
    // Filled once, so that every timed turn evicts.
    while (mr->pld_size + kDgram <= limit)
        one_read();
    one_read();
    for (auto _ : state)
        one_read();
    if (failed != 0)
        state.SkipWithError("the cap failed");
    state.SetLabel(floor_only ? "floor" : per_packet ? "packets" : "messages");
    mmr_destroy(ring);
}
BENCHMARK(BM_CapPerRead)
    ->ArgNames({"ring_mb", "shape"})
    ->ArgsProduct({{1, 8, 64, 256}, {0, 1, 2}})
    ->Unit(benchmark::kNanosecond);

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
