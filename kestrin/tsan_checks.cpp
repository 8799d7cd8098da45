// Timing checks of the tracker, and the alerts they raise on both logs.
#include <ctime>

#include "log.h"
#include "mpegts.h"
#include "tsan_ctx.h"

LOG_UNIT(LLMOD_DEFAULT);

// Each alert goes to the application log at WARN, and its alert log form
// only with access_log_alerts; LOST-SYNC always goes to both.

namespace {

const char* stamp_word(bool is_pts)
{
    return is_pts ? "pts" : "dts";
}

uint64_t stamp_of(const stream_info* si, bool is_pts)
{
    return is_pts ? si->last_pts : si->last_dts;
}

void dump_pcr_diff(tsan_ctx* tc, bool is_pts, const stream_info* si, uint64_t s_time, uint64_t delta_ms)
{
    const program_info& pg = tc->pg;
    char s_str[TIMESTR_MAX];
    char pcr_str[TIMESTR_MAX];
    ms2timestr(s_time / 90, s_str, TIMESTR_MAX - 1);
    ms2timestr(pg.last_pcr / 90, pcr_str, TIMESTR_MAX - 1);
    const char* word = stamp_word(is_pts);
    char pcr_letter = 'P';
    unsigned pcr_spid = pg.pcr_pid;
    if (pg.pcr_idx >= 0) {
        pcr_letter = tc->stm[pg.pcr_idx].stype;
        pcr_spid = tc->stm[pg.pcr_idx].pid;
    }
    LOG_AT(WARN_level,
           "ALERT PCR-DELTA [%s] pcr:%s <> %s:%s %c:pcr(pid%u)/%c:%s(pid%u) = %lu [%s]/ %lu [%s] delta=%lu\n",
           tc->cfg.source, word, tsan_pcr_ptag(tc), tsan_ptag(tc), pcr_letter, pcr_spid, si->stype, word, si->pid, pg.last_pcr,
           pcr_str, s_time, s_str, delta_ms);
    if (tc->cfg.access_log_alerts)
        ALOG_LINE("ALERT PCR-DELTA %s %s %u %lu %u %lu %lu [%s]\n", tc->cfg.source, word, pg.pcr_pid,
                  pg.last_pcr, si->pid, s_time, delta_ms, tsan_ptag(tc));
}

void dump_time_info(tsan_ctx* tc, const char* msg, bool is_pts, uint64_t delta_ms, const stream_info* ref_si,
                    const stream_info* si)
{
    const uint64_t ref_time = stamp_of(ref_si, is_pts);
    const uint64_t s_time = stamp_of(si, is_pts);
    char ref_str[TIMESTR_MAX];
    char s_str[TIMESTR_MAX];
    char pcr_str[TIMESTR_MAX];
    ms2timestr(ref_time / 90, ref_str, TIMESTR_MAX - 1);
    ms2timestr(s_time / 90, s_str, TIMESTR_MAX - 1);
    ms2timestr(tc->pg.last_pcr / 90, pcr_str, TIMESTR_MAX - 1);
    const char* word = stamp_word(is_pts);
    LOG_AT(WARN_level, "ALERT %s [%s] %s %c:%s(pid%u)/%c:%s(pid%u) = %lu [%s]/%lu [%s] PCR=%lu [%s], delta=%lu\n",
           msg, tc->cfg.source, tsan_ptag(tc), ref_si->stype, word, ref_si->pid, si->stype, word, si->pid, ref_time,
           ref_str, s_time, s_str, tc->pg.last_pcr, pcr_str, delta_ms);
    if (tc->cfg.access_log_alerts)
        ALOG_LINE("ALERT %s %s %s %u %lu %u %lu %lu [%s]\n", msg, tc->cfg.source, word, ref_si->pid,
                  ref_time, si->pid, s_time, delta_ms, tsan_ptag(tc));
}

}  // namespace

uint32_t pcr_delta_ms(uint64_t first, uint64_t last)
{
    return (uint32_t)(ts_pcr_delta(first, last) / 90);
}

void pcr_freq_check(tsan_ctx* tc, uint64_t new_pcr)
{
    const program_info& pg = tc->pg;
    if (tc->cfg.pcr_freq_ms == 0 || pg.last_pcr == 0)
        return;
    // In stream order: a forward wrap of the clock is understood.
    const uint64_t delta_ms = pcr_delta_ms(pg.last_pcr, new_pcr);
    inc_aval(&tc->stat.av_pcr_freq, delta_ms);
    if (delta_ms <= tc->cfg.pcr_freq_ms)
        return;
    // Made from raw ticks, not milliseconds, unlike every other time string.
    char last_pstr[TIMESTR_MAX];
    char new_pstr[TIMESTR_MAX];
    ms2timestr(pg.last_pcr, last_pstr, TIMESTR_MAX - 1);
    ms2timestr(new_pcr, new_pstr, TIMESTR_MAX - 1);
    LOG_AT(WARN_level, "ALERT PCR-FREQ pid=%u old/new: %lu [%s]/%lu [%s] delta=%lu\n", pg.pcr_pid, pg.last_pcr,
           last_pstr, new_pcr, new_pstr, delta_ms);
    if (tc->cfg.access_log_alerts)
        ALOG_LINE("ALERT PCR-FREQ %s %u %lu %lu %lu [%s]\n", tc->cfg.source, pg.pcr_pid, pg.last_pcr,
                  new_pcr, delta_ms, tsan_ptag(tc));
    ++tc->stat.alert.pcr_freq;
}

void ck_pcr(tsan_ctx* tc, bool is_pts, const stream_info* si)
{
    const uint64_t s_time = stamp_of(si, is_pts);
    const uint64_t pcr = tc->pg.last_pcr;
    // Smaller first: a pair on both sides of the wrap reads as nearly 2^33 ticks.
    const uint64_t delta_ms = (s_time < pcr) ? pcr_delta_ms(s_time, pcr) : pcr_delta_ms(pcr, s_time);
    inc_aval(&tc->stat.av_pcr_delta, delta_ms);
    if (delta_ms > tc->cfg.max_pcr_delta) {
        dump_pcr_diff(tc, is_pts, si, s_time, delta_ms);
        ++tc->stat.alert.pcr_delta;
    }
}

void ck_tstamp(tsan_ctx* tc, bool is_pts, const stream_info* ref_si, const stream_info* si)
{
    const uint64_t ref_time = stamp_of(ref_si, is_pts);
    const uint64_t s_time = stamp_of(si, is_pts);
    const uint64_t delta_ms =
        (s_time < ref_time) ? pcr_delta_ms(s_time, ref_time) : pcr_delta_ms(ref_time, s_time);
    inc_aval(&tc->stat.av_pdts_delta, delta_ms);
    if (delta_ms == 0 && ref_time != s_time) {
        dump_time_info(tc, "AV-DELTA0", is_pts, delta_ms, ref_si, si);
        ++tc->stat.alert.av_delta0;
        return;
    }
    if (delta_ms > tc->cfg.max_pdts_delta) {
        dump_time_info(tc, "AV-DELTA+", is_pts, delta_ms, ref_si, si);
        ++tc->stat.alert.av_deltaplus;
    }
}

int tsan_alert_lostsync(tsan_t t)
{
    return tsan_alert_lostsync_at(t, time(nullptr));
}

int tsan_alert_lostsync_at(tsan_t t, time_t now)
{
    tsan_ctx* tc = tsan_ctx_of(t);
    time_t& last_tm = tc->lostsync_tm;
    size_t& count = tc->lostsync_count;
    if (last_tm == 0) {
        last_tm = now;
    } else if (now - last_tm >= 3 && count <= 9) {
        count = 0;
        last_tm = now;
    }
    ++count;
    ++tc->stat.alert.lost_sync;
    LOG_AT(WARN_level, "ALERT LOST-SYNC [%s] seq=%zu at %s\n", tc->cfg.source, count, tsan_ptag(tc));
    // Not bound to access_log_alerts: the caller asked for an alert log.
    ALOG_LINE("ALERT LOST-SYNC %s %zu [%s]\n", tc->cfg.source, count, tsan_ptag(tc));
    if (count < 10)
        return 0;
    LOG_AT(ERR_level, "%s: bailing out after %zu cases within %ld sec\n", "tsan_alert_lostsync", count,
           (long)(now - last_tm));
    return -1;
}
