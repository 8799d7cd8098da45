// Snapshots: a signal asks, the loop reads on for a tail bounded by bytes and
// by time, then the ring's contents land in a new file. The handlers only set
// flags; everything else runs on the capture loop between two reads.
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "kst.h"
#include "log.h"
#include "syswrap.h"
#include "util.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

bool snapshot_pending()
{
    return g_ctx.waiting_alarm || g_ctx.must_count_tail;
}

// A new file for the snapshot; a name that exists is never overwritten.
int mk_snapshot_file(char* fpath, size_t len, const char* suffix)
{
    mm_info info{};
    mmr_get_info(g_ctx.mmr, &info);
    uint64_t first = info.first_pktnum;
    uint64_t count = info.last_pktnum - info.first_pktnum;
    // Without the analyzer the ring numbers no packets, and names made from
    // its numbers would all read p0_0: a second file would clash with the
    // first for ever. The numbers then come from the bytes: those that have
    // left the ring and those it holds, in packets.
    if (!mmr_numbers_pkts(g_ctx.mmr) && info.ts_len != 0) {
        first = mmr_bytes_out(g_ctx.mmr) / info.ts_len;
        count = info.pld_size / info.ts_len;
    }
    const int n = snprintf(fpath, len - 1, "%s/%s%lu-p%lu_%lu-%s.ts", g_cfg.snap_dir, g_cfg.snap_pfx,
                           (unsigned long)getpid(), (unsigned long)first, (unsigned long)count, suffix);
    if (n < 1 || n > (int)len - 1) {
        LOG_AT(ERR_level, "%s: cannot make snapshot name, n=%d\n", "mk_snapshot_file", n);
        return -1;
    }
    const int fd = W_open("mk_snapshot_file", fpath, O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0)
        return -1;
    LOG_AT(DEBUG_level, "%s: %s created, fd%d\n", "mk_snapshot_file", fpath, fd);
    return fd;
}

}  // namespace

void snapshot_on_sig(int signo)
{
    sig_frame sf;
    sigctx_enter(&sf);
    g_snapshot = 1;
    LOG_AT(NORM_level, "Received snapshot-SIG(%d).\n", signo);
    sigctx_leave(&sf);
}

void catch_alarm(int signo)
{
    sig_frame sf;
    sigctx_enter(&sf);
    LOG_AT(NORM_level, "Received alarm-SIG(%d).\n", signo);
    if (g_ctx.waiting_alarm) {
        g_snapalarm = 1;
        LOG_AT(INFO_level, "%s: got the expected snapshot ALARM\n", "catch_alarm");
    }
    sigctx_leave(&sf);
}

int schedule_alarm()
{
    VRX_ASSERT(!g_ctx.waiting_alarm);
    itimerval tv{};
    tv.it_value.tv_sec = (time_t)(g_cfg.tail_tm_ms / 1000);
    tv.it_value.tv_usec = (suseconds_t)((g_cfg.tail_tm_ms % 1000) * 1000);
    if (setitimer(ITIMER_REAL, &tv, nullptr) != 0) {
        LOG_AT(ERR_level, "%s: setitimer() ERROR(%d): %s\n", "schedule_alarm", errno, strerror(errno));
        return -1;
    }
    LOG_AT(DEBUG_level, "%s: alarm set for %zu ms\n", "schedule_alarm", g_cfg.tail_tm_ms);
    g_ctx.waiting_alarm = true;
    return 0;
}

void clear_alarm()
{
    if (!g_ctx.waiting_alarm)
        return;
    itimerval tv{};
    if (setitimer(ITIMER_REAL, &tv, nullptr) != 0) {
        LOG_AT(ERR_level, "%s: setitimer() ERROR(%d): %s\n", "clear_alarm", errno, strerror(errno));
        return;
    }
    LOG_AT(DEBUG_level, "%s: alarm cleared\n", "clear_alarm");
    g_ctx.waiting_alarm = false;
}

int take_snapshot(const char* suffix)
{
    char fpath[FILE_PATH_MAX] = {};
    int rc = -1;
    const int fd = mk_snapshot_file(fpath, sizeof(fpath), suffix);
    if (fd >= 0) {
        const ssize_t nwr = mmr_snapshot(g_ctx.mmr, fd);
        // A failed write is the log's to tell; the request counts as done.
        if (nwr > 0)
            LOG_AT(INFO_level, "%s: write %zd bytes to [%s]\n", "take_snapshot", nwr, fpath);
        else
            LOG_AT(ERR_level, "%s: failed to snapshot to fd%d\n", "take_snapshot", fd);
        W_close("take_snapshot", fd);
        rc = 0;
    }
    g_ctx.must_count_tail = false;
    clear_alarm();
    return rc;
}

int process_snapshot()
{
    if (snapshot_pending()) {
        LOG_AT(WARN_level, "Another snapshot is pending, ignoring this request\n");
        return 0;
    }
    if (g_cfg.tail_sz_mb == 0 && g_cfg.tail_tm_ms == 0)
        return take_snapshot("N");

    if (g_cfg.tail_tm_ms != 0) {
        const int rc = schedule_alarm();
        if (rc != 0)
            return rc;
        g_snapalarm = 0;  // no stale alarm may end the new tail
    }
    if (g_cfg.tail_sz_mb == 0)
        return 0;

    g_ctx.must_count_tail = true;
    g_ctx.tail_size = 0;
    LOG_AT(INFO_level, "%s: take snapshot as soon as tail >= %zu Mb\n", "process_snapshot", g_cfg.tail_sz_mb);
    return 0;
}

int process_signals()
{
    // A failure leaves the flag set: the next turn tries again.
    if (g_snapshot) {
        const int rc = process_snapshot();
        if (rc == 0)
            g_snapshot = 0;
        return rc;
    }
    if (g_snapalarm) {
        const int rc = take_snapshot("A");
        if (rc == 0)
            g_snapalarm = 0;
        return rc;
    }
    return 0;
}

void count_tail(size_t nbytes)
{
    if (!g_ctx.must_count_tail)
        return;
    g_ctx.tail_size += nbytes;
    if (g_ctx.tail_size >= g_cfg.tail_sz_mb * BYTES_IN_MB) {
        LOG_AT(INFO_level, "%s: tail size (%zu) >= %zu Mb\n", "run_app", g_ctx.tail_size, g_cfg.tail_sz_mb);
        (void)take_snapshot("B");
    }
}
