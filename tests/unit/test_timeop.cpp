// Time helpers: limits of time-outs, stamps, dates and spans.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

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

TEST(Timeop, CachedClockLimitIsExactToo)
{
    // The cached clock reads 0.000000000 here.
    const timespec zero{0, 0};
    EXPECT_FALSE(timed_out(&zero, &zero));
    const timespec just_before{-1, 999999999};
    EXPECT_TRUE(timed_out(&just_before, &zero));
    const timespec one_ns{0, 1};  // carries into the second: the limit is 0.000000000
    EXPECT_FALSE(timed_out(&just_before, &one_ns));
    EXPECT_FALSE(timed_out_ext(&just_before, &one_ns, nullptr));
}

TEST(TimeopDeathTest, NoClockStopsTheProcess)
{
    timespec t;
    EXPECT_DEATH(set_clk_now(&t, (clockid_t)-999), "^clock_gettime: Invalid argument\n");
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

TEST(TimeopDeathTest, UnknownSpanModeStopsTheProcess)
{
    tspan a{}, b{};
    a.mode = b.mode = 3;
    EXPECT_DEATH(tspan_timed_out(&a, &b, nullptr, 0), "Assertion failed: \\(0\\), function tspan_timed_out");
    const timespec t{1, 0};
    EXPECT_DEATH(set_tspan(&a, &t, 1), "Assertion failed: \\(0\\), function set_tspan");
}

TEST(Timeop, TicksLimitWrapsIn32Bits)
{
    tspan last{}, tmout{};
    last.mode = tmout.mode = TSPAN_TICKS;
    last.val.ticks = 0xFFFFFF00u;
    tmout.val.ticks = 0x200;
    // last + tmout wraps to 0x100 without last being above the present count.
    EXPECT_TRUE(tspan_timed_out(&last, &tmout, nullptr, 0xFFFFFF01u));
}

TEST(Timeop, RawStamp)
{
    const timespec t{1763168523, 456789};
    char buf[64];
    EXPECT_EQ(mk_timestr(&t, f_RAW_TIME, buf, sizeof(buf)), 17);
    EXPECT_STREQ(buf, "1763168523.000456");
    EXPECT_EQ(mk_timestr(&t, f_RAW_TIME | f_GMT_TIME | f_FMT_SECONDS, buf, 18), 17);
    EXPECT_STREQ(buf, "1763168523.000456");
    testing::internal::CaptureStderr();
    EXPECT_EQ(mk_timestr(&t, f_RAW_TIME, buf, 17), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Timeop, StampOfExactlyTheBufferLengthPasses)
{
    const timespec t{1763168523, 456789};
    char probe[64];
    const ssize_t len = mk_timestr(&t, f_GMT_TIME | f_FMT_SECONDS, probe, sizeof(probe));
    ASSERT_GT(len, 19);
    char buf[64];
    EXPECT_EQ(mk_timestr(&t, f_GMT_TIME | f_FMT_SECONDS, buf, (size_t)len), len);
    EXPECT_EQ(std::string(buf), std::string(probe, (size_t)len - 1));  // the terminator takes the last place
    testing::internal::CaptureStderr();
    EXPECT_EQ(mk_timestr(&t, f_GMT_TIME | f_FMT_SECONDS, buf, (size_t)len - 1), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "mk_timestr: timestamp buffer needs " + std::to_string(len) +
                                                          " bytes, only " + std::to_string(len - 1) + " provided\n");
}

// The zone's name is cached once per process, so these run in a fresh one.
// "ABC+5" is a zone five hours west of UTC without daylight saving, so the
// name does not depend on the day the test runs.
static int stamps_in_another_zone()
{
    setenv("TZ", "ABC+5", 1);
    tzset();
    const timespec t{1700000000, 123456000};  // 2023-11-14 22:13:20 UTC
    char buf[64];
    if (mk_timestr(&t, f_GMT_TIME, buf, sizeof(buf)) != 30 || strcmp(buf, "2023-11-14 22:13:20.123456 ABC") != 0) {
        fprintf(stderr, "gmt [%s]\n", buf);
        return 1;
    }
    if (mk_timestr(&t, 0, buf, sizeof(buf)) != 30 || strcmp(buf, "2023-11-14 17:13:20.123456 ABC") != 0) {
        fprintf(stderr, "local [%s]\n", buf);
        return 2;
    }
    if (get_endofday_utime(1700000000) != 1700024399)  // 23:59:59 local
        return 3;
    timespec back;
    if (scan_log_time("2023-11-14 17:13:20.123456 ABC", &back, 0) != 7 || back.tv_sec != 1700000000 ||
        back.tv_nsec != 123456000)
        return 4;
    if (scan_log_time("2023-11-14 17:13:20 ABC", &back, f_FMT_SECONDS) != 6 || back.tv_sec != 1700000000 ||
        back.tv_nsec != 0)
        return 5;
    // A change of zone in a running process is not seen in the name.
    setenv("TZ", "XYZ-2", 1);
    tzset();
    if (mk_timestr(&t, f_FMT_SECONDS, buf, sizeof(buf)) != 23 || strcmp(buf, "2023-11-15 00:13:20 ABC") != 0) {
        fprintf(stderr, "changed [%s]\n", buf);
        return 6;
    }
    if (strcmp(get_timezone(true), " ABC") != 0)
        return 7;
    return 0;
}

TEST(TimeopDeathTest, GmtStampCarriesTheLocalZonesName)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(_exit(stamps_in_another_zone()), testing::ExitedWithCode(0), "");
}

// In UTC the last second of 1969 is the time -1, which mktime cannot tell
// from its failure.
static int scan_of_the_minus_one_second()
{
    setenv("TZ", "UTC0", 1);
    tzset();
    LogCapture cap;
    timespec back{5, 5};
    if (scan_log_time("1969-12-31 23:59:59 UTC", &back, f_FMT_SECONDS) != -1)
        return 1;
    if (back.tv_sec != 0 || back.tv_nsec != 0)
        return 2;
    if (cap.text() != "(ERR)  scan_log_time: cannot make time from [1969-12-31 23:59:59 UTC]\n") {
        fprintf(stderr, "log [%s]\n", cap.text().c_str());
        return 3;
    }
    return 0;
}

TEST(TimeopDeathTest, ScanThatMktimeRefusesIsLogged)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(_exit(scan_of_the_minus_one_second()), testing::ExitedWithCode(0), "");
}

namespace {
volatile sig_atomic_t g_handler_busy = 0;
volatile sig_atomic_t g_handler_ok = 0;

void stamp_from_handler(int)
{
    const timespec t{1700000000, 0};
    char b[64];
    const ssize_t r = mk_timestr(&t, f_GMT_TIME, b, sizeof(b));
    if (r == TM_BUSY)
        g_handler_busy = 1;
    else if (r > 0)
        g_handler_ok = 1;
}
}  // namespace

// Stamps in a loop while a fast timer stamps from its handler; exit code 0
// when the handler has met the lock (-11) and has also made a stamp outside it.
static int stamp_under_a_timer()
{
    const timespec t{1700000000, 0};
    char buf[64];
    if (mk_timestr(&t, 0, buf, sizeof(buf)) <= 0)  // the zone's name is cached from here on
        return 1;
    struct sigaction sa{};
    sa.sa_handler = stamp_from_handler;
    sigemptyset(&sa.sa_mask);
    if (sigaction(SIGALRM, &sa, nullptr) != 0)
        return 2;
    const itimerval it{{0, 50}, {0, 50}};
    if (setitimer(ITIMER_REAL, &it, nullptr) != 0)
        return 3;
    timespec start, now;
    set_clk_now(&start, CLOCK_MONOTONIC);
    do {
        for (int i = 0; i < 1000; ++i)
            mk_timestr(&t, 0, buf, sizeof(buf));
        set_clk_now(&now, CLOCK_MONOTONIC);
    } while (!(g_handler_busy && g_handler_ok) && now.tv_sec - start.tv_sec < 10);
    const itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    if (!g_handler_busy)
        return 4;
    if (!g_handler_ok)
        return 5;
    // The lock covers only the conversion: it is free again afterwards.
    return mk_timestr(&t, 0, buf, sizeof(buf)) > 0 ? 0 : 6;
}

TEST(Timeop, StampFromASignalDuringAConversionGivesUp)
{
    // In a child of its own: without the lock the handler would hang inside
    // the C library's zone lock, and the parent bounds the wait.
    fflush(nullptr);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
        _exit(stamp_under_a_timer());
    int status = 0;
    pid_t done = 0;
    for (int i = 0; i < 300 && done == 0; ++i) {
        done = waitpid(pid, &status, WNOHANG);
        if (done == 0)
            usleep(50000);
    }
    if (done == 0) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        FAIL() << "the stamping child hung";
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);  // 4: never met the lock, 5: never stamped from the handler
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
    cap.clear();
    char exact[10];  // a date of exactly the buffer's length passes, its last digit cut
    EXPECT_EQ(mk_gmt_date(1700000000, exact, sizeof(exact)), 0);
    EXPECT_STREQ(exact, "2023-11-1");
    EXPECT_EQ(mk_gmt_date(1700000000, exact, 9), -1);
    EXPECT_EQ(cap.text(), "(ERR)  mk_gmt_date: timestamp buffer needs 10 bytes, only 9 provided\n");
}

TEST(Timeop, ScanRefusesOtherFieldCountsSilently)
{
    LogCapture cap;
    timespec back;
    EXPECT_EQ(scan_log_time("2023-11-14 17:13:20 UTC", &back, 0), -1);  // no fraction
    EXPECT_EQ(scan_log_time("2023-11-14", &back, f_FMT_SECONDS), -1);
    EXPECT_EQ(scan_log_time("1700000000 x", &back, f_RAW_TIME), -1);
    EXPECT_EQ(cap.text(), "");
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
    char exact[11];  // a text of exactly the space passes, cut short by the terminator
    EXPECT_EQ(mk_timespan(59, exact, sizeof(exact)), 0);
    EXPECT_STREQ(exact, "00h:00m:59");
    EXPECT_EQ(mk_timespan(59, exact, 10), -1);
    EXPECT_EQ(mk_timespan(86400, buf, 4), -1);  // the days fit, nothing is left for the rest
    EXPECT_EQ(mk_timespan(86399, buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "23h:59m:59s");
}
