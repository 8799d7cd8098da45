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

process_ctx pctx;
iovec iov[ANALYZE_IOV_MAX];
size_t iov_used = ANALYZE_IOV_MAX;  // entries the last batch may have written
time_t last_report_tm = 0;  // of the last throughput report
double last_total = 0;      // total_bytes at that report
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
        VRX_ASSERT(TS_SYNC == pkt[0]);
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
    pctx.tail_size = 0;
    mmr_restart_pktnums(g_ctx.mmr);
}

process_ctx* analysis_state()
{
    return &pctx;
}

void analysis_reset_for_test()
{
    pctx = process_ctx{};
    memset(iov, 0, sizeof(iov));
    iov_used = 0;
    last_report_tm = 0;
    last_total = 0;
}

int analyze_input(uint8_t* buf, size_t buflen)
{
    if (pctx.info.ts_len == 0) {
        (void)mmr_get_info(g_ctx.mmr, &pctx.info);
        if (pctx.info.ts_len == 0) {
            // The ring hasn't recognised the stream yet.
            if (pctx.pkt_count == 0)
                return 0;
            LOG_AT(ERR_level, "%s: packet size not set, cannot analyze\n", "analyze_input");
            return 35;
        }
        mmr_set_opt(g_ctx.mmr, &mopt);
    }

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
    ssize_t niter = 1;

    while (nleft >= (ssize_t)pctx.info.ts_len) {
        ssize_t pkt1_offt = 0;
        // Every batch starts on a cleared array; entries past those the last
        // batch used are still clear.
        memset(iov, 0, iov_used * sizeof(iov[0]));
        size_t count = ANALYZE_IOV_MAX;
        int rc = mmr_oget_buf(g_ctx.mmr, data, (size_t)nleft, iov, &count, &pkt1_offt);
        iov_used = (rc == 0 || rc == -9) ? count : ANALYZE_IOV_MAX;
        if (rc == -9 && g_cfg.lost_sync_alert && g_cfg.alert_log.path[0] != '\0') {
            if (tsan_alert_lostsync(g_ctx.tc) != 0)
                return -9;
            rc = 0;
        }
        if (rc != 0) {
            LOG_AT(ERR_level, "%s: mmr_oget_buf() ERROR(%d), niter=%zu\n", "analyze_input", rc, (size_t)niter);
            return -1;
        }
        // A skip in the first batch of a call is expected.
        if (pkt1_offt != 0 && niter >= 2)
            LOG_AT(WARN_level, "%s: offset=%zd at iter#%zd\n", "analyze_input", pkt1_offt, niter);

        size_t total_bytes = 0;
        for (size_t i = 0; i < count; ++i) {
            const ssize_t npkts = seg_process(pctx.info, static_cast<const uint8_t*>(iov[i].iov_base),
                                              iov[i].iov_len, end);
            if (npkts < 0) {
                // The batch ends here; the next one starts at this record.
                LOG_AT(ERR_level, "%s: error processing seg[%zu], len=%zu\n", "analyze_input", i, iov[i].iov_len);
                if (i == 0 && pkt1_offt == 0) {
                    // The tracker fails a packet the same way each time it
                    // sees it (idling, above all): retried at the start of
                    // every batch, it would hold the capture here for ever.
                    // It is passed over as walked instead.
                    if (iov[0].iov_len == 0) {
                        LOG_AT(ERR_level, "%s: no way past seg[0] at iter#%zd\n", "analyze_input", niter);
                        return -1;
                    }
                    total_pkts += (iov[0].iov_len + pctx.info.ts_len - 1) / pctx.info.ts_len;
                    total_bytes += iov[0].iov_len;
                }
                break;
            }
            total_pkts += (size_t)npkts;
            total_bytes += iov[i].iov_len;
        }
        nleft -= pkt1_offt + (ssize_t)total_bytes;
        data += pkt1_offt + (ssize_t)total_bytes;
        ++niter;
    }

    if (nleft <= 0) {
        pctx.tail_size = 0;
    } else {
        if (g_ctx.abuf == nullptr) {
            // The largest read fills the whole ring when it is nearly empty,
            // and the longest tail carried in front of it is one packet short
            // of a whole one: room for both.
            const size_t len = (g_cfg.cache_sz_mb << 20) + MAX_TS_LEN;
            g_ctx.abuf = static_cast<uint8_t*>(W_calloc("analyze_input", 1, len));
            if (g_ctx.abuf == nullptr)
                return -12;
            g_ctx.abuf_len = len;
            LOG_AT(DEBUG_level, "%s: allocated abuf[%zu]\n", "analyze_input", len);
        }
        // The last nleft bytes begin where the walk stopped. In abuf, a tail
        // already at its start stays where it is. From the ring it is always
        // copied: comparing the addresses of two separate mappings would
        // leave it behind whenever the allocator put abuf above the ring,
        // and the next read would be joined to stale bytes.
        const bool in_abuf = (start == g_ctx.abuf);
        if (!in_abuf || data > g_ctx.abuf)
            memmove(g_ctx.abuf, data, (size_t)nleft);
        pctx.tail_size = (size_t)nleft;
    }

    if (g_cfg.pkt_reset_idx != 0 && pctx.pkt_idx >= g_cfg.pkt_reset_idx) {
        const uint64_t old_idx = pctx.pkt_idx;
        pctx.pkt_idx = mmr_adjust_pktnum(g_ctx.mmr, 1);
        LOG_AT(INFO_level, "%s: packet index reset: %lu -> %lu\n", "analyze_input", old_idx, pctx.pkt_idx);
        tsan_set_pidx(g_ctx.tc, pctx.pkt_idx);
    }

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
