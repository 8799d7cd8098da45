// Request listeners on the event loop: accept, queue, time out, remove at a
// safe point, and stop listening while the queue is near its limit. Some
// messages keep spellings of their own ("requsts", "wll", "for for").
#include "rui.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "rqs.h"
#include "syswrap.h"
#include "util.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DEFAULT);

rui_socket_cb g_scb[RUI_MAX];

static_assert(offsetof(rui_rq_header, prev) == offsetof(dlep_elem, prev) &&
                  offsetof(rui_rq_header, next) == offsetof(dlep_elem, next),
              "a request's header links like a list element");

namespace {

constexpr size_t k_pprm_blksz = sizeof(void*);

rui_rq_header* as_rq(void* p)
{
    return static_cast<rui_rq_header*>(p);
}

dlep_elem* as_elem(void* p)
{
    return reinterpret_cast<dlep_elem*>(p);
}

bool is_marked(const rui_socket_ctx* srv, int fd)
{
    return fd >= 0 && (size_t)fd < srv->accset.max_len && static_cast<char*>(srv->accset.data)[fd];
}

void mark(rui_socket_ctx* srv, int fd, bool on)
{
    if (fd < 0)
        return;
    if (on && (size_t)fd >= srv->accset.max_len && xvec_reserve(&srv->accset, (size_t)fd + 1, 1, 256) != 0)
        return;
    if ((size_t)fd < srv->accset.max_len)
        static_cast<char*>(srv->accset.data)[fd] = on ? 1 : 0;
}

const char* alias_of(const rui_socket_ctx* srv)
{
    return (srv->lc != nullptr && srv->lc->alias[0] != '\0') ? srv->lc->alias : "?";
}

rui_socket_ctx* class_ctx(rui_ctx* ctx, int type)
{
    return type == RUI_USER ? ctx->user : type == RUI_ADMIN ? ctx->admin : ctx->custom;
}

void rm_request(void* p, bool from_pprm)
{
    rui_rq_header* rqh = as_rq(p);
    VRX_ASSERT(rqh->srv->cb);
    rui_socket_ctx* srv = rqh->srv;
    const int fd = rqh->fd;
    mark(srv, fd, false);
    const bool unmonitored = rqs_rm_fd(fd, true, false) == 0;
    if (!unmonitored)
        LOG_AT(ERR_level, "%s: failed to remove fd=%d from the monitored set.\n", "rm_request", fd);
    if (!from_pprm) {
        for (size_t i = 0; srv->pprm.taken != nullptr && i <= srv->pprm.last && i < srv->pprm.max_len; ++i) {
            if (srv->pprm.taken[i] == 1 && static_cast<void**>(srv->pprm.data)[i] == p) {
                (void)xvlst_del(&srv->pprm, i, nullptr);
                LOG_AT(DEBUG_level, "%s: removed (%p) from PPRM\n", "rm_request", p);
            }
        }
    }
    if (dlep_rm(srv->requests, as_elem(p)) != as_elem(p)) {
        LOG_AT(ERR_level, "%s: failed to remove %s request [%p] from queue\n", "rm_request", srv->rqtag.sym, p);
        return;
    }
    if (fd >= 0)
        close(fd);
    rqh->fd = -1;
    srv->cb->rm_rq(p);
    if (unmonitored)
        LOG_AT(INFO_level, "%s: OK for fd=%d rq=%p\n", "rm_request", fd, p);
}

void pprm_cleanup(void* data, size_t j)
{
    void* p = static_cast<void**>(data)[j];
    LOG_AT(DEBUG_level, "%s: %s [%s] (%p) j=%ld\n", "pprm_cleanup", "removing", as_rq(p)->srv->rqtag.sym, p, (long)j);
    rm_request(p, true);
}

void pprm_srv(rui_socket_ctx* srv)
{
    for (size_t i = 0; i < MAX_LISTENERS && srv[i].lc != nullptr && srv[i].lc->is_valid; ++i) {
        if (srv[i].tag.num != RSC_TAG.num)
            continue;
        LOG_AT(DEBUG_level, "%s: [%s] listener[%s], %zu pprm items\n", "pprm_srv", srv[i].rqtag.sym,
               alias_of(&srv[i]), srv[i].pprm.len);
        xvlst_purge_all(&srv[i].pprm, pprm_cleanup);
    }
    LOG_AT(DEBUG_level, "%s: done for for [%s]\n", "pprm_srv", srv[0].rqtag.sym);
}

size_t tmout_srv(rui_socket_ctx* srv, size_t tmout_ms)
{
    if (srv[0].tag.num != RSC_TAG.num)
        return 0;
    VRX_ASSERT(srv[0].cb->time_out);
    size_t count = 0;
    for (size_t i = 0; i < MAX_LISTENERS && srv[i].tag.num == RSC_TAG.num; ++i) {
        for (dlep_elem* e = dlep_tail(srv[i].requests); e != nullptr;) {
            dlep_elem* nx = e->next;
            if (srv[i].cb->time_out(e, tmout_ms))
                ++count;
            e = nx;
        }
    }
    if (count > 0)
        LOG_AT(WARN_level, "%s: %lu [%s] requests timed out\n", "tmout_srv", (unsigned long)count, srv[0].rqtag.sym);
    else
        LOG_AT(DEBUG_level, "%s: no time-outs for [%s]\n", "tmout_srv", srv[0].rqtag.sym);
    return count;
}

// Step 4 of an accept: the connection's options. 0 or the failure's code.
int set_up_connection(int fd, int family, uint32_t flags)
{
    if (set_nblock(fd, 1) != 0)
        return -1;
    if (family != AF_INET && family != AF_INET6)
        return 0;
    const int lowat = RUI_LOW_WMARK;
    if (W_setsockopt("rui_accept", fd, SOL_SOCKET, SO_RCVLOWAT, &lowat, sizeof(lowat)) != 0)
        return errno;
    LOG_AT(DEBUG_level, "%s: low watermark set to %d for fd=%d\n", "rui_accept", lowat, fd);
    if ((flags & RUI_TCP_NODELAY) && set_tcp_nodelay(fd, 1) != 0)
        return errno;
    return 0;
}

}  // namespace

void rui_set_cb(int type, const rui_socket_cb* cb)
{
    VRX_ASSERT(type >= 0 && type < RUI_MAX);
    g_scb[type] = *cb;
}

int rui_setup_listeners(int type, rui_listener_cfg* lc, rui_socket_ctx* srv)
{
    VRX_ASSERT(type >= 0 && type < RUI_MAX);
    rui_socket_cb* cb = &g_scb[type];
    size_t i = 0;
    for (; i < MAX_LISTENERS && lc[i].is_valid; ++i) {
        VRX_ASSERT(cb->new_rq && cb->rm_rq);
        int rc = 0;
        srv[i].requests = dlep_create(&rc);
        if (srv[i].requests == nullptr) {
            LOG_AT(ERR_level, "%s: dlep_create() failed rc=%d\n", "rui_setup_listeners", rc);
            return rc;
        }
        srv[i].pprm = xvlst{};
        rc = xvlst_reserve(&srv[i].pprm, 8, k_pprm_blksz, 4);
        if (rc != 0) {
            LOG_AT(ERR_level, "%s: xvlst_reserve() failed rc=%d\n", "rui_setup_listeners", rc);
            return rc;
        }
        srv[i].tag = RSC_TAG;
        srv[i].sockfd = -1;
        srv[i].accset = xvec{};
        srv[i].lc = &lc[i];
        srv[i].rqtag = cb->tag;
        srv[i].cb = cb;
    }
    if (i > 0)
        LOG_AT(DEBUG_level, "%s: %lu [%s] listeners set up\n", "rui_setup_listeners", (unsigned long)i, cb->tag.sym);
    return 0;
}

int rui_ctx_init(rui_cfg* cfg, rui_ctx* ctx)
{
    *ctx = rui_ctx{};
    int rc = rui_setup_listeners(RUI_USER, cfg->user, ctx->user);
    if (rc == 0)
        rc = rui_setup_listeners(RUI_ADMIN, cfg->admin, ctx->admin);
    if (rc == 0)
        rc = rui_setup_listeners(RUI_CUSTOM, cfg->custom, ctx->custom);
    return rc;
}

int rui_enable_listeners(rui_socket_ctx* srv)
{
    size_t n = 0;
    for (size_t i = 0; i < MAX_LISTENERS && srv[i].lc != nullptr && srv[i].lc->is_valid; ++i) {
        if (rui_start_listener(srv[i].lc, &srv[i]) != 0)
            return -1;
        ++n;
    }
    if (n > 0)
        LOG_AT(DEBUG_level, "%s: %lu [%s] listener(s) started\n", "rui_enable_listeners", (unsigned long)n,
               srv[0].rqtag.sym);
    return 0;
}

int rui_ctx_start(rui_ctx* ctx)
{
    for (int type = RUI_USER; type < RUI_MAX; ++type)
        if (rui_enable_listeners(class_ctx(ctx, type)) != 0)
            return -1;
    return 0;
}

int rui_start_listener(rui_listener_cfg* cfg, rui_socket_ctx* srv)
{
    VRX_ASSERT(srv->rqtag.num && srv->cb->new_rq && srv->cb->rm_rq);
    VRX_ASSERT(srv->sockfd == -1);
    srv->lc = cfg;
    int fd = -1;
    if (cfg->domain_path[0] != '\0') {
        fd = open_domain_listener(cfg->domain_path);
    } else if (cfg->proto == IPPROTO_UDP) {
        if (cfg->ifc != nullptr)
            fd = open_udp_listener(&cfg->ifc->ss, cfg->port);
    } else if (cfg->proto == IPPROTO_TCP) {
        fd = (cfg->ifc != nullptr) ? open_listener(&cfg->ifc->ss, cfg->port, 0)
                                   : open_anyaddr_listener(cfg->pref_af, cfg->port, 0);
    }
    if (fd >= 0 && rqs_add_reader(fd, srv) != 0) {
        W_close("rui_start_listener", fd);
        fd = -1;
    }
    if (fd < 0) {
        srv->sockfd = -1;
        LOG_AT(ERR_level, "%s: failed to start %s listener\n", "rui_start_listener", srv->rqtag.sym);
        return -1;
    }
    srv->sockfd = fd;
    srv->deferred = false;
    const char* where = cfg->domain_path[0] != '\0' ? cfg->domain_path : cfg->ifc != nullptr ? cfg->ifc->name : "all";
    LOG_AT(INFO_level, "STARTED listener fd%d for %s requests on %s:%s; %lu requests pending\n", fd, srv->rqtag.sym,
           where, cfg->port, (unsigned long)dlep_count(srv->requests));
    return 0;
}

void rui_stop_listener(rui_socket_ctx* srv)
{
    if (srv->sockfd <= 0)
        return;
    VRX_ASSERT(0 == srv->deferred && srv->sockfd >= 0);
    const size_t queued = dlep_count(srv->requests);
    if (queued > 0)
        LOG_AT(WARN_level, "%s listener fd%d wll be closed (%lu requsts queued)\n", srv->rqtag.sym, srv->sockfd,
               (unsigned long)queued);
    (void)rqs_rm_fd(srv->sockfd, true, false);
    W_close("rui_stop_listener", srv->sockfd);
    srv->sockfd = -1;
    srv->deferred = true;
}

bool rui_should_listen(rui_socket_ctx* srv, size_t max_req)
{
    VRX_ASSERT(srv->cb);
    const size_t queued = dlep_count(srv->requests);
    if (queued >= max_req || queued >= ((max_req * 3) >> 2))
        return false;
    if (srv->sockfd < 0)
        LOG_AT(INFO_level, "%s: %s (%lu requsts queued)\n", "rui_should_listen", srv->rqtag.sym,
               (unsigned long)queued);
    return true;
}

void stop_listeners(rui_socket_ctx* srv, bool destroy)
{
    size_t n = 0;
    for (size_t i = 0; i < MAX_LISTENERS && srv[i].lc != nullptr && srv[i].lc->is_valid; ++i, ++n) {
        if (!destroy) {
            rui_stop_listener(&srv[i]);
            continue;
        }
        if (srv[i].tag.num != RSC_TAG.num)
            continue;
        if (srv[i].sockfd > 0)
            rui_stop_listener(&srv[i]);
        srv[i].deferred = true;
        // Every queued request goes as by rui_rm_request.
        while (dlep_t q = srv[i].requests) {
            dlep_elem* e = dlep_tail(q);
            if (e == nullptr)
                break;
            rm_request(e, false);
        }
        dlep_destroy(srv[i].requests, nullptr);
        srv[i].requests = nullptr;
        free(srv[i].lc->ifc);
        srv[i].lc->ifc = nullptr;
        srv[i].lc->is_valid = false;
        xvlst_reset(&srv[i].pprm);
        xvec_reset(&srv[i].accset);
        srv[i].tag.num = 0;
    }
    if (n > 0)
        LOG_AT(DEBUG_level, "%s: %lu [%s] listener(s) %s\n", "stop_listeners", (unsigned long)n, srv[0].rqtag.sym,
               destroy ? "destroyed" : "stopped");
}

void rui_ctx_destroy(rui_ctx* ctx)
{
    for (int type = RUI_USER; type < RUI_MAX; ++type)
        stop_listeners(class_ctx(ctx, type), true);
}

ssize_t rui_accept(rui_socket_ctx* srv, size_t max_accept, uint32_t flags, void* data)
{
    ssize_t accepted = 0;
    while (!g_quit && max_accept != 0) {
        sockaddr_storage peer{};
        socklen_t plen = sizeof(peer);
        const int fd = W_accept("rui_accept", srv->sockfd, (sockaddr*)&peer, &plen);
        if (fd < 0) {
            const int err = errno;
            if (err == EINTR && !g_quit)
                continue;
            if (err == EAGAIN || err == EWOULDBLOCK) {
                LOG_AT(DEBUG_level, "%s(%s): end of accept queue reached\n", "rui_accept", srv->rqtag.sym);
                break;
            }
            if (err == ECONNABORTED || err == ECONNRESET) {
                LOG_AT(INFO_level, "%s(%s): connection aborted/reset before accept()\n", "rui_accept",
                       srv->rqtag.sym);
                continue;
            }
            break;
        }
        char peer_str[128] = "";
        if (saddr_str((sockaddr*)&peer, plen, peer_str, sizeof(peer_str)) == nullptr)
            peer_str[0] = '\0';
        LOG_AT(INFO_level, "Accepted %s request [fd=%d] from %s\n", alias_of(srv), fd, peer_str);
        int rc = set_up_connection(fd, peer.ss_family, flags);
        if (rc == 0)
            rc = rui_add_request(fd, srv, data);
        if (rc != 0) {
            LOG_AT(ERR_level, "Error rc=%d processing connection [%s] fd=%d\n", rc, alias_of(srv), fd);
            // A request queued but not monitored has its own descriptor:
            // removing it closes that.
            if (is_marked(srv, fd))
                mark(srv, fd, false);
            close(fd);
            continue;
        }
        if ((size_t)++accepted >= max_accept) {
            LOG_AT(WARN_level, "%s(%s): CANNOT ACCEPT ALL (accepted=%ld), max=%lu\n", "rui_accept", srv->rqtag.sym,
                   (long)accepted, (unsigned long)max_accept);
            break;
        }
    }
    return accepted;
}

int rui_add_request(int fd, rui_socket_ctx* srv, void* data)
{
    const size_t queued = dlep_count(srv->requests);
    if (queued >= MAX_RUI_QUEUED) {
        LOG_AT(ERR_level, "%s: Too many user requests (%lu) queued\n", "rui_add_request", (unsigned long)queued);
        return EBUSY;
    }
    VRX_ASSERT(srv->cb);
    void* rq = srv->cb->new_rq(fd, srv, data);
    if (rq == nullptr)
        return -1;
    if (dlep_append(srv->requests, as_elem(rq)) != as_elem(rq)) {
        LOG_AT(ERR_level, "%s: failed to queue [%s] request [%p]\n", "rui_add_request", srv->rqtag.sym, rq);
        srv->cb->rm_rq(rq);
        return -1;
    }
    if (is_marked(srv, fd))
        LOG_AT(ERR_level, "%s: socket fd=%d is already marked queued\n", "rui_add_request", fd);
    mark(srv, fd, true);
    const int rc = rqs_add_reader(fd, rq);
    if (rc != 0) {
        LOG_AT(ERR_level, "%s: failed to add fd=%d to the monitored set\n", "rui_add_request", fd);
        return rc;
    }
    LOG_AT(INFO_level, "%s: OK for fd=%d, rq=%p\n", "rui_add_request", fd, rq);
    return 0;
}

void rui_rm_request(void* p)
{
    rm_request(p, false);
}

int rui_pprm_request(void* p)
{
    rui_socket_ctx* srv = as_rq(p)->srv;
    for (size_t i = 0; srv->pprm.taken != nullptr && i <= srv->pprm.last && i < srv->pprm.max_len; ++i)
        if (srv->pprm.taken[i] == 1 && static_cast<void**>(srv->pprm.data)[i] == p)
            return 0;
    const ssize_t at = xvlst_add(&srv->pprm, k_pprm_blksz, 4);
    if (at < 0)
        return -1;
    static_cast<void**>(srv->pprm.data)[at] = p;
    return 0;
}

void rui_pprm_all(rui_ctx* ctx)
{
    for (int type = RUI_USER; type < RUI_MAX; ++type) {
        rui_socket_ctx* srv = class_ctx(ctx, type);
        if (srv[0].tag.num == RSC_TAG.num)
            pprm_srv(srv);
    }
}

size_t rui_tmout_all(rui_ctx* ctx, size_t tmout_ms)
{
    size_t n = 0;
    for (int type = RUI_USER; type < RUI_MAX; ++type)
        n += tmout_srv(class_ctx(ctx, type), tmout_ms);
    return n;
}

void rui_mk_trknum(size_t* count, n64_tag* tag, char pfx, size_t max)
{
    if (*count >= max) {
        *count = 0;
        LOG_AT(DEBUG_level, "%s: rolling over %c-requests\n", "rui_mk_trknum", pfx);
    }
    ++*count;
    tag->num64 = 0;
    tag->sym8[0] = pfx;
    snprintf(tag->sym8 + 1, sizeof(tag->sym8) - 1, "%04lu", (unsigned long)*count);
}

void rui_crash_on_error(rui_socket_ctx* rsc, bool is_hup)
{
    const int err = socket_error(rsc->sockfd);
    LOG_AT(PANIC_level, "%s: %s listener[%s] ERROR(%d): %s\n", "rui_crash_on_error", is_hup ? "HUP" : "",
           alias_of(rsc), err, strerror(err));
    char bt[512] = {};
    (void)btrace_to_buf(bt, sizeof(bt) - 1);
    LOG_AT(PANIC_level, "Aborting at:\n%s==\n", bt);
    if (log_fp(&g_log) != nullptr)
        fflush(log_fp(&g_log));
    abort();
}
