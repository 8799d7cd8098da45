// The analyzer's reports: the text block, the STAT lines of the alert log,
// and when they come.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "logcap.h"
#include "strf.h"
// The analyzer's private record: these tests read its counters and tables
// directly, as the reports would after many packets.
#include "tsan_ctx.h"

namespace {

struct Analyzer {
    explicit Analyzer(size_t pdts, size_t pcr_delta, size_t pcr_freq, size_t period = 10)
    {
        tsan_config cfg{};
        cfg.is_enabled = true;
        cfg.max_pdts_delta = pdts;
        cfg.max_pcr_delta = pcr_delta;
        cfg.pcr_freq_ms = pcr_freq;
        cfg.dump_stats_period = period;
        t = tsan_init("ch1", &cfg, nullptr);
        tc = static_cast<tsan_ctx*>(t);
    }
    ~Analyzer() { tsan_free(t); }
    Analyzer(const Analyzer&) = delete;
    Analyzer& operator=(const Analyzer&) = delete;

    // A program of H.264 video 256 (the PCR's) and AAC audio 257 from PMT
    // PID 4096, with counts.
    void program()
    {
        tc->pg.pmt_pid[0] = 4096;
        tc->pg.curr_pmt_pid = 4096;
        tc->pg.pcr_pid = 256;
        tc->pg.pcr_idx = 0;
        tc->pg.ref_idx = 0;
        tc->pg.nstreams = 2;
        tc->stm[0] = stream_info{256, 'V', 27, 0, 0, 0, 0, false, false, 700, 690};
        tc->stm[1] = stream_info{257, 'A', 15, 0, 0, 0, 0, false, false, 90, 88};
        sa_stats& st = tc->stat;
        st.pcount = 800;
        st.acount = 778;
        st.v_pcount = 700;
        st.v_acount = 690;
        st.a_pcount = 90;
        st.a_acount = 88;
        st.pre_skipped = 9;
        st.alert = alert_count{1, 2, 3, 4, 5};
    }

    std::string text_report()
    {
        char* buf = nullptr;
        size_t len = 0;
        FILE* fp = open_memstream(&buf, &len);
        tsan_dump_stats(fp, t);
        fclose(fp);
        std::string s(buf, len);
        free(buf);
        return s;
    }

    tsan_t t;
    tsan_ctx* tc;
};

std::string nan_text()
{
    volatile double zero = 0.0;
    char buf[16];
    snprintf(buf, sizeof(buf), "%.02f", zero / zero);
    return buf;
}

}  // namespace

TEST(Report, StatLinesOfTheFirstReportHoldTheStreamTable)
{
    Analyzer an(500, 100, 40);
    an.program();
    inc_aval(&an.tc->stat.av_pdts_delta, 10);
    inc_aval(&an.tc->stat.av_pdts_delta, 20);
    inc_aval(&an.tc->stat.av_pcr_delta, 30);
    inc_aval(&an.tc->stat.av_pcr_freq, 40);
    LogCapture alerts(DEBUG_level, &g_access_log);
    tsan_alog_stats(an.t);
    EXPECT_EQ(alerts.text(),
              "STAT PMTs ch1 4096 2\n"
              "STAT PMTi ch1 256 V 700 690 [H.264/14496-10_video_(MPEG-4/AVC)]\n"
              "STAT PMTi ch1 257 A 90 88 [13818-7_Audio_with_ADTS_transport_syntax]\n"
              "STAT PRG ch1 256 800 778 700 690 90 88\n"
              "STAT AV-delta ch1 4096 -1 15.00 2 30 10 20 15.00 2 30 10 20\n"
              "STAT PCR-delta ch1 4096 -1 30.00 1 30 30 30 30.00 1 30 30 30\n"
              "STAT PCR-freq ch1 4096 -1 40.00 1 40 40 40 40.00 1 40 40 40\n"
              "STAT ALERT-count ch1 2 1 3 4 5\n");
    EXPECT_EQ(an.tc->pg.skip_pmt_out, 1);
}

TEST(Report, TheStreamTableComesOutOnceIn256Reports)
{
    Analyzer an(0, 0, 0);
    an.program();
    LogCapture alerts(DEBUG_level, &g_access_log);
    int tables = 0;
    for (int report = 1; report <= 513; ++report) {
        alerts.clear();
        tsan_alog_stats(an.t);
        if (alerts.text().find("STAT PMTs ") != std::string::npos) {
            ++tables;
            EXPECT_TRUE(report == 1 || report == 257 || report == 513) << report;
        }
    }
    EXPECT_EQ(tables, 3);
}

TEST(Report, BeforeAnyPmtTheTableIsEmptyAndWaitsForReport257)
{
    Analyzer an(0, 0, 0);
    LogCapture alerts(DEBUG_level, &g_access_log);
    tsan_alog_stats(an.t);
    EXPECT_EQ(alerts.text(), "STAT PMTs ch1 0 0\n"
                             "STAT PRG ch1 0 0 0 0 0 0 0\n"
                             "STAT ALERT-count ch1 0 0 0 0 0\n");
    an.program();
    alerts.clear();
    tsan_alog_stats(an.t);
    EXPECT_EQ(alerts.text().find("STAT PMT"), std::string::npos);
}

TEST(Report, ALimitOfZeroHasNoLineAndNoTextLine)
{
    Analyzer an(0, 100, 0);
    an.program();
    LogCapture alerts(DEBUG_level, &g_access_log);
    an.tc->pg.skip_pmt_out = 1;
    tsan_alog_stats(an.t);
    const std::string nan = nan_text();
    EXPECT_EQ(alerts.text(), "STAT PRG ch1 256 800 778 700 690 90 88\n"
                             "STAT PCR-delta ch1 4096 -1 " + nan + " 0 0 0 0 " + nan + " 0 0 0 0\n"
                             "STAT ALERT-count ch1 2 1 3 4 5\n");
    const std::string text = an.text_report();
    EXPECT_EQ(text.find("PTS/DTS delta"), std::string::npos);
    EXPECT_NE(text.find("\t\tPCR delta:"), std::string::npos);
    EXPECT_EQ(text.find("PCR frequency:\t"), std::string::npos);
}

TEST(Report, ThePidColumnIndexesThePmtPidTable)
{
    Analyzer an(500, 100, 40);
    an.program();
    an.tc->pg.skip_pmt_out = 1;
    // The PCR's stream is the fourth: the PAT listed one program only.
    an.tc->pg.pcr_idx = 3;
    an.tc->pg.ref_idx = -1;
    LogCapture alerts(DEBUG_level, &g_access_log);
    tsan_alog_stats(an.t);
    const std::string text = alerts.text();
    EXPECT_NE(text.find("STAT AV-delta ch1 -1 -1 "), std::string::npos) << text;
    EXPECT_NE(text.find("STAT PCR-delta ch1 0 -1 "), std::string::npos) << text;
    EXPECT_NE(text.find("STAT PCR-freq ch1 0 -1 "), std::string::npos) << text;
}

TEST(Report, AStreamIndexPastThePmtTableGivesMinusOne)
{
    Analyzer an(0, 100, 0);
    an.program();
    an.tc->pg.skip_pmt_out = 1;
    an.tc->pg.pcr_idx = 40;
    LogCapture alerts(DEBUG_level, &g_access_log);
    tsan_alog_stats(an.t);
    EXPECT_NE(alerts.text().find("STAT PCR-delta ch1 -1 -1 "), std::string::npos) << alerts.text();
}

TEST(Report, StreamTypeTextsInTheTableColumn)
{
    Analyzer an(0, 0, 0);
    an.tc->pg.nstreams = 2;
    an.tc->stm[0] = stream_info{300, 'V', 66, 0, 0, 0, 0, false, false, 1, 1};
    an.tc->stm[1] = stream_info{301, 'A', 0, 0, 0, 0, 0, false, false, 2, 2};
    LogCapture alerts(DEBUG_level, &g_access_log);
    tsan_alog_stats(an.t);
    EXPECT_NE(alerts.text().find("STAT PMTi ch1 300 V 1 1 [AVS_Video]\n"), std::string::npos);
    EXPECT_NE(alerts.text().find("STAT PMTi ch1 301 A 2 2 [Reserved]\n"), std::string::npos);
}

TEST(Report, TextReport)
{
    Analyzer an(500, 0, 40);
    an.program();
    inc_aval(&an.tc->stat.av_pdts_delta, 10);
    inc_aval(&an.tc->stat.av_pcr_freq, 40);
    EXPECT_EQ(an.text_report(),
              "BEGIN tsan_stats\n"
              "\tPackets:\n"
              "\t\tprocessed/analyzed:  800/778\n"
              "\t\tprocessed V/A:       700/90\n"
              "\t\tanalyzed  V/A:       690/88\n"
              "\t\tpre-skipped:         9\n"
              "\tAlert metrics:\n"
              "\t\tPTS/DTS delta:\t\tlocal=10.00 (n=1/v=10) min/max=10/10, global=10.00 (n=1/v=10) min/max=10/10\n"
              "\t\tPCR frequency:\t\tlocal=40.00 (n=1/v=40) min/max=40/40, global=40.00 (n=1/v=40) min/max=40/40\n"
              "\n"
              "\tMonitored tracks:\n"
              "\t\tV(pid256) [H.264/14496-10 video (MPEG-4/AVC)]: P/A: 700/690\n"
              "\t\tA(pid257) [13818-7 Audio with ADTS transport syntax]: P/A: 90/88\n"
              "\tAlerts:\n"
              "\t\tAV delta:          2\n"
              "\t\tAV zero:           1\n"
              "\t\tPCR delta:         3\n"
              "\t\tPCR frequency:     4\n"
              "\t\tLOST-SYNC:         5\n"
              "END tsan_stats\n");
    EXPECT_NE(an.tc->last_stats_dumped, 0);
}

TEST(ReportTiming, FirstCallOnlyStartsThePeriod)
{
    Analyzer an(0, 0, 0, 10);
    LogCapture alerts(DEBUG_level, &g_access_log);
    FILE* fp = tmpfile();
    EXPECT_FALSE(tsan_check_dump_stats_at(fp, an.t, 1000));
    EXPECT_EQ(an.tc->last_stats_dumped, 1000);
    EXPECT_FALSE(tsan_check_dump_stats_at(fp, an.t, 1009));
    EXPECT_TRUE(tsan_check_dump_stats_at(fp, an.t, 1010));
    EXPECT_NE(alerts.text().find("STAT PRG "), std::string::npos);
    EXPECT_GT(ftell(fp), 0);
    fclose(fp);
}

TEST(ReportTiming, APeriodOfZeroReportsNothing)
{
    Analyzer an(0, 0, 0, 0);
    LogCapture alerts(DEBUG_level, &g_access_log);
    EXPECT_FALSE(tsan_check_dump_stats_at(stderr, an.t, 1000));
    EXPECT_FALSE(tsan_check_dump_stats_at(stderr, an.t, 100000));
    EXPECT_EQ(an.tc->last_stats_dumped, 0);
    EXPECT_EQ(alerts.text(), "");
}

TEST(ReportTiming, WithoutAStreamThePeriodNeverRestarts)
{
    Analyzer an(0, 0, 0, 10);
    LogCapture alerts(DEBUG_level, &g_access_log);
    EXPECT_FALSE(tsan_check_dump_stats_at(nullptr, an.t, 1000));
    EXPECT_TRUE(tsan_check_dump_stats_at(nullptr, an.t, 1010));
    EXPECT_TRUE(tsan_check_dump_stats_at(nullptr, an.t, 1011));
    EXPECT_TRUE(tsan_check_dump_stats_at(nullptr, an.t, 1011));
    EXPECT_EQ(an.tc->last_stats_dumped, 1000);
}

TEST(Report, TheFirstReportAfterAQuietPeriodHasNoLocalSample)
{
    Analyzer an(0, 100, 0);
    an.program();
    an.tc->pg.skip_pmt_out = 1;
    inc_aval(&an.tc->stat.av_pcr_delta, 30);
    inc_aval(&an.tc->stat.av_pcr_delta, 50);
    tsan_reset_local_stats(an.t);
    LogCapture alerts(DEBUG_level, &g_access_log);
    tsan_alog_stats(an.t);
    const std::string nan = nan_text();
    EXPECT_NE(alerts.text().find("STAT PCR-delta ch1 4096 -1 " + nan + " 0 0 0 0 40.00 2 80 30 50\n"),
              std::string::npos)
        << alerts.text();
}

TEST(ReportTiming, ResetOfTheLocalStatisticsLeavesTheGlobalOnes)
{
    Analyzer an(500, 100, 40);
    for (aggr_val* av : {&an.tc->stat.av_pdts_delta, &an.tc->stat.av_pcr_delta, &an.tc->stat.av_pcr_freq})
        inc_aval(av, 7);
    tsan_reset_local_stats(an.t);
    for (const aggr_val* av : {&an.tc->stat.av_pdts_delta, &an.tc->stat.av_pcr_delta, &an.tc->stat.av_pcr_freq}) {
        EXPECT_EQ(av->count, 0u);
        EXPECT_EQ(av->g_count, 1u);
        EXPECT_EQ(av->g_total, 7u);
    }
}
