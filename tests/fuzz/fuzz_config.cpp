// The configuration loader: a whole file, as at start.
#include <unistd.h>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "fuzz_support.h"
#include "kst.h"

namespace {

const fuzz_expected_assert k_expected[] = {{nullptr, nullptr, nullptr}};

char g_path[64];

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_quiet_logs();
    g_fuzz_expected = k_expected;
    snprintf(g_path, sizeof(g_path), "/tmp/kst-fuzz-config.%ld.conf", (long)getpid());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FILE* fp = fopen(g_path, "w");
    if (fp == nullptr)
        return 0;
    fwrite(data, 1, size, fp);
    fclose(fp);
    ksti_cfg cfg{};
    init_ksti_config(&cfg);
    FUZZ_GUARD();
    (void)load_ksti_config(g_path, &cfg, false);
    (void)load_ksti_config(g_path, &cfg, true);
    FUZZ_DONE();
    unlink(g_path);
    return 0;
}
