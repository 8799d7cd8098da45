// What every fuzz target shares: a quiet logger, and the filter of the
// assertions the design makes on purpose. A deliberate assertion ends the
// case and the fuzzer goes on looking; any other assertion, and any memory
// error or undefined behaviour, stops it as a finding.
//
// The library's assertions all end in plat_assert_fail; the targets are
// linked with --wrap for it, so it comes here first.
#pragma once

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstring>

// One assertion that the design makes on purpose: where it stands, and why
// input can reach it.
struct fuzz_expected_assert {
    const char* func;  // the function named in the assertion's line
    const char* file;  // its source file, as the line names it
    const char* why;
};

// Set by each target: the deliberate assertions its input may reach, ended
// by an entry with a null func.
extern const fuzz_expected_assert* g_fuzz_expected;

// Where a deliberate assertion returns to; armed by FUZZ_GUARD.
extern sigjmp_buf g_fuzz_jmp;
extern bool g_fuzz_armed;

// Logs go nowhere: the targets call the library as the tool does, with its
// lines, and a fuzzer's output must stay readable.
void fuzz_quiet_logs();

// Runs the case; a deliberate assertion makes it return 0 at once. Whatever
// the case held is given back by the target after this point.
#define FUZZ_GUARD()                          \
    do {                                      \
        if (sigsetjmp(g_fuzz_jmp, 0) != 0) {  \
            g_fuzz_armed = false;             \
            return 0;                         \
        }                                     \
        g_fuzz_armed = true;                  \
    } while (0)
#define FUZZ_DONE() (g_fuzz_armed = false)
