// The ring's cost per committed chunk, and the capture path's read into the
// ring against a plain read into a private buffer (the floor it can't beat).
#include <benchmark/benchmark.h>

#include <sys/mman.h>
#include <unistd.h>
#include <cstring>
#include <vector>

#include "log.h"
#include "mmr.h"
#include "syswrap.h"

namespace {

constexpr size_t kRing = 8 * BYTES_IN_MB;
constexpr size_t kFile = 64 * BYTES_IN_MB;

// One turn of the capture loop without the read: reserve, commit, release.
void BM_RingCommitChunk(benchmark::State& state)
{
    const size_t chunk = (size_t)state.range(0);
    mmr_t ring = nullptr;
    if (mmr_create(&ring, kRing) != 0) {
        state.SkipWithError("mmr_create failed");
        return;
    }
    mm_point pt{};
    for (auto _ : state) {
        uint8_t* dest = mmr_iget(ring, &pt);
        benchmark::DoNotOptimize(dest);
        pt.len = chunk;
        mmr_iput(ring, &pt);
        iovec iov{nullptr, chunk};
        mmr_oput(ring, &iov, 1);
    }
    state.SetBytesProcessed((int64_t)(state.iterations() * chunk));
    mmr_destroy(ring);
}
BENCHMARK(BM_RingCommitChunk)->Arg(1316)->Arg(4096)->Arg(65536);

// A file in memory, so both reads measure the copy, not the disk.
int make_source()
{
    int fd = memfd_create("kst-bench-src", 0);
    std::vector<uint8_t> block(BYTES_IN_MB);
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = (uint8_t)(i * 31);
    for (size_t off = 0; off < kFile; off += block.size())
        if (write(fd, block.data(), block.size()) != (ssize_t)block.size())
            return -1;
    return fd;
}

void BM_ReadIntoRing(benchmark::State& state)
{
    const size_t chunk = (size_t)state.range(0);
    int fd = make_source();
    mmr_t ring = nullptr;
    if (fd < 0 || mmr_create(&ring, kRing) != 0) {
        state.SkipWithError("setup failed");
        return;
    }
    off_t off = 0;
    mm_point pt{};
    for (auto _ : state) {
        uint8_t* dest = mmr_iget(ring, &pt);
        ssize_t n = W_pread_f("bench", fd, dest, chunk, off, 0);
        pt.len = (size_t)n;
        mmr_iput(ring, &pt);
        iovec iov{nullptr, (size_t)n};
        mmr_oput(ring, &iov, 1);
        off = (off + n) % (off_t)kFile;
    }
    state.SetBytesProcessed((int64_t)(state.iterations() * chunk));
    mmr_destroy(ring);
    close(fd);
}
BENCHMARK(BM_ReadIntoRing)->Arg(1316)->Arg(65536)->Arg(1 << 20);

void BM_ReadIntoPrivateBuffer(benchmark::State& state)
{
    const size_t chunk = (size_t)state.range(0);
    int fd = make_source();
    std::vector<uint8_t> buf(kRing);
    if (fd < 0) {
        state.SkipWithError("setup failed");
        return;
    }
    off_t off = 0;
    size_t pos = 0;
    for (auto _ : state) {
        ssize_t n = pread(fd, buf.data() + pos, chunk, off);
        off = (off + n) % (off_t)kFile;
        pos = (pos + (size_t)n) % (kRing - chunk);
    }
    state.SetBytesProcessed((int64_t)(state.iterations() * chunk));
    close(fd);
}
BENCHMARK(BM_ReadIntoPrivateBuffer)->Arg(1316)->Arg(65536)->Arg(1 << 20);

}  // namespace
