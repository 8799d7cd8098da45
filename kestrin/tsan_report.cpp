// The analyzer's reports: a text block for people on the application log's
// stream, and STAT lines for machines on the alert log.
#include <ctime>

#include "log.h"
#include "tsan_ctx.h"
#include "tsfields.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

void log_aval_stats(const char* tag, const char* src, int ref_pid, int src_pid, const aggr_val* av)
{
    ALOG_LINE("STAT %s %s %d %d %.02f %lu %lu %lu %lu %.02f %lu %lu %lu %lu\n", tag, src, ref_pid, src_pid,
              (double)av->total / (double)av->count, av->count, av->total, av->min, av->max,
              (double)av->g_total / (double)av->g_count, av->g_count, av->g_total, av->g_min, av->g_max);
}

// The stream index is taken into the PMT PID table: that is what the column
// holds. An index past that table gives -1.
int pmt_pid_at(const tsan_ctx* tc, ssize_t idx)
{
    if (idx < 0 || (size_t)idx >= MAX_PMTS)
        return -1;
    return (int)tc->pg.pmt_pid[idx];
}

void log_pmt_stats(const tsan_ctx* tc)
{
    const char* src = tc->cfg.source;
    ALOG_LINE("STAT PMTs %s %u %zu\n", src, tc->pg.curr_pmt_pid, tc->pg.nstreams);
    for (size_t i = 0; i < tc->pg.nstreams; ++i) {
        const stream_info& si = tc->stm[i];
        ALOG_LINE("STAT PMTi %s %u %c %lu %lu [%s]\n", src, si.pid, si.stype, si.pcount, si.acount,
                  get_streamtype_txt(si.scode));
    }
}

void log_prg_stats(const tsan_ctx* tc)
{
    const sa_stats& st = tc->stat;
    ALOG_LINE("STAT PRG %s %u %lu %lu %lu %lu %lu %lu\n", tc->cfg.source, tc->pg.pcr_pid, st.pcount, st.acount,
              st.v_pcount, st.v_acount, st.a_pcount, st.a_acount);
}

void log_prg_deltas(const tsan_ctx* tc)
{
    const char* src = tc->cfg.source;
    if (tc->cfg.max_pdts_delta != 0)
        log_aval_stats("AV-delta", src, pmt_pid_at(tc, tc->pg.ref_idx), -1, &tc->stat.av_pdts_delta);
    if (tc->cfg.max_pcr_delta != 0)
        log_aval_stats("PCR-delta", src, pmt_pid_at(tc, tc->pg.pcr_idx), -1, &tc->stat.av_pcr_delta);
    if (tc->cfg.pcr_freq_ms != 0)
        log_aval_stats("PCR-freq", src, pmt_pid_at(tc, tc->pg.pcr_idx), -1, &tc->stat.av_pcr_freq);
}

void log_alert_counters(const tsan_ctx* tc)
{
    const alert_count& a = tc->stat.alert;
    ALOG_LINE("STAT ALERT-count %s %lu %lu %lu %lu %lu\n", tc->cfg.source, a.av_deltaplus, a.av_delta0, a.pcr_delta,
              a.pcr_freq, a.lost_sync);
}

}  // namespace

bool tsan_check_dump_stats(FILE* fp, tsan_t t)
{
    return tsan_check_dump_stats_at(fp, t, time(nullptr));
}

bool tsan_check_dump_stats_at(FILE* fp, tsan_t t, time_t now)
{
    tsan_ctx* tc = tsan_ctx_of(t);
    if (tc->cfg.dump_stats_period == 0)
        return false;
    // The first report comes a whole period after the first call.
    if (tc->last_stats_dumped == 0) {
        tc->last_stats_dumped = now;
        return false;
    }
    if ((size_t)(now - tc->last_stats_dumped) < tc->cfg.dump_stats_period)
        return false;
    if (fp != nullptr)
        tsan_dump_stats(fp, t);
    tsan_alog_stats(t);
    return true;
}

void tsan_dump_stats(FILE* fp, tsan_t t)
{
    tsan_ctx* tc = tsan_ctx_of(t);
    const sa_stats& st = tc->stat;
    fprintf(fp, "BEGIN tsan_stats\n");
    fprintf(fp, "\tPackets:\n");
    fprintf(fp, "\t\tprocessed/analyzed:  %lu/%lu\n", st.pcount, st.acount);
    fprintf(fp, "\t\tprocessed V/A:       %lu/%lu\n", st.v_pcount, st.a_pcount);
    fprintf(fp, "\t\tanalyzed  V/A:       %lu/%lu\n", st.v_acount, st.a_acount);
    fprintf(fp, "\t\tpre-skipped:         %lu\n", st.pre_skipped);
    fprintf(fp, "\tAlert metrics:\n");
    if (tc->cfg.max_pdts_delta != 0)
        dump_aval(fp, "\t\tPTS/DTS delta", &st.av_pdts_delta);
    if (tc->cfg.max_pcr_delta != 0)
        dump_aval(fp, "\t\tPCR delta", &st.av_pcr_delta);
    if (tc->cfg.pcr_freq_ms != 0)
        dump_aval(fp, "\t\tPCR frequency", &st.av_pcr_freq);
    fprintf(fp, "\n");
    fprintf(fp, "\tMonitored tracks:\n");
    for (size_t i = 0; i < tc->pg.nstreams; ++i) {
        const stream_info& si = tc->stm[i];
        fprintf(fp, "\t\t%c(pid%u) [%s]: P/A: %lu/%lu\n", si.stype, si.pid, pmt_get_streamtype_txt(si.scode),
                si.pcount, si.acount);
    }
    fprintf(fp, "\tAlerts:\n");
    fprintf(fp,
            "\t\tAV delta:          %lu\n\t\tAV zero:           %lu\n\t\tPCR delta:         %lu\n"
            "\t\tPCR frequency:     %lu\n\t\tLOST-SYNC:         %lu\n",
            st.alert.av_deltaplus, st.alert.av_delta0, st.alert.pcr_delta, st.alert.pcr_freq, st.alert.lost_sync);
    fprintf(fp, "END tsan_stats\n");
    tc->last_stats_dumped = time(nullptr);
}

void tsan_alog_stats(tsan_t t)
{
    tsan_ctx* tc = tsan_ctx_of(t);
    // The stream table goes out in the first report and every 256th.
    if (tc->pg.skip_pmt_out == 0)
        log_pmt_stats(tc);
    ++tc->pg.skip_pmt_out;
    log_prg_stats(tc);
    log_prg_deltas(tc);
    log_alert_counters(tc);
}
