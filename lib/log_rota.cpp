// Rotation of a log: limits by size and by the end of the day, the rotation
// itself, and the bounded table of the files it left behind. Problems with the
// log itself go to stderr; the record of a rotation goes to g_log.
#include "log.h"
#include "log_internal.h"

#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "timeop.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

// Room for "<name>.<seconds>": a name of 127 bytes and any stamp fit.
constexpr size_t k_rota_name_sz = 160;

log_detail::clock_fn g_clock = time;

// "<name>.<stamp>", the name of a rotated file; false, with the reason on
// stderr under fn, when it doesn't fit.
bool rotated_name(char (&buf)[k_rota_name_sz], const char* name, time_t stamp, const char* fn)
{
    const int n = snprintf(buf, sizeof(buf), "%s.%lu", name, (unsigned long)stamp);
    if (n >= 0 && (size_t)n < sizeof(buf))
        return true;
    fprintf(stderr, "%s: log log->name is too long (%d bytes), max=%lu\n", fn, n, (unsigned long)(sizeof(buf) - 1));
    return false;
}

// The old file of slot idx goes, and the slot takes the new stamp.
void handle_rotation(log_ctx* log, time_t now, const char* new_name)
{
    rotation_ctx* rota = &log->rota;
    ssize_t idx = rota->next_idx;
    // A table index beyond the table can only come from a context filled
    // in by hand; starting over beats writing past the end.
    if (idx < 0 || (size_t)idx >= MAX_CYCLIC_ROTATIONS)
        idx = 0;
    LOG_AT(NORM_level, "[%s]: previous log rotated to [%s] tm=%ld, idx=%ld\n", g_logmod.app_tag, new_name,
           (long)now, (long)idx);

    if (rota->tm[idx] != 0) {
        char old_name[k_rota_name_sz];
        if (!rotated_name(old_name, log->name, rota->tm[idx], "handle_rotation"))
            return;
        if (unlink(old_name) != 0) {
            const int err = errno;
            LOG_AT(ERR_level, "%s: unlink(%s) ERROR(%d) : %s\n", "handle_rotation", old_name, err, strerror(err));
        } else {
            LOG_AT(DEBUG_level, "%s: replaced %s with %s.%lu\n", "handle_rotation", old_name, log->name,
                   (unsigned long)now);
        }
    }
    rota->tm[idx] = now;
    rota->next_idx = idx + 1;
    if ((size_t)rota->next_idx >= rota->max_idx || (size_t)rota->next_idx >= MAX_CYCLIC_ROTATIONS)
        rota->next_idx = 0;
    // A failed unlink is logged and done with; it must not look like a failure of the caller.
    errno = 0;
}

}  // namespace

namespace log_detail {

void log_set_clock_for_test(clock_fn fn)
{
    g_clock = (fn != nullptr) ? fn : time;
}

time_t log_now()
{
    return g_clock(nullptr);
}

int log_rotate_at(log_ctx* log, time_t now)
{
    static const char fn[] = "log_rotate";
    if (log->name[0] == '\0') {
        fprintf(stderr, "%s: nothing to rotate.\n", fn);
        return 0;
    }
    if (log->fp == stdout || log->fp == stderr) {
        fprintf(stderr, "%s: stdout and stderr cannot be rotated.\n", fn);
        return -1;
    }
    if (log->is_pipe || log->name[0] == '|') {
        fprintf(stderr, "%s: not supported for pipe-based streams.\n", fn);
        return -1;
    }
    char new_name[k_rota_name_sz];
    if (!rotated_name(new_name, log->name, now, fn))
        return -1;
    if (fclose(log->fp) != 0) {
        const int err = errno;
        // The stream is gone whatever fclose said; what follows reaches the console.
        log->fp = stderr;
        fprintf(stderr, "%s: failed to close [%s], ERROR(%d): %s\n", fn, log->name, err, strerror(err));
        return -1;
    }
    log->fp = stderr;

    char errmsg[LOG_ERRMSG_MAX];
    bool renamed = true;
    if (rename(log->name, new_name) != 0) {
        const int err = errno;
        renamed = false;
        // Two long names may not fit: the text is cut, which is all it needs.
        if (snprintf(errmsg, sizeof(errmsg), "%s: failed to rename [%s] to [%s], ERROR(%d): %s", fn, log->name,
                     new_name, err, strerror(err)) < 0)
            errmsg[0] = '\0';
        fprintf(stderr, "%s - rotation is to be stopped\n", errmsg);
    }

    // Without the rename this opens the old file again.
    if (const int rc = do_open(log, log->name); rc != 0)
        return rc;

    if (!renamed) {
        // The next attempt waits until the limit has been written once more,
        // and the reset stops the line below from asking for a rotation itself.
        log->total_out = 0;
        LOG_AT(ERR_level, "%s: %s - rotation cancelled this time\n", fn, errmsg);
        return 0;
    }
    if (log->rota.max_idx == 0)
        return 0;
    handle_rotation(log, now, new_name);
    return 0;
}

void log_rota_check(log_ctx* log)
{
    // The lines a rotation logs come back here; with a limit smaller than
    // those lines the same log would rotate into itself without end.
    static const log_ctx* rotating = nullptr;
    if (rotating == log)
        return;
    auto rotate = [log](time_t now) {
        const log_ctx* outer = rotating;
        rotating = log;
        log_rotate_at(log, now);
        rotating = outer;
    };

    rotation_ctx* rota = &log->rota;
    const bool must_rotate = rota->max_total != 0 && log->total_out >= rota->max_total;
    if (rota->max_log_tm > 0) {
        const time_t now = log_now();
        if (now > rota->max_log_tm) {
            // Moved first, so that the day rotates once and the lines the
            // rotation logs don't ask for it again.
            rota->max_log_tm = get_endofday_utime(now);
            rotate(now);
            return;
        }
    }
    if (must_rotate)
        rotate(log_now());
}

}  // namespace log_detail

int log_rotate(log_ctx* log)
{
    return log_detail::log_rotate_at(log, log_detail::log_now());
}

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
