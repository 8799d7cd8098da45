// A stopwatch with resource accounting: the wall time and the getrusage
// figures between starts and stops, summed over all intervals.
#pragma once

#include <sys/resource.h>
#include <cstdint>
#include <cstdio>
#include <ctime>

constexpr int32_t prfm_TIME = 1;    // CLOCK_MONOTONIC
constexpr int32_t prfm_RUSAGE = 2;  // getrusage(who)

struct prfm_metrics {
    timespec tm;
    rusage ru;
};

struct prfm {
    int who;  // the getrusage target
    int32_t flags;
    prfm_metrics start;  // the last start
    prfm_metrics accum;  // the sum of all intervals
};

// Sets the flags and who; clears the parts of start and accum that the flags select.
void prfm_xinit(prfm* r, int32_t flags, int rusage_who);
// The same clearing, then no flags.
void prfm_destroy(prfm* r);
// Takes the metrics into start.
void prfm_start(prfm* r);
// Adds the interval since start to accum.
void prfm_stop(prfm* r);
// prfm_stop with the closing reading taken by the caller.
void prfm_stop_with(prfm* r, const prfm_metrics* curr);
// Takes the metrics into accum and clears its time: a reading of the totals,
// for the resource figures only.
void prfm_probe(prfm* r);
// Prints accum, behind fmt if given.
void prfm_dump(FILE* fp, const prfm* r, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
