// The event loop's backend on Linux: epoll for descriptors, inotify for
// watched files, and a record per descriptor of what is registered, so
// that the loop sees what kqueue would show it:
// - enabling, disabling or deleting a filter that is not registered is
//   ENOENT;
// - a descriptor is in epoll only while one of its filters is on and
//   enabled (epoll reports hang-ups even for an empty mask);
// - epoll refuses regular files: a read-watched one is readable while its
//   offset is below its size, woken by inotify when it grows, and a
//   write-watched one is always writable;
// - a watched file that is moved gives NOTE_RENAME; one that is deleted
//   gives NOTE_DELETE when its link count drops to 0 (inotify's own
//   deletion comes only when the last descriptor closes, and the watcher
//   holds one).
#include "rqs_backend.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "xvdat.h"

namespace {

struct filt {
    bool on;
    bool enabled;
    void* udata;
};

struct fdrec {
    filt rd;
    filt wr;
    filt vn;
    uint32_t vn_fflags;
    bool regular;      // epoll refused it: readiness is emulated
    bool in_epoll;
    bool vn_deleted;   // NOTE_DELETE was given once
    uint32_t mask;     // what epoll has for it
    int wd;            // inotify watch, or -1
    uint32_t wd_mask;
    dev_t dev;         // what the number stood for when a filter was added:
    ino_t ino;         // kqueue forgets a descriptor's filters when it closes
};

constexpr uint64_t kInotifyTag = UINT64_MAX;

struct backend {
    int epfd = -1;
    int infd = -1;
    xvec recs{};     // fdrec, indexed by descriptor
    xvec pending{};  // rqs_kev that did not fit in the last wait
    xvec epev{};     // epoll_event
    size_t nregular = 0;  // records of regular files: no scan without one
};

backend g_be;

fdrec* rec_of(int fd, bool create)
{
    if (fd < 0)
        return nullptr;
    if ((size_t)fd >= g_be.recs.max_len) {
        if (!create)
            return nullptr;
        if (xvec_reserve(&g_be.recs, (size_t)fd + 1, sizeof(fdrec), 64) != 0)
            return nullptr;
        for (size_t i = g_be.recs.len; i < g_be.recs.max_len; ++i)
            static_cast<fdrec*>(g_be.recs.data)[i].wd = -1;
        g_be.recs.len = g_be.recs.max_len;
    }
    return &static_cast<fdrec*>(g_be.recs.data)[fd];
}

// A descriptor closed and reused: nothing of the old one is kept.
void forget(fdrec* r)
{
    if (r->regular && g_be.nregular > 0)
        --g_be.nregular;
    if (r->wd >= 0)
        (void)inotify_rm_watch(g_be.infd, r->wd);
    *r = fdrec{};
    r->wd = -1;
}

bool enabled(const filt& f)
{
    return f.on && f.enabled;
}

// Puts epoll in step with the record: in it only while a filter wants it.
// An addition always asks epoll: the number may be a new descriptor that
// epoll does not know, where the record still speaks of an old one.
int sync_epoll(int fd, fdrec* r, bool adding)
{
    if (r->regular)
        return 0;
    const uint32_t mask = (enabled(r->rd) ? (uint32_t)(EPOLLIN | EPOLLRDHUP) : 0u) |
                          (enabled(r->wr) ? (uint32_t)EPOLLOUT : 0u);
    if (!adding && mask == r->mask && r->in_epoll == (mask != 0))
        return 0;
    epoll_event ev{};
    ev.events = mask;
    ev.data.fd = fd;
    int rc = 0;
    if (mask == 0) {
        rc = epoll_ctl(g_be.epfd, EPOLL_CTL_DEL, fd, &ev);
        // A descriptor closed behind the loop's back left epoll by itself.
        if (rc != 0 && (errno == EBADF || errno == ENOENT))
            rc = 0;
        r->in_epoll = false;
    } else if (r->in_epoll) {
        rc = epoll_ctl(g_be.epfd, EPOLL_CTL_MOD, fd, &ev);
        if (rc != 0 && errno == ENOENT)
            rc = epoll_ctl(g_be.epfd, EPOLL_CTL_ADD, fd, &ev);
    } else {
        rc = epoll_ctl(g_be.epfd, EPOLL_CTL_ADD, fd, &ev);
        if (rc != 0 && errno == EEXIST)
            rc = epoll_ctl(g_be.epfd, EPOLL_CTL_MOD, fd, &ev);
        if (rc != 0 && errno == EPERM) {
            // A regular file (or another kind epoll can't wait on).
            r->regular = true;
            ++g_be.nregular;
            return 0;
        }
        if (rc == 0)
            r->in_epoll = true;
    }
    if (rc == 0)
        r->mask = mask;
    return rc;
}

// One inotify watch a descriptor: its moves and link count when watched,
// its growth when it is a read-watched regular file.
int sync_inotify(int fd, fdrec* r)
{
    const uint32_t mask = (r->vn.on ? (uint32_t)(IN_MOVE_SELF | IN_ATTRIB | IN_DELETE_SELF) : 0u) |
                          ((r->regular && r->rd.on) ? (uint32_t)IN_MODIFY : 0u);
    if (mask == r->wd_mask)
        return 0;
    if (mask == 0) {
        if (r->wd >= 0)
            (void)inotify_rm_watch(g_be.infd, r->wd);
        r->wd = -1;
        r->wd_mask = 0;
        return 0;
    }
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    const int wd = inotify_add_watch(g_be.infd, path, mask);
    if (wd < 0)
        return -1;
    r->wd = wd;
    r->wd_mask = mask;
    return 0;
}

int change_filter(int fd, fdrec* r, filt& f, const rqs_kev* c)
{
    if ((c->flags & RQS_EV_ADD) && !r->rd.on && !r->wr.on) {
        // A first filter: whatever the number held before is no guide (a
        // descriptor closed without being removed, then reused).
        if (r->regular && g_be.nregular > 0)
            --g_be.nregular;
        r->regular = false;
        r->in_epoll = false;
        r->mask = 0;
    }
    if (c->flags & RQS_EV_ADD) {
        f.on = true;
        f.enabled = !(c->flags & RQS_EV_DISABLE);
        f.udata = c->udata;
    } else if (!f.on) {
        errno = ENOENT;
        return -1;
    } else if (c->flags & RQS_EV_DELETE) {
        f = filt{};
    } else if (c->flags & RQS_EV_ENABLE) {
        f.enabled = true;
    } else if (c->flags & RQS_EV_DISABLE) {
        f.enabled = false;
    }
    if (sync_epoll(fd, r, (c->flags & RQS_EV_ADD) != 0) != 0) {
        const int err = errno;
        if (c->flags & RQS_EV_ADD)
            f = filt{};
        errno = err;
        return -1;
    }
    if (r->regular && !r->rd.on && !r->wr.on) {
        r->regular = false;
        --g_be.nregular;
    }
    return sync_inotify(fd, r);
}

int change_vnode(int fd, fdrec* r, const rqs_kev* c)
{
    if (c->flags & RQS_EV_ADD) {
        struct stat st;
        if (fstat(fd, &st) != 0)
            return -1;
        r->vn = filt{true, true, c->udata};
        r->vn_fflags = c->fflags;
        r->vn_deleted = false;
    } else if (!r->vn.on) {
        errno = ENOENT;
        return -1;
    } else if (c->flags & RQS_EV_DELETE) {
        r->vn = filt{};
    } else {
        r->vn.enabled = (c->flags & RQS_EV_ENABLE) != 0;
    }
    return sync_inotify(fd, r);
}

bool push(rqs_kev* events, int nevents, int& n, const rqs_kev& k)
{
    if (n < nevents) {
        events[n++] = k;
        return true;
    }
    if (xvec_add(&g_be.pending, sizeof(rqs_kev), 16) < 0)
        return false;
    static_cast<rqs_kev*>(g_be.pending.data)[g_be.pending.len - 1] = k;
    return true;
}

// Read-watched regular files with bytes behind their offset, and
// write-watched ones, which are always writable.
void regular_files(rqs_kev* events, int nevents, int& n)
{
    for (size_t fd = 0; g_be.nregular != 0 && fd < g_be.recs.len; ++fd) {
        const fdrec& r = static_cast<fdrec*>(g_be.recs.data)[fd];
        if (!r.regular)
            continue;
        if (enabled(r.rd)) {
            struct stat st;
            const off_t at = lseek((int)fd, 0, SEEK_CUR);
            if (at >= 0 && fstat((int)fd, &st) == 0 && at < st.st_size)
                push(events, nevents, n,
                     rqs_kev{fd, RQS_EVFILT_READ, 0, 0, (intptr_t)(st.st_size - at), r.rd.udata});
        }
        if (enabled(r.wr))
            push(events, nevents, n, rqs_kev{fd, RQS_EVFILT_WRITE, 0, 0, 0, r.wr.udata});
    }
}

void file_notes(rqs_kev* events, int nevents, int& n)
{
    alignas(inotify_event) char buf[4096];
    for (;;) {
        const ssize_t got = read(g_be.infd, buf, sizeof(buf));
        if (got <= 0)
            return;
        for (ssize_t off = 0; off < got;) {
            const auto* ie = reinterpret_cast<const inotify_event*>(buf + off);
            off += (ssize_t)(sizeof(inotify_event) + ie->len);
            for (size_t fd = 0; fd < g_be.recs.len; ++fd) {
                fdrec& r = static_cast<fdrec*>(g_be.recs.data)[fd];
                if (r.wd != ie->wd || !enabled(r.vn))
                    continue;
                uint32_t note = 0;
                if (ie->mask & IN_MOVE_SELF)
                    note |= RQS_NOTE_RENAME;
                if (!r.vn_deleted && (ie->mask & (IN_ATTRIB | IN_DELETE_SELF))) {
                    struct stat st;
                    if ((ie->mask & IN_DELETE_SELF) || (fstat((int)fd, &st) == 0 && st.st_nlink == 0)) {
                        note |= RQS_NOTE_DELETE;
                        r.vn_deleted = true;
                    }
                }
                note &= r.vn_fflags;
                if (note != 0)
                    push(events, nevents, n, rqs_kev{fd, RQS_EVFILT_VNODE, RQS_EV_CLEAR, note, 0, r.vn.udata});
                break;
            }
        }
    }
}

int socket_error(int fd)
{
    int err = 0;
    socklen_t len = sizeof(err);
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 ? err : 0;
}

void descriptor_events(const epoll_event& e, rqs_kev* events, int nevents, int& n)
{
    const int fd = e.data.fd;
    const fdrec* r = rec_of(fd, false);
    if (r == nullptr)
        return;
    const bool hup = (e.events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
    const uint32_t err = (e.events & EPOLLERR) ? (uint32_t)socket_error(fd) : 0u;
    if (enabled(r->rd) && (e.events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR))) {
        int avail = 0;
        if (ioctl(fd, FIONREAD, &avail) != 0)
            avail = 0;
        push(events, nevents, n,
             rqs_kev{(uintptr_t)fd, RQS_EVFILT_READ, (uint16_t)(hup ? RQS_EV_EOF : 0), err, avail, r->rd.udata});
    }
    if (enabled(r->wr) && (e.events & (EPOLLOUT | EPOLLHUP | EPOLLERR)))
        push(events, nevents, n,
             rqs_kev{(uintptr_t)fd, RQS_EVFILT_WRITE, (uint16_t)(hup ? RQS_EV_EOF : 0), err, 0, r->wr.udata});
}

int timeout_ms(const timespec* tmout)
{
    if (tmout == nullptr)
        return -1;
    const long long ms = (long long)tmout->tv_sec * 1000 + (tmout->tv_nsec + 999999) / 1000000;
    return ms > INT_MAX ? INT_MAX : (int)ms;
}

}  // namespace

int rqsb_open()
{
    const int epfd = epoll_create1(EPOLL_CLOEXEC);
    if (epfd < 0)
        return -1;
    const int infd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (infd < 0) {
        const int err = errno;
        close(epfd);
        errno = err;
        return -1;
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kInotifyTag;
    if (epoll_ctl(epfd, EPOLL_CTL_ADD, infd, &ev) != 0) {
        const int err = errno;
        close(infd);
        close(epfd);
        errno = err;
        return -1;
    }
    g_be.epfd = epfd;
    g_be.infd = infd;
    return epfd;
}

void rqsb_close(int loopfd)
{
    if (loopfd != g_be.epfd)
        return;
    close(g_be.infd);
    close(g_be.epfd);
    xvec_reset(&g_be.recs);
    xvec_reset(&g_be.pending);
    xvec_reset(&g_be.epev);
    g_be = backend{};
}

int rqsb_change(int loopfd, const rqs_kev* change)
{
    const int fd = (int)change->ident;
    if (loopfd != g_be.epfd || loopfd < 0) {
        errno = EBADF;
        return -1;
    }
    if (fcntl(fd, F_GETFD) < 0) {
        // Gone: a registration fails as kqueue's does; what was registered
        // went with the descriptor.
        if (fdrec* r = rec_of(fd, false); r != nullptr && !(change->flags & RQS_EV_ADD)) {
            forget(r);
            errno = ENOENT;
            return -1;
        }
        errno = EBADF;
        return -1;
    }
    fdrec* r = rec_of(fd, true);
    if (r == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    if (change->flags & RQS_EV_ADD) {
        // A number closed and reused for another file: nothing of the old
        // one's filters may stay, as none would under kqueue.
        struct stat st;
        if (fstat(fd, &st) == 0) {
            const bool known = r->rd.on || r->wr.on || r->vn.on;
            if (known && (st.st_dev != r->dev || st.st_ino != r->ino))
                forget(r);
            r->dev = st.st_dev;
            r->ino = st.st_ino;
        }
    }
    switch (change->filter) {
    case RQS_EVFILT_READ:
        return change_filter(fd, r, r->rd, change);
    case RQS_EVFILT_WRITE:
        return change_filter(fd, r, r->wr, change);
    case RQS_EVFILT_VNODE:
        return change_vnode(fd, r, change);
    default:
        errno = EINVAL;
        return -1;
    }
}

int rqsb_wait(int loopfd, rqs_kev* events, int nevents, const timespec* tmout)
{
    if (loopfd != g_be.epfd || nevents < 0) {
        errno = EINVAL;
        return -1;
    }
    int n = 0;
    // What did not fit last time comes first.
    size_t taken = 0;
    for (; taken < g_be.pending.len && n < nevents; ++taken)
        events[n++] = static_cast<rqs_kev*>(g_be.pending.data)[taken];
    if (taken != 0) {
        memmove(g_be.pending.data, static_cast<rqs_kev*>(g_be.pending.data) + taken,
                (g_be.pending.len - taken) * sizeof(rqs_kev));
        g_be.pending.len -= taken;
    }
    regular_files(events, nevents, n);

    // With no room at all the wait still waits: what comes is kept for later.
    if (g_be.epev.max_len <= (size_t)nevents &&
        xvec_reserve(&g_be.epev, (size_t)nevents, sizeof(epoll_event), 16) != 0) {
        errno = ENOMEM;
        return -1;
    }
    const int wait_ms = (n > 0) ? 0 : timeout_ms(tmout);
    auto* epev = static_cast<epoll_event*>(g_be.epev.data);
    const int got = epoll_wait(g_be.epfd, epev, nevents > 0 ? nevents : 1, wait_ms);
    if (got < 0)
        return n > 0 ? n : -1;
    bool files_changed = false;
    for (int i = 0; i < got; ++i) {
        if (epev[i].data.u64 == kInotifyTag) {
            file_notes(events, nevents, n);
            files_changed = true;
        } else {
            descriptor_events(epev[i], events, nevents, n);
        }
    }
    // A file that grew is readable now; those seen before the wait are
    // not given twice.
    if (files_changed && wait_ms != 0)
        regular_files(events, nevents, n);
    return n;
}
