// kst-web: one host's snapshots over HTTP, on the family's service toolkit.
// Single-threaded on the event loop; listeners and requests by rui; heads
// parsed and small answers made by webops; files sent by sendfile.
//
//   kst-web -c CONFIG_FILE
//
// The user listeners serve what can be read: /ping, the favicon answer, the
// page of instances and snapshots, each snapshot file, the snapshots of a
// prefix as an HLS playlist, an instance's flight-recorder text and
// /metrics. The admin listeners serve the same, and the snapshot trigger.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fdio.h"
#include "kstweb.h"
#include "log.h"
#include "psensor.h"
#include "rqs.h"
#include "util.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

[[noreturn]] void usage()
{
    fprintf(stderr, "usage: kst-web -c CONFIG_FILE\n");
    exit(1);
}

void tick(timespec* t)
{
    *t = timespec{0, 100 * 1000 * 1000};
}

}  // namespace

int main(int argc, char** argv)
{
    const char* conf = nullptr;
    for (int opt; (opt = getopt(argc, argv, "c:")) != -1;) {
        if (opt != 'c')
            usage();
        conf = optarg;
    }
    if (conf == nullptr || optind != argc)
        usage();

    glog_init("kst-web");
    log_default(&g_log, stderr);
    setvbuf(stderr, nullptr, _IOLBF, 0);
    signal(SIGPIPE, SIG_IGN);
    struct sigaction sa = {};
    sa.sa_handler = on_sigquit;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);

    if (kw_load_config(conf, &g_kw) != 0)
        return 1;
    for (int& level : g_mod_ll)
        level = g_kw.log_level;
    kw_dump_config(stderr, &g_kw);
    kw_set_callbacks();
    if (g_kw.probes)
        (void)psensors_init(nullptr, 1);
    if (fdio_init(-1) != 0)
        return 1;

    rqs_config cfg{};
    cfg.cb.update_tmout = tick;
    cfg.cb.read = kw_on_read;
    cfg.cb.write = kw_on_write;
    cfg.cb.post_process = kw_post_process;
    cfg.cb.time_out = kw_on_tick;
    if (rqs_init(&cfg) != 0 || rui_ctx_init(&g_kw.rcfg, &g_kw.rctx) != 0 || rui_ctx_start(&g_kw.rctx) != 0) {
        LOG_AT(ERR_level, "kst-web: the listeners could not be started\n");
        rui_ctx_destroy(&g_kw.rctx);
        rqs_destroy();
        return 1;
    }
    LOG_AT(NORM_level, "kst-web serving [%s]\n", g_kw.snap_dir);
    const int rc = rqs_event_loop();
    rui_ctx_destroy(&g_kw.rctx);
    rqs_destroy();
    fdio_destroy();
    close(g_kw.dirfd);
    LOG_AT(NORM_level, "kst-web stopped, rc=%d\n", rc);
    return rc == 0 ? 0 : 1;
}
