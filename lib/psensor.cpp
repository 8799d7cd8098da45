// The process-wide table of sensors. Nothing switches them on unless an
// application calls psensors_init; until then every probe point is one test.
#include "psensor.h"

#include <cstring>
#include <strings.h>

psensor g_psensor[MAX_PSENSORS];
app_psensor_ctx g_pctx;

const char* const g_libsensor_tag[] = {"app",   "ev_loop", "ev_read", "ev_write", "ev_err",
                                       "ev_pp", "ev_idle", "data_in", "data_out", nullptr};
static_assert(sizeof(g_libsensor_tag) / sizeof(g_libsensor_tag[0]) == PRF_SYS_COUNT + 1);

namespace {

void init_one(psensor* s, const char* tag, int enable_all)
{
    s->nametag = tag;
    // Who 0: the calling process.
    prfm_xinit(&s->sensor, prfm_TIME | prfm_RUSAGE, 0);
    if (enable_all)
        s->enabled = 1;
}

}  // namespace

int psensors_init(const char** utag, int enable_all)
{
    memset(g_psensor, 0, sizeof(g_psensor));
    for (size_t i = 0; i < PRF_SYS_COUNT && g_libsensor_tag[i] != nullptr; ++i)
        init_one(&g_psensor[i], g_libsensor_tag[i], enable_all);
    g_pctx.ucount = 0;
    if (utag == nullptr)
        return 0;
    for (size_t i = 0; utag[i] != nullptr && USENSOR_FIRST + i < MAX_PSENSORS; ++i) {
        init_one(&g_psensor[USENSOR_FIRST + i], utag[i], enable_all);
        ++g_pctx.ucount;
    }
    return 0;
}

void psensors_destroy()
{
    for (size_t i = 0; i < USENSOR_FIRST + g_pctx.ucount; ++i)
        prfm_destroy(&g_psensor[i].sensor);
}

void psensors_dump(FILE* fp)
{
    for (size_t i = 0; i < USENSOR_FIRST + g_pctx.ucount; ++i) {
        const psensor& s = g_psensor[i];
        if (!s.enabled || (s.sensor.accum.tm.tv_sec == 0 && s.sensor.accum.tm.tv_nsec == 0))
            continue;
        prfm_dump(fp, &s.sensor, "P-Sensor [%s]\n", s.nametag);
    }
}

int libptag_index(const char* name)
{
    for (int i = 0; g_libsensor_tag[i] != nullptr; ++i)
        if (strcasecmp(name, g_libsensor_tag[i]) == 0)
            return i;
    return -1;
}
