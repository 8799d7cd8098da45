// The transport stream tracker: follows one program packet by packet, from
// the first usable PAT and PMT on, and keeps the last PCR, PTS and DTS.
// It reads no more than the packet in hand and never reassembles sections.
#include "tsanalyze.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <string_view>
#include <cstring>

#include "log.h"
#include "mpegts.h"
#include "syswrap.h"
#include "tsan_ctx.h"
#include "tsfields.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

// The text of a tag, made by hand: `std::to_chars` costs a third of what
// `snprintf` did.
void mk_ptag(char* out, const ptag_src& at)
{
    constexpr size_t lim = PTAG_MAX - 2;
    size_t len = 0;
    const auto put = [out, &len](std::string_view s) {
        const size_t n = std::min(s.size(), lim - len);
        memcpy(out + len, s.data(), n);
        len += n;
    };
    const auto num = [&put](uint64_t v) {
        char digits[24];
        put(std::string_view(digits, (size_t)(std::to_chars(digits, digits + sizeof(digits), v).ptr - digits)));
    };
    put("pkt[");
    num(at.pkt_idx);
    put("]");
    if (at.got_pcr) {
        put(":(pcr=");
        num(at.pcr);
        put(")+");
        num(at.pkt_idx - at.pcr_pktnum);
    }
    out[len] = '\0';
}

bool is_pmt_pid(const tsan_ctx* tc, unsigned pid)
{
    for (size_t i = 0; i < MAX_PMTS && tc->pg.pmt_pid[i] != 0; ++i) {
        if (tc->pg.pmt_pid[i] == pid)
            return true;
    }
    return false;
}

ssize_t find_stream(const tsan_ctx* tc, unsigned pid)
{
    for (size_t i = 0; i < tc->pg.nstreams; ++i) {
        if (tc->stm[i].pid == pid)
            return (ssize_t)i;
    }
    return -1;
}

// A table whose header (and for a PAT, first entry) lies past the bytes held
// counts as absent: the packet is passed over as though it held no table.
void process_PAT(tsan_ctx* tc, const uint8_t* pkt, const uint8_t* end)
{
    const uint8_t* sect = ts_section(ts_mut(pkt));
    if (!ts_within(sect, PAT_HEADER_SIZE + PAT_PROGRAM_SIZE, end))
        return;

    LOG_AT(INFO_level, "[%s] will use PAT (pid%u) at %s\n", tc->cfg.source, 0u, tsan_ptag(tc));
    int count = 0;
    for (size_t i = 0; i < MAX_PMTS; ++i) {
        const uint8_t* prog = pat_program_within(sect, (uint8_t)i, end);
        if (prog == nullptr)
            break;
        tc->pg.pmt_pid[i] = patn_get_pid(ts_mut(prog));
        VRX_ASSERT(tc->pg.pmt_pid[i]);
        LOG_AT(INFO_level, "[%s] pmt[%u] pid=%u at %s\n", tc->cfg.source, (unsigned)i, tc->pg.pmt_pid[i],
               tsan_ptag(tc));
        ++count;
    }
    LOG_AT(DEBUG_level, "%s: [%s] %d PMT pids read from PAT at %s\n", "process_PAT", tc->cfg.source, count,
           tsan_ptag(tc));
    VRX_ASSERT(count);
}

ssize_t add_stream(tsan_ctx* tc, unsigned pid, uint8_t scode)
{
    const char stype = code2stype(scode);
    if (stype == 0) {
        LOG_AT(DEBUG_level, "%s: [%s] skipping non-AV PES at %s\n", "add_stream", tc->cfg.source, tsan_ptag(tc));
        return -1;
    }
    program_info& pg = tc->pg;
    if (pg.nstreams >= MAX_NSTREAMS) {
        LOG_AT(ERR_level, "%s: [%s] too many streams: %zu\n", "add_stream", tc->cfg.source, pg.nstreams);
        return -1;
    }
    const ssize_t idx = (ssize_t)pg.nstreams;
    stream_info& si = tc->stm[idx];
    si.pid = pid;
    si.stype = stype;
    si.scode = scode;
    si.last_pts = 0;
    si.last_dts = 0;
    if (pid == pg.pcr_pid) {
        pg.pcr_idx = idx;
        LOG_AT(DEBUG_level, "%s: [%s] pcr_idx=%zd for %c-stream pid=%u\n", "add_stream", tc->cfg.source, idx,
               stype, pid);
    }
    if (tc->cfg.max_pdts_delta != 0 && stype == 'V') {
        // The first video stream of the PMT is the reference, for good.
        if (pg.ref_idx < 0) {
            pg.ref_idx = idx;
            LOG_AT(DEBUG_level, "%s: [%s] ref_idx=%zd for %c-stream pid=%u\n", "add_stream", tc->cfg.source,
                   idx, stype, pid);
        } else {
            LOG_AT(WARN_level, "%s: 1+ video: ref_idx already set (to %zd)\n", "add_stream", pg.ref_idx);
        }
    }
    ++pg.nstreams;
    LOG_AT(DEBUG_level, "%s: added stream[%d]:pid=%u (%c/%s) at %s, %zu streams total\n", "add_stream", (int)idx,
           pid, stype, (pid == pg.pcr_pid) ? "PCR" : "-", tsan_ptag(tc), pg.nstreams);
    return idx;
}

ssize_t add_pmt_stream(tsan_ctx* tc, const uint8_t* es)
{
    const unsigned pid = pmtn_get_pid(ts_mut(es));
    const uint8_t scode = pmtn_get_streamtype(ts_mut(es));
    LOG_AT(INFO_level, "[%s] ADD (pid=%u, type=%u) [%s]\n", tc->cfg.source, pid, (unsigned)scode,
           pmt_get_streamtype_txt(scode));
    return add_stream(tc, pid, scode);
}

void process_PMT(tsan_ctx* tc, const uint8_t* pkt, const uint8_t* end, unsigned pid)
{
    const uint8_t* sect = ts_section(ts_mut(pkt));
    if (!ts_within(sect, PMT_HEADER_SIZE, end))
        return;

    LOG_AT(INFO_level, "[%s] will use PMT (pid%u) at %s\n", tc->cfg.source, pid, tsan_ptag(tc));
    LOG_AT(INFO_level, "Adding streams from PMT (pid%u) at %s\n", pid, tsan_ptag(tc));
    tc->pg.pcr_pid = pmt_get_pcrpid(ts_mut(sect));
    LOG_AT(INFO_level, "[%s] PMT lists PCR pid=%u at %s\n", tc->cfg.source, tc->pg.pcr_pid, tsan_ptag(tc));
    VRX_ASSERT(tc->pg.pcr_pid);

    // The walk ends at the first stream that is neither audio nor video.
    size_t count = 0;
    for (size_t n = 0; n < MAX_NSTREAMS; ++n) {
        const uint8_t* es = pmt_es_within(sect, (uint8_t)n, end);
        if (es == nullptr || add_pmt_stream(tc, es) == -1)
            break;
        ++count;
    }
    LOG_AT(INFO_level, "Added %zu streams from PMT (pid%u) at %s\n", count, pid, tsan_ptag(tc));
    if (count != 0)
        tc->pg.curr_pmt_pid = pid;
}

void update_pts_dts(tsan_ctx* tc, const uint8_t* pld, const uint8_t* end, stream_info* si)
{
    if (!pes_has_PTS(pld, end))
        return;
    char tstr[TIMESTR_MAX];
    const uint64_t pts = pes_get_pts(pld);
    si->pts_updated = (pts != si->last_pts);
    si->last_pts = pts;
    si->pts_pktnum = tc->pg.last_pkt_idx;
    // Issued at INFO, yet only made and written at DEBUG.
    if (si->pts_updated && g_mod_ll[g_llctx.mod] >= DEBUG_level) {
        ms2timestr(pts / 90, tstr, TIMESTR_MAX - 1);
        if (tc->cfg.trk.pdts_update)
            LOG_AT(INFO_level, "%s: [%s] PTS=%lu [%s] pid=%u at %s\n", "update_pts_dts", tc->cfg.source, pts, tstr,
                   si->pid, tsan_ptag(tc));
    }
    if (!pes_has_DTS(pld, end))
        return;
    const uint64_t dts = pes_get_dts(pld);
    si->dts_updated = (dts != si->last_dts);
    si->last_dts = dts;
    si->dts_pktnum = tc->pg.last_pkt_idx;
    if (si->dts_updated && g_mod_ll[g_llctx.mod] >= DEBUG_level) {
        ms2timestr(dts / 90, tstr, TIMESTR_MAX - 1);
        if (tc->cfg.trk.pdts_update)
            LOG_AT(DEBUG_level, "%s: [%s] DTS=%lu [%s] pid=%u at %s\n", "update_pts_dts", tc->cfg.source, dts,
                   tstr, si->pid, tsan_ptag(tc));
    }
}

void take_pcr(tsan_ctx* tc, const uint8_t* pkt)
{
    program_info& pg = tc->pg;
    const uint64_t new_pcr = tsaf_get_pcr(pkt);
    pcr_freq_check(tc, new_pcr);
    pg.last_pcr = new_pcr;
    pg.pcr_pktnum = pg.last_pkt_idx;
    pg.pcr_at = tc->at;
    pg.got_pcr = true;
    if (tc->cfg.trk.pcr_update) {
        char tstr[TIMESTR_MAX];
        ms2timestr(pg.last_pcr / 90, tstr, TIMESTR_MAX - 1);
        LOG_AT(INFO_level, "[%s] new PCR=%lu [%s] at %s\n", tc->cfg.source, pg.last_pcr, tstr, tsan_ptag(tc));
    }
}

// The packet's index in the stream table, or -1 for a packet of no stream.
ssize_t upsert_pkt_info(tsan_ctx* tc, const uint8_t* pkt, const uint8_t* end)
{
    const unsigned pid = ts_get_pid(pkt);
    const tracking_opt& trk = tc->cfg.trk;
    if (pid == PAT_PID) {
        if (trk.pat_pmt_pkt)
            LOG_AT(INFO_level, "[%s] found PAT at %s\n", tc->cfg.source, tsan_ptag(tc));
        if (tc->pg.nstreams == 0 && tc->pg.pmt_pid[0] == 0)
            process_PAT(tc, pkt, end);
        return -1;
    }
    if (pid == TS_SDT_PID) {
        if (trk.sdt_ignore)
            LOG_AT(INFO_level, "[%s] disregarding SDT at %s\n", tc->cfg.source, tsan_ptag(tc));
        return -1;
    }
    if (is_pmt_pid(tc, pid)) {
        if (trk.pat_pmt_pkt)
            LOG_AT(INFO_level, "[%s] found PMT (pid%u) at %s\n", tc->cfg.source, pid, tsan_ptag(tc));
        if (tc->pg.nstreams == 0)
            process_PMT(tc, pkt, end, pid);
        return -1;
    }

    bool is_pcr_pkt = false;
    if (tc->pg.pcr_pid != 0 && pid == tc->pg.pcr_pid && ts_has_pcr(pkt)) {
        take_pcr(tc, pkt);
        is_pcr_pkt = true;
    }
    const ssize_t idx = find_stream(tc, pid);
    if (idx < 0) {
        if (!is_pcr_pkt && trk.misc_ignore)
            LOG_AT(DEBUG_level, "%s: [%s] ignoring pid=%u %s\n", "upsert_pkt_info", tc->cfg.source, pid, tsan_ptag(tc));
        return -1;
    }
    const uint8_t* pld = ts_get_payload(pkt);
    if (pld != nullptr && ts_get_unitstart(pkt) && is_pes_pkt(pld, end))
        update_pts_dts(tc, pld, end, &tc->stm[idx]);
    return idx;
}

void mark_processed(tsan_ctx* tc, ssize_t idx)
{
    stream_info& si = tc->stm[idx];
    ++si.pcount;
    if (si.stype == 'A')
        ++tc->stat.a_pcount;
    else if (si.stype == 'V')
        ++tc->stat.v_pcount;
}

int analyze_pkt(tsan_ctx* tc, const uint8_t* pkt, const uint8_t* end, ssize_t idx)
{
    program_info& pg = tc->pg;
    sa_stats& st = tc->stat;
    if (pg.nstreams == 0)
        return 0;
    if (st.acount == 0) {
        st.pre_skipped = st.pcount - 1;
        LOG_AT(INFO_level, "%s: %lu skipped before analysis\n", "analyze_pkt", st.pre_skipped);
    }
    stream_info& si = tc->stm[idx];
    ++st.acount;
    ++si.acount;
    if (si.stype == 'A')
        ++st.a_acount;
    else if (si.stype == 'V')
        ++st.v_acount;

    // The stream that carries the PCR is counted, never checked.
    if (ts_get_pid(pkt) == pg.pcr_pid)
        return 0;
    if (!si.pts_updated && !si.dts_updated)
        return 0;
    const uint8_t* pld = ts_get_payload(pkt);
    if (pld == nullptr) {
        LOG_AT(ERR_level, "%s: [%s] pid=%u no payload at %s\n", "analyze_pkt", tc->cfg.source, si.pid, tsan_ptag(tc));
        return -1;
    }
    if (!is_pes_pkt(pld, end))
        return 0;

    if (tc->cfg.max_pcr_delta != 0 && pg.got_pcr) {
        if (si.pts_updated)
            ck_pcr(tc, true, &si);
        if (si.dts_updated)
            ck_pcr(tc, false, &si);
    }
    if (tc->cfg.max_pdts_delta != 0 && pg.ref_idx >= 0) {
        const stream_info& ref = tc->stm[pg.ref_idx];
        if (si.pts_updated && ref.last_pts != 0) {
            ck_tstamp(tc, true, &ref, &si);
            si.pts_updated = false;
        }
        if (si.dts_updated && ref.last_dts != 0) {
            ck_tstamp(tc, false, &ref, &si);
            si.dts_updated = false;
        }
    }
    return 0;
}

}  // namespace

const char* tsan_ptag(tsan_ctx* tc)
{
    if (!tc->ptag_made) {
        mk_ptag(tc->ptag, tc->at);
        tc->ptag_made = true;
    }
    return tc->ptag;
}

const char* tsan_pcr_ptag(tsan_ctx* tc)
{
    // Before the first PCR the text stays empty.
    if (tc->pg.got_pcr)
        mk_ptag(tc->pg.pcr_ptag, tc->pg.pcr_at);
    return tc->pg.pcr_ptag;
}

char code2stype(uint8_t scode)
{
    switch (scode) {
    case PMT_STREAMTYPE_VIDEO_MPEG1:
    case PMT_STREAMTYPE_VIDEO_MPEG2:
    case PMT_STREAMTYPE_VIDEO_MPEG4:
    case PMT_STREAMTYPE_VIDEO_AVC:
    case PMT_STREAMTYPE_VIDEO_HEVC:
    case PMT_STREAMTYPE_VIDEO_AVS:
        return 'V';
    case PMT_STREAMTYPE_AUDIO_MPEG1:
    case PMT_STREAMTYPE_AUDIO_MPEG2:
    case PMT_STREAMTYPE_AUDIO_ADTS:
    case PMT_STREAMTYPE_AUDIO_LATM:
    case PMT_STREAMTYPE_ATSC_A52:
    case PMT_STREAMTYPE_ATSC_A52E:
        return 'A';
    default:
        return 0;
    }
}

namespace {

// Every context made and not yet freed. A second free is told by a handle
// that isn't here: looking at the handle's own bytes to tell it would read
// memory already given back.
tsan_ctx* g_live_ctx = nullptr;

// Takes tc off the list; false if it wasn't on it.
bool unlink_live(const tsan_ctx* tc)
{
    for (tsan_ctx** pp = &g_live_ctx; *pp != nullptr; pp = &(*pp)->next_live) {
        if (*pp == tc) {
            *pp = tc->next_live;
            return true;
        }
    }
    return false;
}

bool is_live(const tsan_ctx* tc)
{
    for (const tsan_ctx* p = g_live_ctx; p != nullptr; p = p->next_live)
        if (p == tc)
            return true;
    return false;
}

}  // namespace

tsan_t tsan_init(const char* source, const tsan_config* cfg, int* err)
{
    auto* tc = static_cast<tsan_ctx*>(W_calloc("tsan_init", 1, sizeof(tsan_ctx)));
    if (tc == nullptr) {
        if (err != nullptr)
            *err = ENOMEM;
        return nullptr;
    }
    tc->cfg = *cfg;
    tc->ptag_made = true;  // no packet yet: messages name an empty tag
    if (source != nullptr) {
        strncpy(tc->cfg.source, source, sizeof(tc->cfg.source) - 1);
        tc->cfg.source[sizeof(tc->cfg.source) - 1] = '\0';
    }
    tc->pg.pcr_idx = -1;
    tc->pg.ref_idx = -1;
    tc->next_live = g_live_ctx;
    g_live_ctx = tc;
    if (err != nullptr)
        *err = 0;
    LOG_AT(DEBUG_level, "%s: tsan[%s] (%p) created\n", "tsan_init", tc->cfg.source, (void*)tc);
    return tc;
}

void tsan_free(tsan_t t)
{
    tsan_ctx* tc = tsan_ctx_of(t);
    // A handle that was freed already is not looked at; a context with an
    // empty tag is taken for one that is gone, and kept.
    if (!is_live(tc) || tc->cfg.source[0] == '\0') {
        LOG_AT(WARN_level, "%s: avoiding double-freeing of tsan[] (%p)\n", "tsan_free", t);
        return;
    }
    LOG_AT(DEBUG_level, "%s: freeing up tsan[%s] (%p)\n", "tsan_free", tc->cfg.source, t);
    (void)unlink_live(tc);
    free(tc);
}

int tsan_process(tsan_t t, const uint8_t* pkt, const uint8_t* end)
{
    tsan_ctx* tc = tsan_ctx_of(t);
    ++tc->stat.pcount;
    ++tc->pg.last_pkt_idx;
    tc->at = ptag_src{tc->pg.last_pkt_idx, tc->pg.last_pcr, tc->pg.pcr_pktnum, tc->pg.got_pcr};
    tc->ptag_made = false;
    if (pkt[0] != MPEG_TS_SYNC) {
        LOG_AT(ERR_level, "%s: [%s] out of sync at %s\n", "tsan_process", tc->cfg.source, tsan_ptag(tc));
        return -1;
    }
    const ssize_t idx = upsert_pkt_info(tc, pkt, end);
    if (idx >= 0) {
        mark_processed(tc, idx);
        if (analyze_pkt(tc, pkt, end, idx) != 0)
            return -1;
    }
    // The index, not the count: a change of index moves this test too.
    if (tc->stat.acount == 0 && tc->pg.last_pkt_idx >= tc->cfg.max_skip_pkts) {
        LOG_AT(ERR_level, "[%s] has been idling for too long (%lu/%zu packets)\n", tc->cfg.source,
               tc->pg.last_pkt_idx, tc->cfg.max_skip_pkts);
        return -1;
    }
    return 0;
}

uint64_t tsan_get_pidx(tsan_t t)
{
    return tsan_ctx_of(t)->pg.last_pkt_idx;
}

void tsan_set_pidx(tsan_t t, uint64_t new_pidx)
{
    tsan_ctx* tc = tsan_ctx_of(t);
    const uint64_t old = tc->pg.last_pkt_idx;
    tc->pg.last_pkt_idx = new_pidx;
    LOG_AT(WARN_level, "[%s] packet index changed from %lu to %lu\n", tc->cfg.source, old, new_pidx);
}

void tsan_reset_local_stats(tsan_t t)
{
    tsan_ctx* tc = tsan_ctx_of(t);
    reset_aval(&tc->stat.av_pdts_delta);
    reset_aval(&tc->stat.av_pcr_delta);
    reset_aval(&tc->stat.av_pcr_freq);
}
