// Time helpers: limits of time-outs, stamps, dates and spans.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "logcap.h"
#include "timeop.h"

TEST(Timeop, TimedOutIsFalseExactlyAtTheLimitAndTrueOneNanosecondLater)
{
    const timespec last{100, 999999999};
    const timespec tmout{2, 1};  // carries one second: the limit is 103.000000000
    timespec now{103, 0};
    EXPECT_FALSE(timed_out_ext(&last, &tmout, &now));
    now.tv_nsec = 1;
    EXPECT_TRUE(timed_out_ext(&last, &tmout, &now));
    now = {102, 999999999};
    EXPECT_FALSE(timed_out_ext(&last, &tmout, &now));
    now = {104, 0};
    EXPECT_TRUE(timed_out_ext(&last, &tmout, &now));
}

TEST(Timeop, CachedClockStaysAtZeroWithoutAnEventLoop)
{
    EXPECT_EQ(rqs_now_ref()->tv_sec, 0);
    EXPECT_EQ(rqs_now_ref()->tv_nsec, 0);
    timespec last;
    set_clk_now(&last, CLOCK_MONOTONIC);
    const timespec tmout{0, 0};
    EXPECT_FALSE(timed_out(&last, &tmout));
    EXPECT_FALSE(timed_out_ext(&last, &tmout, nullptr));
}

TEST(Timeop, TimedOutRealReadsTheRealClock)
{
    const timespec past{1000, 0};
    const timespec tmout{1, 0};
    EXPECT_TRUE(timed_out_real(&past, &tmout));
    timespec now;
    set_clk_now(&now, CLOCK_REALTIME);
    const timespec hour{3600, 0};
    EXPECT_FALSE(timed_out_real(&now, &hour));
}

TEST(Timeop, TimespanBorrowsOnce)
{
    const timespec from{10, 900000000}, till{12, 100000000};
    timespec span;
    calc_timespan(&from, &till, &span);
    EXPECT_EQ(span.tv_sec, 1);
    EXPECT_EQ(span.tv_nsec, 200000000);
}

TEST(Timeop, TicksTimeOutIncludingTheWrap)
{
    tspan last{}, tmout{};
    last.mode = tmout.mode = TSPAN_TICKS;
    tmout.val.ticks = 100;
    last.val.ticks = 0;
    EXPECT_TRUE(tspan_timed_out(&last, &tmout, nullptr, 5));  // never started
    last.val.ticks = 1000;
    EXPECT_FALSE(tspan_timed_out(&last, &tmout, nullptr, 1099));
    EXPECT_TRUE(tspan_timed_out(&last, &tmout, nullptr, 1100));
    last.val.ticks = 0xFFFFFFF0u;  // ~last = 15
    EXPECT_FALSE(tspan_timed_out(&last, &tmout, nullptr, 84));
    EXPECT_TRUE(tspan_timed_out(&last, &tmout, nullptr, 85));
}

TEST(Timeop, TimespecSpansUseTheGivenClock)
{
    tspan last{}, tmout{};
    last.mode = tmout.mode = TSPAN_TIMESPEC;
    const timespec t0{50, 0}, t1{5, 0};
    set_tspan(&last, &t0, 0);
    set_tspan(&tmout, &t1, 0);
    timespec now{55, 0};
    EXPECT_FALSE(tspan_timed_out(&last, &tmout, &now, 0));
    now.tv_nsec = 1;
    EXPECT_TRUE(tspan_timed_out(&last, &tmout, &now, 0));
    tspan ticks{};
    ticks.mode = TSPAN_TICKS;
    set_tspan(&ticks, nullptr, 77);
    EXPECT_EQ(ticks.val.ticks, 77u);
}

TEST(TimeopDeathTest, MixedSpanModesStopTheProcess)
{
    tspan a{}, b{};
    a.mode = TSPAN_TICKS;
    b.mode = TSPAN_TIMESPEC;
    EXPECT_DEATH(tspan_timed_out(&a, &b, nullptr, 0), "Assertion failed: \\(tmout->mode == last->mode\\)");
}

TEST(Timeop, RawStamp)
{
    const timespec t{1763168523, 456789};
    char buf[64];
    EXPECT_EQ(mk_timestr(&t, f_RAW_TIME, buf, sizeof(buf)), 17);
    EXPECT_STREQ(buf, "1763168523.000456");
}

TEST(Timeop, StampOfExactlyTheBufferLengthPasses)
{
    const timespec t{1763168523, 456789};
    char probe[64];
    const ssize_t len = mk_timestr(&t, f_GMT_TIME | f_FMT_SECONDS, probe, sizeof(probe));
    ASSERT_GT(len, 19);
    char buf[64];
    EXPECT_EQ(mk_timestr(&t, f_GMT_TIME | f_FMT_SECONDS, buf, (size_t)len), len);
    testing::internal::CaptureStderr();
    EXPECT_EQ(mk_timestr(&t, f_GMT_TIME | f_FMT_SECONDS, buf, (size_t)len - 1), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "mk_timestr: timestamp buffer needs " + std::to_string(len) +
                                                          " bytes, only " + std::to_string(len - 1) + " provided\n");
}

// The zone's name is cached once per process, so this runs in a fresh one.
static int stamps_in_another_zone()
{
    setenv("TZ", "EST5EDT", 1);
    tzset();
    const timespec t{1700000000, 123456000};  // 2023-11-14 22:13:20 UTC
    char buf[64];
    mk_timestr(&t, f_GMT_TIME, buf, sizeof(buf));
    if (strcmp(buf, "2023-11-14 22:13:20.123456 EST") != 0) {
        fprintf(stderr, "gmt [%s]\n", buf);
        return 1;
    }
    mk_timestr(&t, 0, buf, sizeof(buf));
    if (strcmp(buf, "2023-11-14 17:13:20.123456 EST") != 0) {
        fprintf(stderr, "local [%s]\n", buf);
        return 2;
    }
    if (get_endofday_utime(1700000000) != 1700024399)  // 23:59:59 EST
        return 3;
    timespec back;
    if (scan_log_time("2023-11-14 17:13:20.123456 EST", &back, 0) != 7 || back.tv_sec != 1700000000 ||
        back.tv_nsec != 123456000)
        return 4;
    if (scan_log_time("2023-11-14 17:13:20 EST", &back, f_FMT_SECONDS) != 6 || back.tv_sec != 1700000000)
        return 5;
    return 0;
}

TEST(TimeopDeathTest, GmtStampCarriesTheLocalZonesName)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(_exit(stamps_in_another_zone()), testing::ExitedWithCode(0), "");
}

TEST(Timeop, ScanRawAndMismatches)
{
    timespec t{7, 7};
    EXPECT_EQ(scan_log_time("1763168523.000456 rest", &t, f_RAW_TIME), 2);
    EXPECT_EQ(t.tv_sec, 1763168523);
    EXPECT_EQ(t.tv_nsec, 456000);
    EXPECT_EQ(scan_log_time("not a time", &t, 0), -1);
    EXPECT_EQ(t.tv_sec, 0);
}

TEST(Timeop, GmtDate)
{
    char buf[16];
    EXPECT_EQ(mk_gmt_date(1700000000, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "2023-11-14");
    LogCapture cap;
    char small[5];
    EXPECT_EQ(mk_gmt_date(1700000000, small, sizeof(small)), -1);
    EXPECT_EQ(cap.text(), "(ERR)  mk_gmt_date: timestamp buffer needs 10 bytes, only 5 provided\n");
}

TEST(Timeop, Timespans)
{
    char buf[32];
    EXPECT_EQ(mk_timespan(86400, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "01d 00h:00m:00s");
    EXPECT_EQ(mk_timespan(59, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "00h:00m:59s");
    EXPECT_EQ(mk_timespan(3 * 86400 + 3661, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "03d 01h:01m:01s");
    char small[11];
    EXPECT_EQ(mk_timespan(59, small, sizeof(small)), -1);
}
