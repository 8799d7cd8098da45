// Aggregates of a series of deltas, and the analyzer's texts of time and
// stream type.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Count, sum and extremes of a series, since the last reset (local) and since
// the start (g_).
struct aggr_val {
    uint64_t count;
    uint64_t g_count;
    uint64_t total;
    uint64_t g_total;
    uint64_t min;
    uint64_t g_min;
    uint64_t max;
    uint64_t g_max;
};
static_assert(sizeof(aggr_val) == 8 * sizeof(uint64_t));

constexpr uint64_t HR_MS = 3600000;
constexpr uint64_t MIN_MS = 60000;
constexpr uint64_t SEC_MS = 1000;

void inc_aval(aggr_val* av, uint64_t val);
void reset_aval(aggr_val* av);
void dump_aval(FILE* fp, const char* msg, const aggr_val* av);

// "hh:mm:ss.mmm", the hours unbounded; str holds slen bytes.
char* ms2timestr(uint64_t ms, char* str, size_t slen);

// The text of a stream type (pmt_get_streamtype_txt, tsfields.h) with every
// blank made an underscore, so that it stays one column of a line; valid
// until the next call.
const char* get_streamtype_txt(uint8_t i_stream_type);
