// A small HTTP service on the toolkit, for end-to-end tests with real
// clients: the event loop, request listeners from a configuration file,
// request heads parsed and canned responses sent.
//
//   rui_server CONFIG_FILE [FLOW_LIMIT]
//
// The file holds a group "listeners" (user, admin and custom listeners,
// max_to_accept, time-outs). Every request gets one response and the
// connection is closed: /ping 200, /favicon.ico 404, a path that names a
// source 200 with the source and destination in X- headers, anything else
// 400; a request whose head does not arrive within its class's time-out
// gets 408. With FLOW_LIMIT the user listeners stop listening at three
// quarters of it. SIGTERM stops the loop; the log goes to standard error.
#include <sys/resource.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "appcfg.h"
#include "config.h"
#include "log.h"
#include "rqs.h"
#include "rui.h"
#include "timeop.h"
#include "util.h"
#include "webops.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr n32_tag k_rq_tag = mk_n32_tag("Req");
constexpr size_t k_head_max = 8192;

struct conn_rq {
    rui_rq_header h;
    timespec since;
    size_t len;
    bool done;
    char buf[k_head_max + 1];
};

rui_cfg g_rcfg;
rui_ctx g_rctx;
size_t g_flow_limit = 0;
size_t g_trk = 0;

void* new_rq(int fd, rui_socket_ctx* srv, void*)
{
    auto* rq = static_cast<conn_rq*>(calloc(1, sizeof(conn_rq)));
    if (rq == nullptr)
        return nullptr;
    rq->h.tag = k_rq_tag;
    rq->h.srv = srv;
    rq->h.fd = fd;
    rui_mk_trknum(&g_trk, &rq->h.trk_tag, 'R', MAX_RQNUM);
    set_clk_now(&rq->since, CLOCK_MONOTONIC);
    return rq;
}

void rm_rq(void* rq)
{
    free(rq);
}

void answer(conn_rq* rq, const http_response* canned, const char* src = nullptr, const char* dst = nullptr)
{
    http_response r = *canned;
    r.server = "rui-test";
    char suffix[600];
    if (src != nullptr) {
        snprintf(suffix, sizeof(suffix), "X-Source: %s\r\nX-Destination: %s", src, dst);
        r.ok_suffix = suffix;
    }
    if (r.content_length < 0)
        r.content_length = 0;
    (void)send_http_response(rq->h.fd, &r);
    rq->done = true;
    (void)rui_pprm_request(rq);
}

bool time_out(void* p, size_t tmout_ms)
{
    auto* rq = static_cast<conn_rq*>(p);
    if (rq->done)
        return false;
    const timespec tmout{(time_t)(tmout_ms / 1000), (long)(tmout_ms % 1000) * 1000000L};
    if (!timed_out(&rq->since, &tmout))
        return false;
    answer(rq, &g_resp_timeout);
    return true;
}

void serve(conn_rq* rq)
{
    char src[256];
    char dst[256];
    http_header hdr;
    const int rc = web_parse_urq(rq->buf, rq->len, src, dst, sizeof(src), &hdr);
    if (rc == RC_PING)
        answer(rq, &g_resp_ok);
    else if (rc == RC_FAVICON)
        answer(rq, &g_resp_nfound);
    else if (rc == 0)
        answer(rq, &g_resp_ok, src, dst);
    else
        answer(rq, &g_resp_bad);
}

int on_read(int fd, uint32_t flags, void* udata, void*)
{
    if (static_cast<n32_tag*>(udata)->num == RSC_TAG.num) {
        auto* srv = static_cast<rui_socket_ctx*>(udata);
        if (flags & RQS_SOCKERR)
            rui_crash_on_error(srv, (flags & RQS_SOCKHUP) != 0);
        (void)rui_accept(srv, g_rcfg.max_accept, RUI_TCP_NODELAY, nullptr);
        return 0;
    }
    auto* rq = static_cast<conn_rq*>(udata);
    if (rq->done)
        return 0;
    const ssize_t n = read(fd, rq->buf + rq->len, k_head_max - rq->len);
    if (n <= 0) {
        (void)rui_pprm_request(rq);
        return 0;
    }
    rq->len += (size_t)n;
    rq->buf[rq->len] = '\0';
    if (strstr(rq->buf, "\r\n\r\n") != nullptr || strstr(rq->buf, "\n\n") != nullptr)
        serve(rq);
    else if (rq->len == k_head_max)
        answer(rq, &g_resp_bad);
    return 0;
}

void flow_control(rui_socket_ctx* srv)
{
    for (size_t i = 0; g_flow_limit != 0 && i < MAX_LISTENERS && srv[i].tag.num == RSC_TAG.num; ++i) {
        const bool listen_on = rui_should_listen(&srv[i], g_flow_limit);
        if (!listen_on && srv[i].sockfd >= 0)
            rui_stop_listener(&srv[i]);
        else if (listen_on && srv[i].sockfd < 0 && srv[i].deferred)
            (void)rui_start_listener(srv[i].lc, &srv[i]);
    }
}

int post_process()
{
    if (rqs_ctx(RQS_CTX_STAGE, nullptr) != nullptr && *static_cast<int*>(rqs_ctx(RQS_CTX_STAGE, nullptr)) == ELOOP_ENDPP) {
        rui_pprm_all(&g_rctx);
        flow_control(g_rctx.user);
    }
    return 0;
}

void tick(timespec* t)
{
    *t = timespec{0, 50 * 1000 * 1000};
}

void on_tick()
{
    (void)rui_tmout_all(&g_rctx, (size_t)g_rcfg.user_request_tmout);
}

int load(const char* path)
{
    config_init(&g_libcfg);
    if (config_read_file(&g_libcfg, path) != CONFIG_TRUE) {
        fprintf(stderr, "%s: line %d: %s\n", path, config_error_line(&g_libcfg), config_error_text(&g_libcfg));
        config_destroy(&g_libcfg);
        return -1;
    }
    const config_setting_t* s = config_lookup(&g_libcfg, "listeners");
    const int rc = (s != nullptr) ? load_rui_config(s, &g_rcfg) : -1;
    config_destroy(&g_libcfg);
    return rc;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: rui_server CONFIG_FILE [FLOW_LIMIT]\n");
        return 1;
    }
    glog_init("rui-test");
    log_default(&g_log, stderr);
    setvbuf(stderr, nullptr, _IOLBF, 0);
    // INFO: every accept, queueing and removal is told, for the tests to count.
    for (int& level : g_mod_ll)
        level = getenv("RUI_DEBUG") ? DEBUG_level : INFO_level;
    if (argc > 2)
        g_flow_limit = (size_t)atol(argv[2]);
    rlimit rl{};
    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
    signal(SIGPIPE, SIG_IGN);
    struct sigaction sa = {};
    sa.sa_handler = on_sigquit;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);

    if (load(argv[1]) != 0)
        return 1;
    dump_rui_config(stderr, &g_rcfg);
    const rui_socket_cb cbs[RUI_MAX] = {{mk_n32_tag("usr"), new_rq, rm_rq, time_out},
                                        {mk_n32_tag("adm"), new_rq, rm_rq, time_out},
                                        {mk_n32_tag("cus"), new_rq, rm_rq, time_out}};
    for (int type = RUI_USER; type < RUI_MAX; ++type)
        rui_set_cb(type, &cbs[type]);
    rqs_config cfg{};
    cfg.cb.update_tmout = tick;
    cfg.cb.read = on_read;
    cfg.cb.post_process = post_process;
    cfg.cb.time_out = on_tick;
    if (rqs_init(&cfg) != 0 || rui_ctx_init(&g_rcfg, &g_rctx) != 0 || rui_ctx_start(&g_rctx) != 0)
        return 1;
    LOG_AT(NORM_level, "rui-test ready\n");
    const int rc = rqs_event_loop();
    rui_ctx_destroy(&g_rctx);
    rqs_destroy();
    LOG_AT(NORM_level, "rui-test stopped, rc=%d\n", rc);
    return rc == 0 ? 0 : 1;
}
