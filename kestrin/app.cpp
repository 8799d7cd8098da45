// The capture loop: the source is read straight into the ring, one read a turn.
#include <sys/socket.h>
#include <unistd.h>
#include <cstdlib>
#include <cerrno>
#include <cstring>

#include "analysis.h"
#include "kst.h"
#include "netops.h"
#include "platform.h"
#include "log.h"
#include "syswrap.h"
#include "uri.h"
#include "util.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DEFAULT);

ksti_ctx g_ctx;
ksti_cfg g_cfg;
const char* g_sysw_debug = nullptr;
const char* const g_app_name = "kst";
volatile sig_atomic_t g_snapshot = 0;
volatile sig_atomic_t g_snapalarm = 0;

bool is_dgram_kind(int kind)
{
    return kind == URI_UDP || kind == URI_RTP;
}

namespace {

// Only when the configuration asks: the receive buffer of a datagram source
// is what holds the stream while the loop writes a snapshot.
void size_source_rcvbuf()
{
    if (g_cfg.rcvbuf_kb == 0)
        return;
    if (g_ctx.mode.num != SM_PKT.num) {
        LOG_AT(WARN_level, "%s: [%s] is no datagram source, receive buffer left as it is\n", "init_ksti_ctx",
               g_cfg.src_url);
        return;
    }
    const int fd = g_ctx.ssock;
    const int want = (int)(g_cfg.rcvbuf_kb * 1024);
    // Past the system's ceiling where the process may, else up to it.
    if (plat_sock_rcvbuf_force(fd, want) != 0 && set_socket_rcvbuf(fd, (size_t)want) != 0)
        return;
    const long got = plat_sock_rcvbuf_granted(fd);
    if (got < 0) {
        LOG_AT(ERR_level, "%s: getsockopt(fd%d, SO_RCVBUF) ERROR(%d): %s\n", "init_ksti_ctx", fd, errno,
               strerror(errno));
        return;
    }
    LOG_AT(got < want ? WARN_level : INFO_level, "%s: fd%d receive buffer: %zu KiB asked, %ld KiB granted\n",
           "init_ksti_ctx", fd, g_cfg.rcvbuf_kb, got / 1024);
}

// Opens the source with the ring's first write area lent to it, so bytes
// that arrive behind a protocol head land in the ring in place.
int open_source(mm_point& pt)
{
    g_ctx.uc = usock_ctx{};
    g_ctx.ssock = -1;
    g_ctx.uc.inbound = true;
    g_ctx.uc.non_blocking = false;
    g_ctx.uc.ifc_tag = g_cfg.mcast_ifc;
    g_ctx.uc.timeout_ms = 0;

    uint8_t* dest = mmr_iget(g_ctx.mmr, &pt);
    if (dest == nullptr) {
        LOG_AT(ERR_level, "%s: out of MMR space\n", "init_ksti_ctx");
        return ENOMEM;
    }
    VRX_ASSERT(pt.len >= TAILBUF_SIZE);
    g_ctx.uc.buf = reinterpret_cast<char*>(dest);
    g_ctx.uc.bufcap = pt.len;
    if (g_cfg.use_http10_get)
        g_ctx.uc.http_flags |= RQFLAG_HTTP10_GET;

    usock_set_apptag(g_app_name);
    g_ctx.ssock = usock_open(g_cfg.src_url, &g_ctx.uc);
    if (g_ctx.ssock == -1)
        return -1;

    g_ctx.mode = is_dgram_kind(g_ctx.uc.url_kind) ? SM_PKT : SM_STM;
    LOG_AT(DEBUG_level, "%s: mode=%s\n", "init_ksti_ctx", g_ctx.mode.sym);
    size_source_rcvbuf();

    if (g_ctx.uc.buflen != 0) {
        VRX_ASSERT(SM_STM.num == g_ctx.mode.num);
        LOG_AT(DEBUG_level, "%s: joining HTTP tail of %zu bytes\n", "init_ksti_ctx", g_ctx.uc.buflen);
        pt.len = g_ctx.uc.buflen;
        int rc = mmr_iput(g_ctx.mmr, &pt);
        if (rc != 0) {
            LOG_AT(ERR_level, "%s: failed to join HTTP tail of %zu bytes, rc=%d\n", "init_ksti_ctx",
                   g_ctx.uc.buflen, rc);
            return rc;
        }
    }
    return 0;
}

// The local aggregates start afresh after a report only in a run as an
// ordinary user at DEBUG; otherwise local means global from start to end.
void report_stats()
{
    if (!tsan_check_dump_stats(log_fp(&g_log), g_ctx.tc))
        return;
    if (geteuid() == 0 || g_mod_ll[g_llctx.mod] < DEBUG_level)
        return;
    if (FILE* mirror = log_mirror_fp(&g_log); mirror != nullptr)
        tsan_dump_stats(mirror, g_ctx.tc);
    tsan_reset_local_stats(g_ctx.tc);
}

}  // namespace

int init_ksti_ctx()
{
    VRX_ASSERT(!g_ctx.is_ready);

    int rc = dir_check(g_cfg.snap_dir, true);
    if (rc != 0)
        return rc;

    // Made also when analysis is off: a reload may switch it on.
    g_ctx.tc = tsan_init(g_cfg.tsa.source[0] != '\0' ? nullptr : g_cfg.src_url, &g_cfg.tsa, &rc);
    if (g_ctx.tc == nullptr)
        return rc;

    rc = mmr_create(&g_ctx.mmr, ring_bytes(g_cfg));
    if (rc != 0)
        return rc;

    mm_point pt{};
    rc = open_source(pt);
    // The ring's memory was only lent for the opening.
    g_ctx.uc.buf = nullptr;
    g_ctx.uc.bufcap = 0;
    return rc;
}

void destroy_ksti_ctx()
{
    // The source goes before the ring that it feeds.
    if (g_ctx.ssock >= 0) {
        usock_close(g_ctx.ssock, &g_ctx.uc);
        g_ctx.ssock = -1;
    }
    if (g_ctx.mmr != nullptr) {
        mmr_destroy(g_ctx.mmr);
        g_ctx.mmr = nullptr;
    }
    if (g_ctx.tc != nullptr) {
        tsan_free(g_ctx.tc);
        g_ctx.tc = nullptr;
    }
    if (g_ctx.abuf != nullptr) {
        free(g_ctx.abuf);
        g_ctx.abuf = nullptr;
        g_ctx.abuf_len = 0;
    }
}

void app_shutdown()
{
    LOG_AT(DEBUG_level, "%s: begins\n", "app_shutdown");
    g_ctx.is_ready = false;
    destroy_ksti_ctx();
    LOG_AT(NORM_level, "%s shut down\n", g_app_name);
}

namespace {

// The capture loop's state between its steps.
struct capture_turn {
    mm_point pt;
    uint8_t* dest;
    bool pkt_mode;
    bool interrupted;  // the last read was broken by a signal: read again
    bool analyzing;    // whether the analyzer ran in the last turn; a reload may switch it
    size_t max_pld_left;
    int rc;
    const char* where;  // the step that ended the loop
};

// Makes room behind the head and finds where the next read goes: false ends
// the loop.
bool make_room(capture_turn& t)
{
    const ssize_t capped = mmr_cap(g_ctx.mmr, t.max_pld_left);
    if (capped < 0) {
        // The stream has gone bad; the stop itself is not a failing one.
        LOG_AT(ERR_level, "%s: mmr_cap(.., %zu) ERROR(%zd)\n", "run_app", t.max_pld_left, capped);
        t.where = "mmr_cap";
        return false;
    }
    if (t.interrupted) {
        // The interrupted read is repeated into the same area.
        LOG_AT(DEBUG_level, "%s: re-reading after an interrupt\n", "run_app");
        t.interrupted = false;
        return true;
    }
    t.dest = mmr_iget(g_ctx.mmr, &t.pt);
    if (t.dest == nullptr || t.pt.len < MIN_MINREAD_BYTES) {
        LOG_AT(ERR_level, "%s: not enough space: buf=%p, avail=%zu bytes\n", "run_app", (void*)t.dest, t.pt.len);
        t.where = "mmr_iget";
        return false;
    }
    return true;
}

enum class read_outcome { data, skip, stop };

// One read from the source into the ring's write area.
read_outcome read_source(capture_turn& t, ssize_t* nread)
{
    *nread = t.pkt_mode ? recv(g_ctx.ssock, t.dest, t.pt.len, 0)
                        : W_read_f("run_app", g_ctx.ssock, t.dest, t.pt.len, 0);
    if (*nread == 0 && t.pkt_mode) {
        // A datagram of no bytes is no end: a datagram socket has none.
        // Anyone who can reach the port could otherwise stop the capture.
        LOG_AT(DEBUG_level, "%s: empty datagram on fd%d, skipped\n", "run_app", g_ctx.ssock);
        return read_outcome::skip;
    }
    if (*nread > 0)
        return read_outcome::data;

    // The end of a stream takes the road of a failure; errno is taken as
    // the last call left it.
    const int err = errno;
    t.where = "recv/Read_f";
    if (err == EINTR) {
        t.rc = 0;
        if (g_quit)
            return read_outcome::stop;
        LOG_AT(DEBUG_level, "%s: moving on after interrupt, sshot=%d/salrm=%d, quit=%d\n", "run_app",
               (int)g_snapshot, (int)g_snapalarm, (int)g_quit);
        t.interrupted = true;
        return read_outcome::skip;
    }
    if (t.pkt_mode)
        LOG_AT(ERR_level, "%s: recv(fd%d,...) rc=%zd ERROR(%d): %s\n", "run_app", g_ctx.ssock, *nread, err,
               strerror(err));
    t.rc = (err != 0) ? err : -1;
    if (err == ETIMEDOUT)
        LOG_AT(ERR_level, "READ-TIME-OUT on fd%d, quitting the loop\n", g_ctx.ssock);
    return read_outcome::stop;
}

// The bytes just read join the ring and pass the analyzer, the reports,
// the tail count and the reload check: false ends the loop.
bool take_read(capture_turn& t, size_t nread)
{
    t.pt.len = nread;
    t.rc = mmr_iput(g_ctx.mmr, &t.pt);
    if (t.rc != 0) {
        t.where = "mmr_iput";
        return false;
    }
    if (g_cfg.tsa.is_enabled) {
        t.rc = analyze_input(t.dest, t.pt.len);
        if (t.rc != 0) {
            t.where = "process_input";
            return false;
        }
    }
    if (g_cfg.report_tput_sec != 0)
        update_tps(nread);
    count_tail(nread);
    if (g_cfg.tsa.is_enabled)
        report_stats();
    (void)config_reload_check();
    if (g_cfg.tsa.is_enabled != t.analyzing) {
        t.analyzing = g_cfg.tsa.is_enabled;
        analysis_switched(t.analyzing);
    }
    t.where = "#unknown#";
    t.rc = 0;
    return true;
}

}  // namespace

int run_app()
{
    LOG_AT(NORM_level, "Reading (%s) from fd%d [%s]\n", g_ctx.mode.sym, g_ctx.ssock, g_cfg.src_url);
    // Set on every source, also with no time-out: a source that is no socket stops here.
    if (set_rcv_timeout(g_ctx.ssock, g_cfg.read_tmout_ms) != 0) {
        LOG_AT(ERR_level, "%s: stopped reading due to error in [%s], rc=%d\n", "run_app", "set_rcv_timeout", -1);
        return -1;
    }
    mmr_set_verbosity(0);

    capture_turn t{};
    t.pkt_mode = (g_ctx.mode.num == SM_PKT.num);
    t.analyzing = g_cfg.tsa.is_enabled;
    t.max_pld_left = ring_payload_max(g_cfg);
    t.where = "";

    while (!g_quit) {
        (void)process_signals();
        if (!make_room(t))
            break;
        ssize_t nread = 0;
        const read_outcome got = read_source(t, &nread);
        if (got == read_outcome::skip)
            continue;
        if (got == read_outcome::stop || !take_read(t, (size_t)nread))
            break;
    }

    if (t.rc != 0)
        LOG_AT(ERR_level, "%s: stopped reading due to error in [%s], rc=%d\n", "run_app", t.where, t.rc);
    else
        LOG_AT(INFO_level, "%s: done reading from source fd%d, quit=%d\n", "run_app", g_ctx.ssock, (int)g_quit);
    return t.rc;
}
