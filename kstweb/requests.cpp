// kst-web's requests on the loop: accept, read a head, answer; a file body
// goes out step by step as the socket can take it, so that one slow client
// never holds the loop. A listener whose queue fills stops accepting until
// it drains.
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kstweb.h"
#include "log.h"
#include "rqs.h"
#include "timeop.h"
#include "webops.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr n32_tag k_rq_tag = mk_n32_tag("KwR");
size_t g_trk = 0;

void* new_rq(int fd, rui_socket_ctx* srv, void*)
{
    auto* rq = static_cast<kw_request*>(calloc(1, sizeof(kw_request)));
    if (rq == nullptr)
        return nullptr;
    rq->h.tag = k_rq_tag;
    rq->h.srv = srv;
    rq->h.fd = fd;
    rq->file_fd = -1;
    rui_mk_trknum(&g_trk, &rq->h.trk_tag, 'W', MAX_RQNUM);
    set_clk_now(&rq->since, CLOCK_MONOTONIC);
    return rq;
}

void rm_rq(void* p)
{
    auto* rq = static_cast<kw_request*>(p);
    kw_trigger_forget(rq);
    if (rq->file_fd >= 0)
        close(rq->file_fd);
    free(rq);
}

// A head that does not come in time gets 408, and a client that still sends
// after an early answer is dropped then; a download is not timed, nor a
// trigger, which has its own limit.
bool time_out(void* p, size_t tmout_ms)
{
    auto* rq = static_cast<kw_request*>(p);
    if (rq->waiting || (rq->answered && !rq->draining))
        return false;
    // rui_tmout_all hands every class the same time-out: the admin class
    // has its own.
    if (kw_is_admin(rq))
        tmout_ms = (size_t)g_kw.rcfg.admin_request_tmout;
    const timespec tmout{(time_t)(tmout_ms / 1000), (long)(tmout_ms % 1000) * 1000000L};
    if (!timed_out(&rq->since, &tmout))
        return false;
    if (rq->draining) {
        rq->draining = false;
        (void)rui_pprm_request(rq);
        return true;
    }
    LOG_AT(WARN_level, "%s: %.8s: no whole head within %zu ms\n", "time_out", rq->h.trk_tag.sym8, tmout_ms);
    // A slow client may still be sending: as for an oversized head, what
    // it sends is dropped until it closes, so that it reads the answer.
    rq->draining = true;
    set_clk_now(&rq->since, CLOCK_MONOTONIC);
    kw_answer(rq, g_resp_timeout);
    (void)shutdown(rq->h.fd, SHUT_WR);
    return true;
}

void read_head(kw_request* rq)
{
    const ssize_t n = read(rq->h.fd, rq->head + rq->len, KW_HEAD_MAX - rq->len);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return;
    if (n <= 0) {
        (void)rui_pprm_request(rq);
        return;
    }
    rq->len += (size_t)n;
    rq->head[rq->len] = '\0';
    if (strstr(rq->head, "\r\n\r\n") != nullptr || strstr(rq->head, "\n\n") != nullptr) {
        kw_serve(rq);
    } else if (rq->len == KW_HEAD_MAX) {
        // The client may still be sending: its bytes are read and dropped
        // until it closes, so that the answer is not lost to a reset (a
        // socket closed with unread bytes resets the connection).
        LOG_AT(WARN_level, "%s: %.8s: a head over %zu bytes refused\n", "read_head", rq->h.trk_tag.sym8, KW_HEAD_MAX);
        rq->draining = true;
        set_clk_now(&rq->since, CLOCK_MONOTONIC);
        kw_answer_code(rq, 431, "Request Header Fields Too Large");
        (void)shutdown(rq->h.fd, SHUT_WR);
    }
}

// Flow control: a listener whose queue reaches three quarters of the limit
// is closed until the queue falls again.
void flow_control(rui_socket_ctx* srv)
{
    for (size_t i = 0; i < MAX_LISTENERS; ++i) {
        rui_socket_ctx* s = &srv[i];
        if (s->tag.num != RSC_TAG.num || s->lc == nullptr || !s->lc->is_valid)
            continue;
        const bool listen = rui_should_listen(s, g_kw.max_requests);
        if (!listen && s->sockfd >= 0)
            rui_stop_listener(s);
        else if (listen && s->deferred)
            (void)rui_start_listener(s->lc, s);
    }
}

}  // namespace

void kw_set_callbacks()
{
    const rui_socket_cb cbs[RUI_MAX] = {{mk_n32_tag("usr"), new_rq, rm_rq, time_out},
                                        {mk_n32_tag("adm"), new_rq, rm_rq, time_out},
                                        {mk_n32_tag("cus"), new_rq, rm_rq, time_out}};
    for (int type = RUI_USER; type < RUI_MAX; ++type)
        rui_set_cb(type, &cbs[type]);
}

int kw_on_read(int, uint32_t flags, void* udata, void*)
{
    if (static_cast<n32_tag*>(udata)->num == RSC_TAG.num) {
        auto* srv = static_cast<rui_socket_ctx*>(udata);
        if (flags & RQS_SOCKERR)
            rui_crash_on_error(srv, (flags & RQS_SOCKHUP) != 0);
        (void)rui_accept(srv, g_kw.rcfg.max_accept, RUI_TCP_NODELAY, nullptr);
        return 0;
    }
    auto* rq = static_cast<kw_request*>(udata);
    if (!rq->answered && !rq->waiting) {
        read_head(rq);
        return 0;
    }
    // After the answer only the end is awaited; a client gone mid-download
    // stops the body, one gone while its trigger waits leaves the trigger
    // without an answer.
    char sink[4096];
    const ssize_t n = read(rq->h.fd, sink, sizeof(sink));
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return 0;
    if (n <= 0) {
        if (rq->sending) {
            rq->sending = false;
            (void)rqs_mod(rq->h.fd, rq, RQS_READ);
        }
        (void)rui_pprm_request(rq);
    }
    return 0;
}

int kw_on_write(int fd, uint32_t, void* udata, void*)
{
    auto* rq = static_cast<kw_request*>(udata);
    if (!rq->sending)
        return 0;
    ssize_t moved = 0;
    const int rc = transfer(&rq->tsp, 0, &moved);
    if (moved > 0)
        g_kw.served[5] += (uint64_t)moved;
    if (rc != 0 && errno == EAGAIN) {
        // The socket is full for now: the next write event goes on.
        rq->fdio_flags &= ~(FDIO_ERR_READ | FDIO_ERR_WRITE);
        return 0;
    }
    if (rc != 0 || (rq->fdio_flags & (FDIO_EOF | FDIO_ERR_READ | FDIO_ERR_WRITE))) {
        rq->sending = false;
        (void)rqs_mod(fd, rq, RQS_READ);
        (void)rui_pprm_request(rq);
    }
    return 0;
}

int kw_post_process()
{
    const int* stage = static_cast<int*>(rqs_ctx(RQS_CTX_STAGE, nullptr));
    if (stage != nullptr && *stage == ELOOP_ENDPP) {
        rui_pprm_all(&g_kw.rctx);
        flow_control(g_kw.rctx.user);
        flow_control(g_kw.rctx.admin);
    }
    return 0;
}

void kw_on_tick()
{
    (void)rui_tmout_all(&g_kw.rctx, (size_t)g_kw.rcfg.user_request_tmout);
    kw_trigger_poll();
}

bool kw_is_admin(const kw_request* rq)
{
    for (const rui_socket_ctx& s : g_kw.rctx.admin)
        if (rq->h.srv == &s)
            return true;
    return false;
}
