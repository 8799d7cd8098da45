#include "fuzz_support.h"

#include <unistd.h>
#include <cstdio>
#include <cstdlib>

#include "log.h"
#include "platform.h"

const fuzz_expected_assert* g_fuzz_expected = nullptr;
sigjmp_buf g_fuzz_jmp;
bool g_fuzz_armed = false;

// The real one, which prints and aborts; the linker gives it this name.
extern "C" void __real__Z16plat_assert_failPKcS0_iS0_(const char* func, const char* file, int line, const char* expr);

extern "C" [[noreturn]] void __wrap__Z16plat_assert_failPKcS0_iS0_(const char* func, const char* file, int line,
                                                                   const char* expr)
{
    if (g_fuzz_armed && g_fuzz_expected != nullptr) {
        for (const fuzz_expected_assert* e = g_fuzz_expected; e->func != nullptr; ++e) {
            if (strcmp(e->func, func) == 0 && strcmp(e->file, file) == 0)
                siglongjmp(g_fuzz_jmp, 1);
        }
    }
    __real__Z16plat_assert_failPKcS0_iS0_(func, file, line, expr);
    abort();
}

void fuzz_quiet_logs()
{
    static FILE* devnull = fopen("/dev/null", "w");
    glog_init("fuzz");
    log_default(&g_log, devnull);
    log_default(&g_access_log, devnull);
    g_log.mirror_fp = nullptr;
    log_set_modules(&g_log, DEBUG_level);  // every line composed: its formats are fuzzed too
}
