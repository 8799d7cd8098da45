// Aggregates, time strings and stream type texts of the analyzer.
#include "misc.h"

#include <sys/types.h>
#include <cctype>
#include <cstring>

#include "tsfields.h"
#include "vrassert.h"

void inc_aval(aggr_val* av, uint64_t val)
{
    if (av->g_count == 0) {
        av->min = av->g_min = val;
        av->max = av->g_max = val;
    } else if (av->count == 0) {
        // The first sample behind a reset reaches the global extremes only
        // through the local ones, at the next sample.
        av->min = val;
        av->max = val;
    } else {
        if (val < av->min)
            av->min = val;
        if (val > av->max)
            av->max = val;
        if (av->min < av->g_min)
            av->g_min = av->min;
        if (av->max > av->g_max)
            av->g_max = av->max;
    }
    ++av->count;
    ++av->g_count;
    av->total += val;
    av->g_total += val;
}

void reset_aval(aggr_val* av)
{
    av->max = 0;
    av->min = 0;
    av->total = 0;
    av->count = 0;
}

void dump_aval(FILE* fp, const char* msg, const aggr_val* av)
{
    // No test for a count of 0: the average then prints as not-a-number.
    fprintf(fp, "%s:\t\tlocal=%.02f (n=%lu/v=%lu) min/max=%lu/%lu, global=%.02f (n=%lu/v=%lu) min/max=%lu/%lu\n",
            msg, (double)av->total / (double)av->count, av->count, av->total, av->min, av->max,
            (double)av->g_total / (double)av->g_count, av->g_count, av->g_total, av->g_min, av->g_max);
}

char* ms2timestr(uint64_t ms, char* str, size_t slen)
{
    const size_t hr = ms / HR_MS;
    const size_t min = (ms % HR_MS) / MIN_MS;
    const size_t sec = (ms % MIN_MS) / SEC_MS;
    const size_t msec = ms % SEC_MS;
    const ssize_t n = snprintf(str, slen - 1, "%02zu:%02zu:%02zu.%03zu", hr, min, sec, msec);
    VRX_ASSERT(n < (ssize_t)slen);
    return str;
}

const char* get_streamtype_txt(uint8_t i_stream_type)
{
    static char text[80];
    const char* txt = pmt_get_streamtype_txt(i_stream_type);
    if (strpbrk(txt, " \t") == nullptr)
        return txt;
    strncpy(text, txt, sizeof(text) - 1);
    text[sizeof(text) - 1] = '\0';
    for (char* p = text; *p != '\0'; ++p) {
        if (isblank((unsigned char)*p))
            *p = '_';
    }
    return text;
}
