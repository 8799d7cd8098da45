// The read-out over a sequence of reads: the capture loop's ring work
// without the network. Each read goes into the ring, is analysed when the
// analyzer is on, and the cap evicts as the loop does, with reads of the
// sizes the input asks for.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "analysis.h"
#include "fuzz_support.h"
#include "kst.h"
#include "mmr.h"
#include "tsan_ctx.h"
#include "tsanalyze.h"

namespace {

const fuzz_expected_assert k_expected[] = {
    {"mmr_oget_buf", "lib/mmr_out.cpp", "a buffer of under 214 bytes with no sync byte in it stops the process"},
    {"get_rtp_pktlen", "lib/dstream.cpp", "a datagram buffer of more than 1400 bytes that probes as RTP"},
    {"process_PAT", "kestrin/tsanalyze.cpp", "a PAT with no entries, or with a program on pid 0, is taken for granted"},
    {"process_PMT", "kestrin/tsanalyze.cpp", "a PMT with PCR_PID 0 is taken for granted"},
    {nullptr, nullptr, nullptr},
};

constexpr size_t kRing = 1 << 20;
constexpr size_t kMinRead = 4096;

// Gives back what the last case held, also when it ended in an assertion.
void release()
{
    if (g_ctx.mmr != nullptr)
        mmr_destroy(g_ctx.mmr);
    if (g_ctx.tc != nullptr)
        tsan_free(g_ctx.tc);
    free(g_ctx.abuf);
    g_ctx = ksti_ctx{};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_quiet_logs();
    g_fuzz_expected = k_expected;
    // The last case's ring is a shared-memory object: gone when the fuzzer ends.
    atexit(release);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    release();
    if (size < 2)
        return 0;
    // Byte 0: analyzer on or off, and the lost-sync alert; byte 1: the unit
    // of the read sizes that follow in the input, one size byte before each
    // piece.
    init_ksti_config(&g_cfg);
    g_cfg.cache_sz_mb = kRing >> 20;
    g_cfg.min_read_bytes = kMinRead;
    g_cfg.tsa.is_enabled = (data[0] & 1) != 0;
    g_cfg.lost_sync_alert = (data[0] & 2) != 0;
    g_cfg.tsa.max_skip_pkts = 1u << 30;
    strcpy(g_cfg.tsa.source, "fuzz");
    const size_t unit = 1 + data[1] % 64;
    g_ctx.an = analysis_ctx{};
    if (mmr_create(&g_ctx.mmr, kRing) != 0)
        return 0;
    int err = 0;
    g_ctx.tc = tsan_init(nullptr, &g_cfg.tsa, &err);

    FUZZ_GUARD();
    size_t pos = 2;
    while (pos < size) {
        const size_t want = (size_t)data[pos++] * unit + 1;
        if (mmr_cap(g_ctx.mmr, kRing - kMinRead) < 0)
            break;
        mm_point pt{};
        uint8_t* dest = mmr_iget(g_ctx.mmr, &pt);
        if (dest == nullptr || pt.len < 1400)
            break;
        // One read: the bytes the input has left, as many as asked for and fit.
        size_t n = want;
        if (n > size - pos)
            n = size - pos;
        if (n > pt.len)
            n = pt.len;
        if (n == 0)
            break;
        memcpy(dest, data + pos, n);
        pos += n;
        pt.len = n;
        if (mmr_iput(g_ctx.mmr, &pt) != 0)
            break;
        if (g_cfg.tsa.is_enabled && analyze_input(dest, n) != 0)
            break;
    }
    FUZZ_DONE();
    return 0;
}
