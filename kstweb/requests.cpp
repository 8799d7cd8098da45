// kst-web's requests on the loop: accept, read a head, answer; a file body
// goes out step by step as the socket can take it, so that one slow client
// never holds the loop.
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
    if (rq->file_fd >= 0)
        close(rq->file_fd);
    free(rq);
}

// A head that does not come in time gets 408; a download is not timed.
bool time_out(void* p, size_t tmout_ms)
{
    auto* rq = static_cast<kw_request*>(p);
    if (rq->answered)
        return false;
    const timespec tmout{(time_t)(tmout_ms / 1000), (long)(tmout_ms % 1000) * 1000000L};
    if (!timed_out(&rq->since, &tmout))
        return false;
    http_response r = g_resp_timeout;
    r.server = "kst-web";
    (void)send_http_response(rq->h.fd, &r);
    ++g_kw.served[2];
    rq->answered = true;
    (void)rui_pprm_request(rq);
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
    if (strstr(rq->head, "\r\n\r\n") != nullptr || strstr(rq->head, "\n\n") != nullptr || rq->len == KW_HEAD_MAX)
        kw_serve(rq);
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
    if (!rq->answered) {
        read_head(rq);
        return 0;
    }
    // After the answer only the end is awaited; a client gone mid-download
    // stops the body.
    char sink[512];
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
    const int* stage = static_cast<int*>(rqs_ctx(1, nullptr));
    if (stage != nullptr && *stage == ELOOP_ENDPP)
        rui_pprm_all(&g_kw.rctx);
    return 0;
}

void kw_on_tick()
{
    (void)rui_tmout_all(&g_kw.rctx, (size_t)g_kw.rcfg.user_request_tmout);
}
