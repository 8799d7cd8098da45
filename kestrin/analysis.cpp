// The analysis pass: the bytes of each read are cut into packets by the
// ring's read-out and walked by the tracker, an incomplete packet is carried
// over to the next read in abuf, and the packet numbers of ring and tracker
// are kept in step.
#include "analysis.h"

#include <sys/uio.h>
#include <cstring>
#include <ctime>

#include "dstream.h"
#include "kst.h"
#include "log.h"
#include "mpegts.h"
#include "rtp.h"
#include "syswrap.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

// One record per stream packet, not groups sized to a message.
constexpr mm_opt mopt{true};

// What a TS packet within RTP needs beyond the header: RTP_HDR_SIZE plus
// TS_MIN_PKTSIZE.
constexpr ssize_t RTP_MIN_WITH_TS = (ssize_t)(RTP_HDR_SIZE + TS_MIN_PKTSIZE);

// Packets walked in one record, or -1. For RTP only the first TS packet
// behind the header is walked: the step of ts_len, the whole RTP packet's
// length, leaves the record at once.
ssize_t seg_process(const mm_info& info, const uint8_t* seg, size_t seglen, const uint8_t* end)
{
    const uint8_t* data = seg;
    ssize_t data_len = (ssize_t)seglen;
    if (info.stype.num == STY_RTP.num) {
        // An empty record marks where lost sync was found: no packet there.
        if (seg == nullptr || seglen == 0)
            return -1;
        VRX_ASSERT(is_rtp_pkt(seg));
        const ssize_t hlen = rtp_header_len(seg, seglen);
        if (hlen != (ssize_t)RTP_HDR_SIZE) {
            LOG_AT(ERR_level, "%s: RTP header size mismatch: exp/is=%d/%zd\n", "seg_process", (int)RTP_HDR_SIZE,
                   hlen);
            return -1;
        }
        const ssize_t footer_len = (ssize_t)rtp_footer_len(seg, seglen);
        if (footer_len < 0 || footer_len >= (ssize_t)seglen - RTP_MIN_WITH_TS) {
            LOG_AT(ERR_level, "%s: bad RTP footer length = %zd\n", "seg_process", footer_len);
            return -1;
        }
        data = seg + RTP_HDR_SIZE;
        // The header's 12 bytes are not taken off: the walk stops at the
        // step anyway.
        data_len = (ssize_t)seglen - footer_len;
    }
    if (data_len < 1)
        return -1;

    const uint8_t* stop = data + data_len;
    ssize_t npkts = 0;
    const uint8_t* pkt = data;
    do {
        VRX_ASSERT(MPEG_TS_SYNC == pkt[0]);
        if (tsan_process(g_ctx.tc, pkt, end) != 0)
            return -1;
        pkt += info.ts_len;
        ++npkts;
    } while (pkt < stop);
    return npkts;
}

}  // namespace

void analysis_switched(bool on)
{
    if (!on) {
        // Nothing adds packets while the pass is off; a cap that went on
        // counting them out would pass the first number over the last.
        mmr_stop_pktnums(g_ctx.mmr);
        return;
    }
    // What was carried over ended before the pause; the next read does not
    // continue it.
    g_ctx.an.pctx.tail_size = 0;
    mmr_restart_pktnums(g_ctx.mmr);
}

namespace {

// The packet length is known once the ring has recognised the stream: false
// while it hasn't, with *rc what analyze_input gives for this read.
bool learn_pkt_size(process_ctx& pctx, int* rc)
{
    if (pctx.info.ts_len != 0)
        return true;
    (void)mmr_get_info(g_ctx.mmr, &pctx.info);
    if (pctx.info.ts_len == 0) {
        // The ring hasn't recognised the stream yet.
        *rc = 0;
        if (pctx.pkt_count != 0) {
            LOG_AT(ERR_level, "%s: packet size not set, cannot analyze\n", "analyze_input");
            *rc = AN_NOPKTSIZE;
        }
        return false;
    }
    mmr_set_opt(g_ctx.mmr, &mopt);
    return true;
}

// One batch of the read-out over the bytes left: 0 with *count records in
// the iov array, or the code that ends the call.
int read_out_batch(analysis_ctx& an, uint8_t* data, ssize_t nleft, ssize_t niter, size_t* count,
                   ssize_t* pkt1_offt)
{
    // Every batch starts on a cleared array; entries past those the last
    // batch used are still clear.
    memset(an.iov, 0, an.iov_used * sizeof(an.iov[0]));
    *count = ANALYZE_IOV_MAX;
    int rc = mmr_oget_buf(g_ctx.mmr, data, (size_t)nleft, an.iov, count, pkt1_offt);
    an.iov_used = (rc == 0 || rc == MMR_LOSTSYNC) ? *count : ANALYZE_IOV_MAX;
    if (rc == MMR_LOSTSYNC && g_cfg.lost_sync_alert && g_cfg.alert_log.path[0] != '\0') {
        if (tsan_alert_lostsync(g_ctx.tc) != 0)
            return AN_LOSTSYNC;
        rc = 0;
    }
    if (rc != 0) {
        LOG_AT(ERR_level, "%s: mmr_oget_buf() ERROR(%d), niter=%zu\n", "analyze_input", rc, (size_t)niter);
        return -1;
    }
    // A skip in the first batch of a call is expected.
    if (*pkt1_offt != 0 && niter >= 2)
        LOG_AT(WARN_level, "%s: offset=%zd at iter#%zd\n", "analyze_input", *pkt1_offt, niter);
    return 0;
}

// The tracker walks the batch's records up to the first it fails: 0 with
// the packets and bytes walked added, or -1 when the batch can't move on.
int walk_batch(analysis_ctx& an, size_t count, ssize_t pkt1_offt, ssize_t niter, const uint8_t* end,
               size_t* pkts, size_t* bytes)
{
    const mm_info& info = an.pctx.info;
    for (size_t i = 0; i < count; ++i) {
        const iovec& rec = an.iov[i];
        const ssize_t npkts = seg_process(info, static_cast<const uint8_t*>(rec.iov_base), rec.iov_len, end);
        if (npkts >= 0) {
            *pkts += (size_t)npkts;
            *bytes += rec.iov_len;
            continue;
        }
        // The batch ends here; the next one starts at this record.
        LOG_AT(ERR_level, "%s: error processing seg[%zu], len=%zu\n", "analyze_input", i, rec.iov_len);
        if (i == 0 && pkt1_offt == 0) {
            // The tracker fails a packet the same way each time it sees it
            // (idling, above all): retried at the start of every batch, it
            // would hold the capture here for ever. It is passed over as
            // walked instead.
            if (rec.iov_len == 0) {
                LOG_AT(ERR_level, "%s: no way past seg[0] at iter#%zd\n", "analyze_input", niter);
                return -1;
            }
            *pkts += (rec.iov_len + info.ts_len - 1) / info.ts_len;
            *bytes += rec.iov_len;
        }
        break;
    }
    return 0;
}

// The last nleft bytes, from data on, are an incomplete packet: kept in abuf
// for the next read. 0, or AN_NOMEM.
int carry_over(process_ctx& pctx, const uint8_t* start, const uint8_t* data, ssize_t nleft)
{
    if (nleft <= 0) {
        pctx.tail_size = 0;
        return 0;
    }
    if (g_ctx.abuf == nullptr) {
        // The largest read fills the whole ring when it is nearly empty, and
        // the longest tail carried in front of it is one packet short of a
        // whole one: room for both.
        const size_t len = ring_bytes(g_cfg) + MAX_TS_LEN;
        g_ctx.abuf = static_cast<uint8_t*>(W_calloc("analyze_input", 1, len));
        if (g_ctx.abuf == nullptr)
            return AN_NOMEM;
        g_ctx.abuf_len = len;
        LOG_AT(DEBUG_level, "%s: allocated abuf[%zu]\n", "analyze_input", len);
    }
    // In abuf, a tail already at its start stays where it is. From the ring
    // it is always copied: comparing the addresses of two separate mappings
    // would leave it behind whenever the allocator put abuf above the ring,
    // and the next read would be joined to stale bytes.
    const bool in_abuf = (start == g_ctx.abuf);
    if (!in_abuf || data > g_ctx.abuf)
        memmove(g_ctx.abuf, data, (size_t)nleft);
    pctx.tail_size = (size_t)nleft;
    return 0;
}

// Ring and tracker number their packets again from 1 when the index reaches
// the configured limit.
void maybe_reset_pkt_idx(process_ctx& pctx)
{
    if (g_cfg.pkt_reset_idx == 0 || pctx.pkt_idx < g_cfg.pkt_reset_idx)
        return;
    const uint64_t old_idx = pctx.pkt_idx;
    pctx.pkt_idx = mmr_adjust_pktnum(g_ctx.mmr, 1);
    LOG_AT(INFO_level, "%s: packet index reset: %lu -> %lu\n", "analyze_input", old_idx, pctx.pkt_idx);
    tsan_set_pidx(g_ctx.tc, pctx.pkt_idx);
}

}  // namespace

int analyze_input(uint8_t* buf, size_t buflen)
{
    analysis_ctx& an = g_ctx.an;
    process_ctx& pctx = an.pctx;
    int rc = 0;
    if (!learn_pkt_size(pctx, &rc))
        return rc;

    // The bytes carried over from the last read go in front of this one's.
    uint8_t* start = buf;
    if (pctx.tail_size != 0) {
        VRX_ASSERT(buflen + pctx.tail_size <= g_ctx.abuf_len);
        memcpy(g_ctx.abuf + pctx.tail_size, buf, buflen);
        start = g_ctx.abuf;
    }
    ssize_t nleft = (ssize_t)(pctx.tail_size + buflen);
    uint8_t* data = start;
    // Nothing behind the bytes of this call is read, though the ring's
    // mapping may go on.
    const uint8_t* const end = start + nleft;
    size_t total_pkts = 0;

    for (ssize_t niter = 1; nleft >= (ssize_t)pctx.info.ts_len; ++niter) {
        size_t count = 0;
        ssize_t pkt1_offt = 0;
        rc = read_out_batch(an, data, nleft, niter, &count, &pkt1_offt);
        if (rc != 0)
            return rc;
        size_t total_bytes = 0;
        if (walk_batch(an, count, pkt1_offt, niter, end, &total_pkts, &total_bytes) != 0)
            return -1;
        nleft -= pkt1_offt + (ssize_t)total_bytes;
        data += pkt1_offt + (ssize_t)total_bytes;
    }

    rc = carry_over(pctx, start, data, nleft);
    if (rc != 0)
        return rc;
    maybe_reset_pkt_idx(pctx);
    mmr_add_pkts(g_ctx.mmr, total_pkts);
    pctx.pkt_count += total_pkts;
    pctx.pkt_idx += total_pkts;
    return 0;
}

namespace {

void output_tps()
{
    const kst_tput_stats& tps = g_ctx.tps;
    mm_info info{};
    (void)mmr_get_info(g_ctx.mmr, &info);
    // The configured tag alone: the URL stands in only inside the analyzer.
    const char* src = (g_cfg.tsa.source[0] != '\0') ? g_cfg.tsa.source : "-";
    const double kb = 0x1p-10;
    LOG_AT(INFO_level, "IN total: %s %.02f Kb, %.f dgrams at local:%.02f/global:%.02f Kbps, %.02f Kb cached\n", src,
           tps.total_bytes * kb, tps.total_pkts, tps.lavg_speed * kb, tps.gavg_speed * kb,
           (double)info.pld_size * kb);
    ALOG_LINE("STAT TPS %s %.02f %.f %.02f %.02f %.02f\n", src, tps.total_bytes * kb, tps.total_pkts,
              tps.lavg_speed * kb, tps.gavg_speed * kb, (double)info.pld_size * kb);
}

}  // namespace

void update_tps(size_t nbytes)
{
    update_tps_at(nbytes, time(nullptr));
}

void update_tps_at(size_t nbytes, time_t now)
{
    time_t& last_report_tm = g_ctx.an.last_report_tm;
    double& last_total = g_ctx.an.last_total;
    if (last_report_tm == 0)
        last_report_tm = now;
    VRX_ASSERT(g_cfg.report_tput_sec > 0);
    kst_tput_stats& tps = g_ctx.tps;
    tps.total_bytes += (double)nbytes;
    tps.total_pkts += 1;
    const double delta_tm = (double)(now - last_report_tm);
    if (delta_tm < (double)g_cfg.report_tput_sec)
        return;
    tps.total_sec += delta_tm;
    tps.lavg_speed = (tps.total_bytes - last_total) / delta_tm;
    tps.gavg_speed = tps.total_bytes / tps.total_sec;
    output_tps();
    last_report_tm = now;
    last_total = tps.total_bytes;
}
