// Rotation limits of a log: the size, the end of the day, the files kept.
#include "log.h"
#include "timeop.h"

void log_set_rota(log_ctx* log, size_t maxsize, size_t maxfiles, time_t max_time)
{
    log->rota.max_total = maxsize;
    // 0 files can't be asked for this way, and 128 is refused though the table has 128 slots.
    log->rota.max_idx = (maxfiles >= 1 && maxfiles <= 127) ? maxfiles : 16;
    log->rota.max_log_tm = (max_time > 0) ? get_endofday_utime(max_time) : 0;
}

void log_set_eod(log_ctx* log, time_t max_time)
{
    log->rota.max_log_tm = max_time;
}

size_t log_rota_maxfiles(const log_ctx* log)
{
    return log->rota.max_idx;
}

size_t log_rota_maxsize(const log_ctx* log)
{
    return log->rota.max_total;
}

time_t log_rota_eod(const log_ctx* log)
{
    return log->rota.max_log_tm;
}
