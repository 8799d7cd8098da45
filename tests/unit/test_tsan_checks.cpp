// Timing checks and their alerts: limits, the 90 kHz arithmetic with its
// wrap, both forms of every alert, and the lost-sync window.
#include <gtest/gtest.h>

#include <string>

#include "logcap.h"
#include "strf.h"
// The analyzer's private record: these tests read its counters and tables
// directly, as the reports would after many packets.
#include "tsan_ctx.h"
#include "tsbuild.h"

namespace {

struct Tracker {
    explicit Tracker(tsan_config cfg)
    {
        t = tsan_init("ch1", &cfg, nullptr);
        tc = static_cast<tsan_ctx*>(t);
    }
    ~Tracker() { tsan_free(t); }
    Tracker(const Tracker&) = delete;
    Tracker& operator=(const Tracker&) = delete;

    int feed(const TsPkt& p) { return tsan_process(t, p.data(), p.data() + p.size()); }

    tsan_t t;
    tsan_ctx* tc;
};

tsan_config limits(size_t pdts, size_t pcr_delta, size_t pcr_freq, bool alerts = true)
{
    tsan_config cfg{};
    cfg.is_enabled = true;
    cfg.max_skip_pkts = 100000;
    cfg.max_pdts_delta = pdts;
    cfg.max_pcr_delta = pcr_delta;
    cfg.pcr_freq_ms = pcr_freq;
    cfg.access_log_alerts = alerts;
    return cfg;
}

stream_info stream(unsigned pid, char stype, uint64_t pts, uint64_t dts = 0)
{
    stream_info si{};
    si.pid = pid;
    si.stype = stype;
    si.last_pts = pts;
    si.last_dts = dts;
    return si;
}

// Both logs captured: the application log at DEBUG, the alert log as it is.
struct Logs {
    LogCapture app{DEBUG_level};
    LogCapture alerts{DEBUG_level, &g_access_log};
};

}  // namespace

// ---- the arithmetic ----

TEST(PcrDelta, ForwardWrapOfTheClockIsUnderstood)
{
    LogCapture cap;
    EXPECT_EQ(pcr_delta_ms(8589934000ULL, 100), 7u);  // 692 ticks
    EXPECT_EQ(cap.text(), "");
}

TEST(PcrDelta, StepBackIsZeroWithAWarning)
{
    LogCapture cap;
    EXPECT_EQ(pcr_delta_ms(900000, 899999), 0u);
    EXPECT_EQ(cap.text(), "(WRN)  calc_pcr_delta: PCR last=899999 < first=900000 diff=18446744073709551615\n");
}

TEST(PcrDelta, TicksBecomeWholeMilliseconds)
{
    EXPECT_EQ(pcr_delta_ms(1000, 1089), 0u);
    EXPECT_EQ(pcr_delta_ms(1000, 1090), 1u);
    EXPECT_EQ(pcr_delta_ms(0, 900000), 10000u);  // no first reading: the last counts whole
}

// ---- PCR-FREQ ----

TEST(PcrFreq, FirstPcrGivesNoSample)
{
    Tracker tr(limits(0, 0, 40));
    Logs logs;
    pcr_freq_check(tr.tc, 90000);
    EXPECT_EQ(tr.tc->stat.av_pcr_freq.g_count, 0u);
}

TEST(PcrFreq, GapEqualToTheLimitPassesOneMoreAlerts)
{
    Tracker tr(limits(0, 0, 40));
    Logs logs;
    tr.tc->pg.pcr_pid = 256;
    tr.tc->pg.last_pcr = 90000;
    strcpy(tr.tc->ptag, "pkt[7]");
    pcr_freq_check(tr.tc, 90000 + 40 * 90);
    EXPECT_EQ(tr.tc->stat.alert.pcr_freq, 0u);
    EXPECT_EQ(tr.tc->stat.av_pcr_freq.g_count, 1u);
    EXPECT_EQ(tr.tc->stat.av_pcr_freq.g_total, 40u);
    pcr_freq_check(tr.tc, 90000 + 41 * 90);
    EXPECT_EQ(tr.tc->stat.alert.pcr_freq, 1u);
    EXPECT_EQ(logs.app.text(), "(WRN)  ALERT PCR-FREQ pid=256 old/new: 90000 [00:01:30.000]/93690 [00:01:33.690] "
                               "delta=41\n");
    EXPECT_EQ(logs.alerts.text(), "ALERT PCR-FREQ ch1 256 90000 93690 41 [pkt[7]]\n");
}

TEST(PcrFreq, TenSecondJumpReadsFifteenMinutesInRawTickStrings)
{
    Tracker tr(limits(0, 0, 40));
    Logs logs;
    tr.tc->pg.pcr_pid = 256;
    tr.tc->pg.last_pcr = 90000;
    strcpy(tr.tc->ptag, "pkt[9]");
    pcr_freq_check(tr.tc, 90000 + 900000);
    // 900000 ticks, taken as milliseconds: 15 minutes.
    EXPECT_EQ(logs.app.text(), "(WRN)  ALERT PCR-FREQ pid=256 old/new: 90000 [00:01:30.000]/990000 [00:16:30.000] "
                               "delta=10000\n");
    EXPECT_EQ(logs.alerts.text(), "ALERT PCR-FREQ ch1 256 90000 990000 10000 [pkt[9]]\n");
}

TEST(PcrFreq, PcrThatStepsBackGivesAZeroSampleAndNoAlert)
{
    Tracker tr(limits(0, 0, 40));
    Logs logs;
    tr.tc->pg.last_pcr = 900000;
    pcr_freq_check(tr.tc, 899999);
    EXPECT_EQ(tr.tc->stat.alert.pcr_freq, 0u);
    EXPECT_EQ(tr.tc->stat.av_pcr_freq.g_count, 1u);
    EXPECT_EQ(tr.tc->stat.av_pcr_freq.g_max, 0u);
    EXPECT_EQ(logs.app.text(), "(WRN)  calc_pcr_delta: PCR last=899999 < first=900000 diff=18446744073709551615\n");
    EXPECT_EQ(logs.alerts.text(), "");
}

TEST(PcrFreq, WrapOfTheClockIsNoGap)
{
    Tracker tr(limits(0, 0, 40));
    Logs logs;
    tr.tc->pg.last_pcr = 8589934000ULL;
    pcr_freq_check(tr.tc, 100);
    EXPECT_EQ(tr.tc->stat.av_pcr_freq.g_total, 7u);
    EXPECT_EQ(tr.tc->stat.alert.pcr_freq, 0u);
}

TEST(PcrFreq, LimitOfZeroMeasuresNothing)
{
    Tracker tr(limits(0, 0, 0));
    Logs logs;
    tr.tc->pg.last_pcr = 90000;
    pcr_freq_check(tr.tc, 9000000);
    EXPECT_EQ(tr.tc->stat.av_pcr_freq.g_count, 0u);
    EXPECT_EQ(tr.tc->stat.alert.pcr_freq, 0u);
    EXPECT_EQ(logs.app.text(), "");
}

TEST(PcrFreq, AlertLogFormOnlyWhenAskedForButTheCounterRises)
{
    Tracker tr(limits(0, 0, 40, false));
    Logs logs;
    tr.tc->pg.last_pcr = 90000;
    pcr_freq_check(tr.tc, 190000);
    EXPECT_EQ(tr.tc->stat.alert.pcr_freq, 1u);
    EXPECT_EQ(logs.alerts.text(), "");
}

// ---- PCR-DELTA ----

TEST(PcrDeltaCheck, EqualToTheLimitPassesOneMoreAlerts)
{
    Tracker tr(limits(0, 100, 0));
    Logs logs;
    tsan_ctx* tc = tr.tc;
    tc->pg.pcr_pid = 256;
    tc->pg.last_pcr = 900000;
    const stream_info ok = stream(257, 'A', 900000 + 100 * 90);
    ck_pcr(tc, true, &ok);
    EXPECT_EQ(tc->stat.alert.pcr_delta, 0u);
    const stream_info late = stream(257, 'A', 900000 + 101 * 90);
    ck_pcr(tc, true, &late);
    EXPECT_EQ(tc->stat.alert.pcr_delta, 1u);
    EXPECT_EQ(tc->stat.av_pcr_delta.g_count, 2u);
    EXPECT_EQ(tc->stat.av_pcr_delta.g_total, 201u);
}

TEST(PcrDeltaCheck, BothFormsWithThePcrOnAStream)
{
    Tracker tr(limits(0, 100, 0));
    Logs logs;
    tsan_ctx* tc = tr.tc;
    tc->pg.pcr_pid = 256;
    tc->pg.pcr_idx = 0;
    tc->stm[0] = stream(256, 'V', 0);
    tc->pg.nstreams = 1;
    tc->pg.last_pcr = 900000;
    strcpy(tc->pg.pcr_ptag, "pkt[10]");
    strcpy(tc->ptag, "pkt[12]:(pcr=900000)+2");
    const stream_info si = stream(257, 'A', 0, 900000 - 200 * 90);
    ck_pcr(tc, false, &si);
    EXPECT_EQ(logs.app.text(),
              "(WRN)  ALERT PCR-DELTA [ch1] pcr:dts <> pkt[10]:pkt[12]:(pcr=900000)+2 V:pcr(pid256)/A:dts(pid257) = "
              "900000 [00:00:10.000]/ 882000 [00:00:09.800] delta=200\n");
    EXPECT_EQ(logs.alerts.text(), "ALERT PCR-DELTA ch1 dts 256 900000 257 882000 200 [pkt[12]:(pcr=900000)+2]\n");
}

TEST(PcrDeltaCheck, PcrOnAPidWithoutAStreamIsTheLetterPAndThePcrPid)
{
    Tracker tr(limits(0, 100, 0));
    Logs logs;
    tsan_ctx* tc = tr.tc;
    tc->pg.pcr_pid = 4000;
    tc->pg.last_pcr = 900000;
    strcpy(tc->pg.pcr_ptag, "pkt[1]");
    strcpy(tc->ptag, "pkt[2]");
    const stream_info si = stream(257, 'A', 900000 + 1000 * 90);
    ck_pcr(tc, true, &si);
    EXPECT_EQ(logs.app.text(),
              "(WRN)  ALERT PCR-DELTA [ch1] pcr:pts <> pkt[1]:pkt[2] P:pcr(pid4000)/A:pts(pid257) = "
              "900000 [00:00:10.000]/ 990000 [00:00:11.000] delta=1000\n");
}

TEST(PcrDeltaCheck, PairAcrossTheWrapReadsAsNearlyTwoToThe33Ticks)
{
    Tracker tr(limits(0, 100, 0));
    Logs logs;
    tr.tc->pg.last_pcr = 8589934000ULL;
    const stream_info si = stream(257, 'A', 100);
    ck_pcr(tr.tc, true, &si);
    EXPECT_EQ(tr.tc->stat.av_pcr_delta.g_max, 95443710u);
    EXPECT_EQ(tr.tc->stat.alert.pcr_delta, 1u);
}

// ---- AV-DELTA0 and AV-DELTA+ ----

TEST(AvDelta, EightyNineTicksApartIsZeroMillisecondsAndAnAlert)
{
    Tracker tr(limits(500, 0, 0));
    Logs logs;
    tsan_ctx* tc = tr.tc;
    tc->pg.last_pcr = 90000;
    strcpy(tc->ptag, "pkt[5]");
    const stream_info ref = stream(256, 'V', 180000);
    const stream_info si = stream(257, 'A', 180089);
    ck_tstamp(tc, true, &ref, &si);
    EXPECT_EQ(tc->stat.alert.av_delta0, 1u);
    EXPECT_EQ(tc->stat.alert.av_deltaplus, 0u);
    EXPECT_EQ(logs.app.text(), "(WRN)  ALERT AV-DELTA0 [ch1] pkt[5] V:pts(pid256)/A:pts(pid257) = 180000 "
                               "[00:00:02.000]/180089 [00:00:02.000] PCR=90000 [00:00:01.000], delta=0\n");
    EXPECT_EQ(logs.alerts.text(), "ALERT AV-DELTA0 ch1 pts 256 180000 257 180089 0 [pkt[5]]\n");
}

TEST(AvDelta, NinetyTicksApartIsOneMillisecondAndNoAlert)
{
    Tracker tr(limits(1, 0, 0));
    Logs logs;
    const stream_info ref = stream(256, 'V', 180000);
    const stream_info si = stream(257, 'A', 180090);
    ck_tstamp(tr.tc, true, &ref, &si);
    EXPECT_EQ(tr.tc->stat.alert.av_delta0 + tr.tc->stat.alert.av_deltaplus, 0u);
    EXPECT_EQ(tr.tc->stat.av_pdts_delta.g_total, 1u);
    EXPECT_EQ(logs.app.text(), "");
}

TEST(AvDelta, EqualStampsAreNoAlertButASample)
{
    Tracker tr(limits(500, 0, 0));
    Logs logs;
    const stream_info ref = stream(256, 'V', 180000);
    ck_tstamp(tr.tc, true, &ref, &ref);
    EXPECT_EQ(tr.tc->stat.alert.av_delta0 + tr.tc->stat.alert.av_deltaplus, 0u);
    EXPECT_EQ(tr.tc->stat.av_pdts_delta.g_count, 1u);
}

TEST(AvDelta, EqualToTheLimitPassesOneMoreAlerts)
{
    Tracker tr(limits(500, 0, 0));
    Logs logs;
    tsan_ctx* tc = tr.tc;
    strcpy(tc->ptag, "pkt[8]");
    const stream_info ref = stream(256, 'V', 0, 900000);
    const stream_info ok = stream(257, 'A', 0, 900000 + 500 * 90);
    ck_tstamp(tc, false, &ref, &ok);
    EXPECT_EQ(tc->stat.alert.av_deltaplus, 0u);
    const stream_info late = stream(257, 'A', 0, 900000 - 501 * 90);
    ck_tstamp(tc, false, &ref, &late);
    EXPECT_EQ(tc->stat.alert.av_deltaplus, 1u);
    EXPECT_EQ(logs.app.text(), "(WRN)  ALERT AV-DELTA+ [ch1] pkt[8] V:dts(pid256)/A:dts(pid257) = 900000 "
                               "[00:00:10.000]/854910 [00:00:09.499] PCR=0 [00:00:00.000], delta=501\n");
    EXPECT_EQ(logs.alerts.text(), "ALERT AV-DELTA+ ch1 dts 256 900000 257 854910 501 [pkt[8]]\n");
}

TEST(AvDelta, PairAcrossTheWrapAlerts)
{
    Tracker tr(limits(500, 0, 0));
    Logs logs;
    const stream_info ref = stream(256, 'V', 8589934000ULL);
    const stream_info si = stream(257, 'A', 100);
    ck_tstamp(tr.tc, true, &ref, &si);
    EXPECT_EQ(tr.tc->stat.av_pdts_delta.g_max, 95443710u);
    EXPECT_EQ(tr.tc->stat.alert.av_deltaplus, 1u);
}

// ---- the checks in the tracker's flow ----

namespace {

// PAT, then a PMT of video 256 (the PCR's) and audio 257 on PMT PID 4096.
void start_program(Tracker& tr, uint16_t pcr_pid = 256)
{
    ASSERT_EQ(tr.feed(ts_pat({{1, 4096}})), 0);
    ASSERT_EQ(tr.feed(ts_pmt(4096, pcr_pid, {{2, 256}, {3, 257}})), 0);
}

}  // namespace

TEST(TrackerChecks, PtsBeforeAnyPcrIsCheckedAgainstTheReferenceOnly)
{
    Tracker tr(limits(500, 100, 0));
    Logs logs;
    start_program(tr);
    ASSERT_EQ(tr.feed(ts_pes(256, 900000, 0)), 0);
    ASSERT_EQ(tr.feed(ts_pes(257, 900000 + 600 * 90, 0, 0xC0)), 0);
    EXPECT_FALSE(tr.tc->pg.got_pcr);
    EXPECT_EQ(tr.tc->stat.av_pcr_delta.g_count, 0u);
    EXPECT_EQ(tr.tc->stat.av_pdts_delta.g_count, 1u);
    EXPECT_EQ(tr.tc->stat.alert.av_deltaplus, 1u);
}

TEST(TrackerChecks, AudioWithoutVideoHasNoReferenceButThePcrCheckWorks)
{
    Tracker tr(limits(500, 100, 0));
    Logs logs;
    ASSERT_EQ(tr.feed(ts_pat({{1, 4096}})), 0);
    ASSERT_EQ(tr.feed(ts_pmt(4096, 300, {{3, 257}})), 0);
    EXPECT_EQ(tr.tc->pg.ref_idx, -1);
    ASSERT_EQ(tr.feed(ts_pcr(300, 900000)), 0);
    ASSERT_EQ(tr.feed(ts_pes(257, 900000 + 200 * 90, 0, 0xC0)), 0);
    EXPECT_EQ(tr.tc->stat.alert.pcr_delta, 1u);
    EXPECT_EQ(tr.tc->stat.av_pdts_delta.g_count, 0u);
}

TEST(TrackerChecks, WithoutTheReferenceCheckTheFlagStaysAndThePcrCheckRepeats)
{
    Tracker tr(limits(0, 100, 0));
    Logs logs;
    ASSERT_EQ(tr.feed(ts_pat({{1, 4096}})), 0);
    ASSERT_EQ(tr.feed(ts_pmt(4096, 300, {{3, 257}})), 0);
    ASSERT_EQ(tr.feed(ts_pcr(300, 900000)), 0);
    ASSERT_EQ(tr.feed(ts_pes(257, 900000 + 200 * 90, 0, 0xC0)), 0);
    EXPECT_TRUE(tr.tc->stm[0].pts_updated);
    // A later packet of the stream whose payload looks like a PES header,
    // without the unit-start bit: no new stamp, the same check again.
    TsPkt again = ts_pes(257, 1, 0, 0xC0);
    again[1] &= (uint8_t)~0x40;
    ASSERT_EQ(tr.feed(again), 0);
    EXPECT_EQ(tr.tc->stat.alert.pcr_delta, 2u);
    EXPECT_EQ(tr.tc->stat.av_pcr_delta.g_count, 2u);
}

// ---- lost sync ----

namespace {

// Each test's tracker is a new analyzer, with a window of its own.
struct LostSync : ::testing::Test {};

}  // namespace

TEST_F(LostSync, TenCasesWithinTwoSecondsGiveUp)
{
    Tracker tr(limits(0, 0, 0, false));
    Logs logs;
    strcpy(tr.tc->ptag, "pkt[3]");
    std::string app;
    std::string alerts;
    for (int i = 1; i <= 9; ++i) {
        EXPECT_EQ(tsan_alert_lostsync_at(tr.t, 1000 + (i > 5 ? 2 : 0)), 0) << i;
        app += strf("(WRN)  ALERT LOST-SYNC [ch1] seq=%d at pkt[3]\n", i);
        alerts += strf("ALERT LOST-SYNC ch1 %d [pkt[3]]\n", i);
    }
    EXPECT_EQ(tsan_alert_lostsync_at(tr.t, 1002), -1);
    app += "(WRN)  ALERT LOST-SYNC [ch1] seq=10 at pkt[3]\n"
           "(ERR)  tsan_alert_lostsync: bailing out after 10 cases within 2 sec\n";
    alerts += "ALERT LOST-SYNC ch1 10 [pkt[3]]\n";
    EXPECT_EQ(logs.app.text(), app);
    // Written whatever access_log_alerts says.
    EXPECT_EQ(logs.alerts.text(), alerts);
    EXPECT_EQ(tr.tc->stat.alert.lost_sync, 10u);
}

TEST_F(LostSync, NineCasesAPauseOfThreeSecondsAndOneStartAfresh)
{
    Tracker tr(limits(0, 0, 0));
    Logs logs;
    strcpy(tr.tc->ptag, "pkt[3]");
    for (int i = 0; i < 9; ++i)
        ASSERT_EQ(tsan_alert_lostsync_at(tr.t, 1000), 0);
    logs.app.clear();
    EXPECT_EQ(tsan_alert_lostsync_at(tr.t, 1003), 0);
    EXPECT_EQ(logs.app.text(), "(WRN)  ALERT LOST-SYNC [ch1] seq=1 at pkt[3]\n");
    EXPECT_EQ(tr.tc->stat.alert.lost_sync, 10u);
}

TEST_F(LostSync, TheWindowDoesNotSlide)
{
    Tracker tr(limits(0, 0, 0));
    Logs logs;
    // Cases one a second: the fourth is 3 seconds behind the first and opens
    // a new window, though the three before it came within 3 seconds.
    EXPECT_EQ(tsan_alert_lostsync_at(tr.t, 1000), 0);
    EXPECT_EQ(tsan_alert_lostsync_at(tr.t, 1001), 0);
    EXPECT_EQ(tsan_alert_lostsync_at(tr.t, 1002), 0);
    logs.app.clear();
    EXPECT_EQ(tsan_alert_lostsync_at(tr.t, 1003), 0);
    EXPECT_EQ(logs.app.text(), "(WRN)  ALERT LOST-SYNC [ch1] seq=1 at \n");
}

TEST_F(LostSync, TenCasesOverLongerThanThreeSecondsStillGiveUpWhenTheWindowNeverReset)
{
    Tracker tr(limits(0, 0, 0));
    Logs logs;
    // Ten or more cases in a window: the window never closes again.
    for (int i = 0; i < 9; ++i)
        ASSERT_EQ(tsan_alert_lostsync_at(tr.t, 1000), 0);
    EXPECT_EQ(tsan_alert_lostsync_at(tr.t, 1002), -1);
    EXPECT_EQ(tsan_alert_lostsync_at(tr.t, 1010), -1);
}

TEST_F(LostSync, TwoAnalyzersKeepAWindowEach)
{
    Tracker first(limits(0, 0, 0));
    Tracker second(limits(0, 0, 0));
    Logs logs;
    for (int i = 0; i < 9; ++i)
        ASSERT_EQ(tsan_alert_lostsync_at(first.t, 1000), 0);
    logs.app.clear();
    // The second analyzer's first case is its own first, not the tenth.
    EXPECT_EQ(tsan_alert_lostsync_at(second.t, 1000), 0);
    EXPECT_EQ(logs.app.text(), "(WRN)  ALERT LOST-SYNC [ch1] seq=1 at \n");
    EXPECT_EQ(tsan_alert_lostsync_at(first.t, 1000), -1);
}
