// Named stopwatches in one process-wide table: the library's I/O code holds
// probe points at fixed indices, and an application may add its own. Off by
// default: a disabled probe point costs one test of a byte.
#pragma once

#include <cstddef>
#include <cstdio>

#include "prfm.h"

constexpr size_t MAX_PSENSORS = 73;
constexpr size_t PRF_SYS_COUNT = 9;
constexpr size_t USENSOR_FIRST = 9;

// The library's sensors; the tags are in g_libsensor_tag.
enum : int {
    PRF_APP = 0,  // for the application's own use
    PRF_EVLOOP = 1,
    PRF_EVREAD = 2,
    PRF_EVWRITE = 3,
    PRF_EVERR = 4,
    PRF_EVPP = 5,
    PRF_EVIDLE = 6,    // time spent waiting
    PRF_DATAIN = 7,    // nread, npread, recv_fd
    PRF_DATAOUT = 8,   // nwrite, nsendfile, transfer_out
};

struct psensor {
    const char* nametag;
    prfm sensor;
    unsigned enabled : 1;
    unsigned started : 1;
};

struct app_psensor_ctx {
    size_t ucount;  // application sensors in use
};

extern psensor g_psensor[MAX_PSENSORS];
extern app_psensor_ctx g_pctx;
extern const char* const g_libsensor_tag[];

// Fills the table: the library's sensors, then the application's tags (an
// array ending in a null, or null) from USENSOR_FIRST on. 0.
int psensors_init(const char** utag, int enable_all);
void psensors_destroy();
// Prints each enabled sensor that has counted some time.
void psensors_dump(FILE* fp);
// Index of a library tag, without regard to case; -1 if unknown.
int libptag_index(const char* name);

// A probe point: psensor_begin before the thing measured, psensor_end
// after. An inner probe of a running sensor is ignored, so the outer
// interval counts; a probe that a failure jumps over leaves the sensor
// running, and the next end closes it. The switches are tested here and not
// in prfm_start, so a disabled sensor costs one test.
inline void psensor_begin(int i)
{
    psensor& s = g_psensor[i];
    if (s.enabled && !s.started) [[unlikely]] {
        prfm_start(&s.sensor);
        s.started = 1;
    }
}

inline void psensor_end(int i)
{
    psensor& s = g_psensor[i];
    if (s.enabled && s.started) [[unlikely]] {
        s.started = 0;
        prfm_stop(&s.sensor);
    }
}
