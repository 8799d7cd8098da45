// The transport stream tracker: packets as the read-out hands them over,
// each starting on a sync byte, each 188 bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_support.h"
#include "tsanalyze.h"

namespace {

const fuzz_expected_assert k_expected[] = {
    {"process_PAT", "kestrin/tsanalyze.cpp", "a PAT with no entries, or with a program on pid 0, is taken for granted"},
    {"process_PMT", "kestrin/tsanalyze.cpp", "a PMT with PCR_PID 0 is taken for granted"},
    {nullptr, nullptr, nullptr},
};

tsan_t g_t = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_quiet_logs();
    g_fuzz_expected = k_expected;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (g_t != nullptr)
        tsan_free(g_t);
    tsan_config cfg{};
    cfg.is_enabled = true;
    strcpy(cfg.source, "fuzz");
    cfg.max_skip_pkts = 1u << 30;
    cfg.max_pdts_delta = 500;
    cfg.max_pcr_delta = 1000;
    cfg.pcr_freq_ms = 100;
    cfg.access_log_alerts = true;
    cfg.trk = tracking_opt{true, true, true, true, true};
    g_t = tsan_init(nullptr, &cfg, nullptr);
    if (g_t == nullptr)
        return 0;
    // Whole packets in a buffer of their own, so a read past the last is seen.
    const size_t npkts = size / 188;
    std::vector<uint8_t> buf(data, data + npkts * 188);
    for (size_t i = 0; i < npkts; ++i)
        buf[i * 188] = 0x47;
    FUZZ_GUARD();
    const uint8_t* end = buf.data() + buf.size();
    for (size_t i = 0; i < npkts; ++i)
        if (tsan_process(g_t, buf.data() + i * 188, end) != 0)
            break;
    FUZZ_DONE();
    return 0;
}
