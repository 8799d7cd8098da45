// The event loop: one wait a pass for all registered descriptors, then the
// no-poll entries, the events, post-processing and idling, in that order.
// The wait itself is the platform's (lib/rqs_backend_*.cpp); this file
// speaks kqueue's terms whatever the platform.
#include "rqs.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "psensor.h"
#include "rqs_backend.h"
#include "syswrap.h"
#include "timeop.h"
#include "util.h"
#include "vrassert.h"
#include "xvdat.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

struct nopoll_ref {
    uint32_t events;
    int fd;
    void* udata;
    ssize_t* index;  // the owner's copy of the index; -1 once removed
};

struct rqs_context {
    int loopfd;
    xvec events;   // rqs_kev
    xvec changes;  // kept empty: each change goes to the kernel at once
    size_t poll_fds;
    xvlst nopoll;     // nopoll_ref
    xvec nopoll_rm;   // ssize_t: entries to remove at the next purge
    timespec tmout;   // a tv_sec of -1: no time-out
    xvec watched_fds; // a byte a descriptor: 1 for a file monitor
    int loop_stage;
};

constexpr size_t k_min_events = 16;

rqs_context g_rqs = {-1, {}, {}, 0, {}, {}, {-1, 0}, {}, ELOOP_START};
rqs_config g_cfg_copy;

bool is_watched(int fd)
{
    return fd >= 0 && (size_t)fd < g_rqs.watched_fds.max_len && static_cast<char*>(g_rqs.watched_fds.data)[fd];
}

void set_watched(int fd, bool on)
{
    if (on && (size_t)fd >= g_rqs.watched_fds.max_len &&
        xvec_reserve(&g_rqs.watched_fds, (size_t)fd + 1, 1, 64) != 0) {
        LOG_AT(PANIC_level, "%s: cannot track watched fd%d\n", "rqs_add_file_monitor", fd);
        abort();
    }
    if ((size_t)fd < g_rqs.watched_fds.max_len)
        static_cast<char*>(g_rqs.watched_fds.data)[fd] = on ? 1 : 0;
}

void read_itime()
{
    set_clk_now(rqs_itime(), CLOCK_MONOTONIC);
}

int apply_kev_change_ext(int fd, int16_t filter, uint16_t action, uint32_t fflags, void* udata)
{
    VRX_ASSERT(fd >= 0);
    const rqs_kev change{(uintptr_t)fd, filter, action, fflags, 0, udata};
    int rc = 0;
    if (rqsb_change(g_rqs.loopfd, &change) != 0) {
        rc = errno;
        if (rc == EINTR)
            LOG_AT(INFO_level, "%s interrupted\n", "apply_kev_change");
        else if (rc != ENOENT)
            LOG_AT(ERR_level, "%s: kevent(%d...) ERROR(%d): %s\n", "apply_kev_change", g_rqs.loopfd, rc,
                   strerror(rc));
    }
    LOG_AT(DEBUG_level, "%s: fd%d filter=%d action=%u fflags=0x%04x udata=%p\n", "apply_kev_change", fd,
           (int)filter, (unsigned)action, fflags, udata);
    errno = rc;
    return rc;
}

int apply_kev_change(int fd, int16_t filter, uint16_t action, void* udata)
{
    return apply_kev_change_ext(fd, filter, action, 0, udata);
}

int add_filter(const char* caller, int fd, int16_t filter, void* udata)
{
    const int rc = apply_kev_change(fd, filter, RQS_EV_ADD, udata);
    if (rc != 0)
        return rc;
    ++g_rqs.poll_fds;
    LOG_AT(DEBUG_level, "%s: fd%d, udata=%p OK\n", caller, fd, udata);
    return 0;
}

// Turns one filter on or off; on for a filter never added adds it. 0, or
// the error of the change.
int switch_filter(int fd, int16_t filter, bool on, void* udata, const char* what)
{
    if (on) {
        int rc = apply_kev_change(fd, filter, RQS_EV_ENABLE, udata);
        if (rc == ENOENT)
            rc = apply_kev_change(fd, filter, RQS_EV_ADD, udata);
        return rc;
    }
    const int rc = apply_kev_change(fd, filter, RQS_EV_DISABLE, udata);
    if (rc == ENOENT) {
        LOG_AT(DEBUG_level, "%s: %s was already OFF for fd%d\n", "rqs_mod", what, fd);
        return 0;
    }
    if (rc == 0)
        LOG_AT(DEBUG_level, "%s: disabled %s for fd%d\n", "rqs_mod", what, fd);
    return rc;
}

// A callback under its sensor.
int call(int sensor, rqs_evfunc f, int fd, uint32_t flags, void* udata, void* data)
{
    if (f == nullptr)
        return 0;
    psensor_begin(sensor);
    const int rc = f(fd, flags, udata, data);
    psensor_end(sensor);
    return rc;
}

int post_process(int (*f)())
{
    if (f == nullptr)
        return 0;
    psensor_begin(PRF_EVPP);
    const int rc = f();
    psensor_end(PRF_EVPP);
    return rc;
}

int on_event(size_t i)
{
    const rqs_kev& ev = static_cast<rqs_kev*>(g_rqs.events.data)[i];
    const int fd = (int)ev.ident;
    uint32_t flags = (uint32_t)ev.flags >> 14;
    void* data = reinterpret_cast<void*>(ev.data);
    if (ev.flags & RQS_EV_ERROR) {
        LOG_AT(WARN_level, "%s: error(%d) event for fd%d: %s\n", "on_event", (int)ev.data, fd,
               strerror((int)ev.data));
        return call(PRF_EVERR, g_cfg_copy.cb.error, fd, flags, ev.udata, data);
    }
    VRX_ASSERT(g_rqs.events.max_len);
    switch (ev.filter) {
    case RQS_EVFILT_VNODE:
        if (ev.fflags & (RQS_NOTE_DELETE | RQS_NOTE_RENAME)) {
            flags |= RQS_RMV;
            if (ev.fflags & RQS_NOTE_DELETE)
                flags |= RQS_FDELETED;
            if (ev.fflags & RQS_NOTE_RENAME)
                flags |= RQS_FMOVED;
        }
        return call(PRF_EVREAD, g_cfg_copy.cb.on_file_modified, fd, flags, ev.udata, data);
    case RQS_EVFILT_READ:
        return call(PRF_EVREAD, is_watched(fd) ? g_cfg_copy.cb.on_file_modified : g_cfg_copy.cb.read, fd, flags,
                    ev.udata, data);
    case RQS_EVFILT_WRITE:
        return call(PRF_EVWRITE, g_cfg_copy.cb.write, fd, flags, ev.udata, data);
    default:
        LOG_AT(ERR_level, "%s: unsupported kevent filter: 0x%lx\n", "on_event", (unsigned long)(uint16_t)ev.filter);
        return 0;
    }
}

// No event mask is defined for a no-poll entry yet: the walk reports it and
// ends the loop.
int on_nopoll(void* data, size_t index)
{
    const nopoll_ref& np = static_cast<nopoll_ref*>(data)[index];
    LOG_AT(DEBUG_level, "%s: idx=%ld fd=%d udata=%p\n", "on_nopoll", (long)index, np.fd, np.udata);
    LOG_AT(ERR_level, "%s: unrecognized event mask: 0x%lx\n", "on_nopoll", (unsigned long)np.events);
    return -1;
}

int add_nopoll(const char* caller, uint32_t events, int fd, ssize_t* pindex, void* udata)
{
    const ssize_t at = xvlst_add(&g_rqs.nopoll, sizeof(nopoll_ref), 10);
    if (at < 0)
        return -1;
    static_cast<nopoll_ref*>(g_rqs.nopoll.data)[at] = nopoll_ref{events, fd, udata, pindex};
    if (pindex != nullptr)
        *pindex = at;
    LOG_AT(DEBUG_level, "%s[%ld]: fd%d, events=0x%lx, udata=%p, total=%ld events.\n", caller, (long)at, fd,
           (unsigned long)events, udata, (long)g_rqs.nopoll.len);
    return 0;
}

void rm_nopoll_now(const char* caller, ssize_t j)
{
    nopoll_ref& np = static_cast<nopoll_ref*>(g_rqs.nopoll.data)[j];
    LOG_AT(DEBUG_level, "%s: fd=%d, udata=%p (j=%ld)\n", caller, np.fd, np.udata, (long)j);
    if (np.index != nullptr)
        *np.index = -1;
    if (xvlst_del(&g_rqs.nopoll, (size_t)j, nullptr) != 0) {
        LOG_AT(PANIC_level, "%s: failed to remove j=%ld\n", caller, (long)j);
        abort();
    }
}

timespec* tmout_arg()
{
    return (g_rqs.tmout.tv_sec == -1) ? nullptr : &g_rqs.tmout;
}

}  // namespace

int rqs_init(const rqs_config* cfg)
{
    VRX_ASSERT(cfg);
    g_cfg_copy = *cfg;
    g_rqs = rqs_context{};
    g_rqs.loopfd = rqsb_open();
    if (g_rqs.loopfd < 0) {
        LOG_AT(ERR_level, "%s: kqueue() ERROR(%d): %s\n", "rqs_init", errno, strerror(errno));
        return -1;
    }
    read_itime();
    LOG_AT(DEBUG_level, "%s: rqs time: %lu.%09lu\n", "rqs_init", (unsigned long)rqs_now_ref()->tv_sec,
           (unsigned long)rqs_now_ref()->tv_nsec);
    g_rqs.nopoll.avail = 0;
    if (xvlst_reserve(&g_rqs.nopoll, 20, sizeof(nopoll_ref), 10) != 0 ||
        xvec_reserve(&g_rqs.nopoll_rm, 20, sizeof(ssize_t), 10) != 0) {
        LOG_AT(PANIC_level, "%s: cannot reserve memory for g_rqs.nopoll/rm\n", "rqs_init");
        LOG_AT(PANIC_level, "Aborting at:\n%s==\n", "rqs_init");
        abort();
    }
    g_rqs.tmout.tv_sec = -1;
    VRX_ASSERT(g_rqs.changes.len == 0);
    if (xvec_reserve(&g_rqs.changes, k_min_events, sizeof(rqs_kev), k_min_events) != 0) {
        LOG_AT(ERR_level, "%s: FAILED to pre-allocate space for a change vector\n", "rqs_init");
        abort();
    }
    return 0;
}

void rqs_destroy()
{
    if (g_rqs.loopfd >= 0)
        rqsb_close(g_rqs.loopfd);
    g_rqs.loopfd = -1;
    xvec_reset(&g_rqs.events);
    xvec_reset(&g_rqs.changes);
    xvlst_reset(&g_rqs.nopoll);
    xvec_reset(&g_rqs.nopoll_rm);
    xvec_reset(&g_rqs.watched_fds);
    g_rqs.poll_fds = 0;
}

int rqs_add_reader(int fd, void* udata)
{
    return add_filter("rqs_add_reader", fd, RQS_EVFILT_READ, udata);
}

int rqs_add_writer(int fd, void* udata)
{
    return add_filter("rqs_add_writer", fd, RQS_EVFILT_WRITE, udata);
}

int rqs_mod_reader(int fd, void* udata)
{
    return apply_kev_change(fd, RQS_EVFILT_READ, RQS_EV_ADD, udata);
}

int rqs_mod(int fd, void* udata, int read_write)
{
    char status[3] = "--";
    int rc = switch_filter(fd, RQS_EVFILT_READ, (read_write & RQS_READ) != 0, udata, "reading");
    if (rc == 0 && (read_write & RQS_READ))
        status[0] = 'R';
    if (rc == 0) {
        rc = switch_filter(fd, RQS_EVFILT_WRITE, (read_write & RQS_WRITE) != 0, udata, "writing");
        if (rc == 0 && (read_write & RQS_WRITE))
            status[1] = 'W';
    }
    if (rc == 0)
        LOG_AT(DEBUG_level, "%s: fd%d, udata=%p [%s] OK\n", "rqs_mod", fd, udata, status);
    else
        LOG_AT(ERR_level, "%s: fd%d, udata=%p [%s] ERROR\n", "rqs_mod", fd, udata, status);
    return rc;
}

int rqs_rm_fd(int fd, bool is_reader, bool is_writer)
{
    if (g_rqs.loopfd < 0)
        return 0;
    int rc = 0;
    if (is_reader)
        rc = apply_kev_change(fd, RQS_EVFILT_READ, RQS_EV_DELETE, nullptr);
    if (is_writer) {
        const int wrc = apply_kev_change(fd, RQS_EVFILT_WRITE, RQS_EV_DELETE, nullptr);
        if (rc == 0)
            rc = wrc;
    }
    if ((is_reader || is_writer) && g_rqs.poll_fds > 0)
        --g_rqs.poll_fds;
    return rc;
}

int rqs_add_file_watch(void* udata, const char* filepath)
{
    return rqs_add_file_monitor(udata, filepath, true);
}

int rqs_add_file_monitor(void* udata, const char* filepath, bool read_watch)
{
    const int fd = W_open("rqs_add_file_monitor", filepath, O_RDONLY, 0);
    if (fd < 0)
        return -1;
    if (read_watch && rqs_add_reader(fd, udata) != 0) {
        W_close("rqs_add_file_monitor", fd);
        return -1;
    }
    if (apply_kev_change_ext(fd, RQS_EVFILT_VNODE, RQS_EV_ADD | RQS_EV_CLEAR, RQS_NOTE_DELETE | RQS_NOTE_RENAME,
                             udata) != 0) {
        if (read_watch)
            (void)rqs_rm_fd(fd, true, false);
        W_close("rqs_add_file_monitor", fd);
        return -1;
    }
    if (!read_watch)
        ++g_rqs.poll_fds;
    set_watched(fd, true);
    return fd;
}

void rqs_rm_file_watch(int wd)
{
    rqs_rm_file_monitor(wd, true);
}

void rqs_rm_file_monitor(int wd, bool read_watch)
{
    if (wd < 0)
        return;
    VRX_ASSERT(is_watched(wd));
    set_watched(wd, false);
    if (read_watch)
        (void)apply_kev_change(wd, RQS_EVFILT_READ, RQS_EV_DELETE, nullptr);
    (void)apply_kev_change(wd, RQS_EVFILT_VNODE, RQS_EV_DELETE, nullptr);
    W_close("rqs_rm_file_monitor", wd);
    if (g_rqs.poll_fds > 0)
        --g_rqs.poll_fds;
}

int rqs_add_nopoll_reader(int fd, ssize_t* pindex, void* udata)
{
    return add_nopoll("rqs_add_nopoll_reader", 0, fd, pindex, udata);
}

int rqs_add_nopoll_writer(int fd, ssize_t* pindex, void* udata)
{
    return add_nopoll("rqs_add_nopoll_writer", 0, fd, pindex, udata);
}

void rqs_rm_nopoll(ssize_t index)
{
    rm_nopoll_now("rqs_rm_nopoll", index);
}

void rqs_pprm_nopoll(ssize_t index)
{
    VRX_ASSERT(index >= 0);
    const ssize_t pos = xvec_add(&g_rqs.nopoll_rm, sizeof(ssize_t), 10);
    if (pos < 0) {
        LOG_AT(PANIC_level, "%s: cannot add an item to nopoll_rm\n", "rqs_pprm_nopoll");
        abort();
    }
    static_cast<ssize_t*>(g_rqs.nopoll_rm.data)[pos] = index;
    LOG_AT(DEBUG_level, "%s: added no-poll event[%ld] at pos=%ld, total: %ld no-poll events.\n", "rqs_pprm_nopoll",
           (long)index, (long)pos, (long)g_rqs.nopoll.len);
}

void rqs_purge_nopoll_rm()
{
    for (size_t i = 0; i < g_rqs.nopoll_rm.len; ++i)
        rm_nopoll_now("rqs_purge_nopoll_rm", static_cast<ssize_t*>(g_rqs.nopoll_rm.data)[i]);
    g_rqs.nopoll_rm.len = 0;
}

size_t rqs_fd_count(int which)
{
    switch (which) {
    case GET_TOTALFDS:
        return g_rqs.poll_fds + g_rqs.nopoll.len;
    case GET_POLLFDS:
        return g_rqs.poll_fds;
    case GET_NOPOLLFDS:
        return g_rqs.nopoll.len;
    default:
        LOG_AT(ERR_level, "%s: invalid specifier: %d\n", "rqs_fd_count", which);
        // Logged, not plain: the line above names the selector already.
        LOG_ASSERT(0);
        return 0;
    }
}

timespec rqs_now()
{
    return *rqs_now_ref();
}

void* rqs_ctx(int type, void* aux)
{
    (void)aux;
    if (type == RQS_CTX_STAGE)
        return &g_rqs.loop_stage;
    LOG_AT(ERR_level, "%s: invalid request type: %d\n", "rqs_ctx", type);
    return nullptr;
}

namespace {

// One pass of the loop; true when the loop ends, with its code in leave.
bool one_pass(long& failed, int& leave)
{
    const rqs_callbacks& cb = g_cfg_copy.cb;
    g_rqs.loop_stage = ELOOP_START;
    if (g_rqs.poll_fds == 0) {
        bool no_activity = (g_rqs.nopoll.len == 0);
        if (no_activity && cb.is_dormant != nullptr)
            no_activity = cb.is_dormant();
        if (g_cfg_copy.quit_on_zero_fds && no_activity) {
            LOG_AT(CRIT_level, "%s: no fd's, no activity, quitting now.\n", "rqs_event_loop");
            leave = 0;
            return true;
        }
    }
    g_rqs.events.len = 0;
    int nevents = 0;
    if (!(g_rqs.poll_fds == 0 && g_rqs.nopoll.len != 0)) {
        if (cb.update_tmout != nullptr)
            cb.update_tmout(&g_rqs.tmout);
        if (g_rqs.poll_fds > g_rqs.events.max_len &&
            xvec_reserve(&g_rqs.events, g_rqs.poll_fds, sizeof(rqs_kev), 10) != 0) {
            LOG_AT(ERR_level, "%s: xvec_reserve failed\n", "rqs_event_loop");
            abort();
        }
        LOG_AT(DEBUG_level, "%s: timeout=%f sec\n", "rqs_event_loop",
               g_rqs.tmout.tv_sec == -1 ? -1.0 : (double)g_rqs.tmout.tv_sec + (double)g_rqs.tmout.tv_nsec * 1e-9);
        psensor_begin(PRF_EVIDLE);
        nevents = rqsb_wait(g_rqs.loopfd, static_cast<rqs_kev*>(g_rqs.events.data), (int)g_rqs.events.max_len,
                            tmout_arg());
        const int err = (nevents < 0) ? errno : 0;
        psensor_end(PRF_EVIDLE);
        if (nevents < 0) {
            if (err == EINTR)
                LOG_AT(INFO_level, "%s interrupted, quit=%d\n", "rqs_event_loop", (int)g_quit);
            else
                LOG_AT(ERR_level, "%s: kevent(%d...) ERROR(%d): %s\n", "rqs_event_loop", g_rqs.loopfd, err,
                       strerror(err));
        } else {
            if (nevents >= (int)k_min_events && (size_t)nevents == g_rqs.events.max_len)
                LOG_AT(WARN_level, "%s: all event slots populated, might need more\n", "rqs_event_loop");
            g_rqs.events.len = (size_t)nevents;
            if (nevents > 0)
                LOG_AT(DEBUG_level, "%s: got %d events\n", "rqs_event_loop", nevents);
        }
        read_itime();
        LOG_AT(DEBUG_level, "%s: rqs time: %lu.%09lu\n", "rqs_event_loop", (unsigned long)rqs_now_ref()->tv_sec,
               (unsigned long)rqs_now_ref()->tv_nsec);
        if (nevents < 0 && err != EINTR) {
            leave = err;
            return true;
        }
        if (nevents < 0 && g_quit) {
            leave = EINTR;
            return true;
        }
        if (g_quit) {
            leave = 0;
            return true;
        }
        if (cb.time_out != nullptr)
            cb.time_out();
        if (nevents < 0)
            nevents = 0;
    }

    psensor_begin(PRF_EVLOOP);
    // No-poll entries; a callback may mark entries for removal meanwhile.
    if (g_rqs.nopoll_rm.max_len < g_rqs.nopoll.max_len &&
        xvec_reserve(&g_rqs.nopoll_rm, g_rqs.nopoll.max_len, sizeof(ssize_t), 10) != 0) {
        LOG_AT(PANIC_level, "%s: cannot add an item to nopoll_rm\n", "rqs_event_loop");
        abort();
    }
    g_rqs.nopoll_rm.len = 0;
    if (g_rqs.nopoll.len != 0) {
        const int rc = xvlst_each(&g_rqs.nopoll, on_nopoll, nullptr);
        if (rc != 0) {
            leave = rc;
            return true;
        }
    }
    rqs_purge_nopoll_rm();

    g_rqs.loop_stage = ELOOP_EV;
    failed = 0;
    if (nevents > 0) {
        LOG_AT(DEBUG_level, "%s: processing %d pollable events\n", "rqs_event_loop", nevents);
        for (size_t i = 0; i < (size_t)nevents; ++i)
            if (on_event(i) != 0)
                ++failed;
    }
    g_rqs.loop_stage = ELOOP_POSTEV;
    if (int rc = post_process(cb.post_process); rc != 0) {
        leave = rc;
        return true;
    }
    rqs_purge_nopoll_rm();
    if (failed > 0) {
        LOG_AT(DEBUG_level, "%s: failed %ld events\n", "rqs_event_loop", failed);
        leave = 0;
        return true;
    }
    if (int rc = (cb.on_idle != nullptr) ? cb.on_idle() : 0; rc != 0) {
        leave = rc;
        return true;
    }
    g_rqs.loop_stage = ELOOP_ENDPP;
    if (int rc = post_process(cb.post_process); rc != 0) {
        leave = rc;
        return true;
    }
    psensor_end(PRF_EVLOOP);
    leave = 0;
    return g_quit != 0;
}

}  // namespace

int rqs_event_loop()
{
    VRX_ASSERT(g_rqs.loopfd != 0);
    if (g_cfg_copy.cb.update_tmout != nullptr)
        g_cfg_copy.cb.update_tmout(&g_rqs.tmout);
    LOG_AT(INFO_level, "Entering event loop\n");
    if (g_quit)
        return 0;
    long failed = 0;
    int rc = 0;
    while (!one_pass(failed, rc)) {
    }
    // A pass that left early leaves the sensor running: stopped here.
    psensor_end(PRF_EVLOOP);
    if (rc == EINTR && g_quit)
        rc = 0;
    LOG_AT(INFO_level, "Exiting event loop, %d failed, rc=%d, quit=%d\n", (int)failed, rc, (int)g_quit);
    return rc != 0 ? rc : (int)failed;
}
