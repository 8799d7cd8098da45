// The stopwatch: borrow and carry, resource sums, the dump's exact lines.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "prfm.h"

namespace {

std::string dump_of(const prfm* r, const char* fmt = nullptr)
{
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    if (fmt)
        prfm_dump(fp, r, fmt, "tag");
    else
        prfm_dump(fp, r, nullptr);
    fclose(fp);
    std::string out(buf, len);
    free(buf);
    return out;
}

prfm_metrics at(long s, long ns)
{
    prfm_metrics m{};
    m.tm = {s, ns};
    return m;
}

}  // namespace

TEST(Prfm, XinitClearsWhatTheFlagsSelect)
{
    prfm r;
    memset(&r, 0x5a, sizeof(r));
    prfm_xinit(&r, prfm_TIME, RUSAGE_SELF);
    EXPECT_EQ(r.flags, prfm_TIME);
    EXPECT_EQ(r.who, RUSAGE_SELF);
    EXPECT_EQ(r.accum.tm.tv_sec, 0);
    EXPECT_EQ(r.start.tm.tv_nsec, 0);
    EXPECT_NE(r.accum.ru.ru_maxrss, 0);  // not selected, not touched
    prfm_xinit(&r, prfm_TIME | prfm_RUSAGE, RUSAGE_SELF);
    EXPECT_EQ(r.accum.ru.ru_maxrss, 0);
    prfm_destroy(&r);
    EXPECT_EQ(r.flags, 0);
}

TEST(Prfm, StopBorrowsANanosecondSecond)
{
    prfm r;
    prfm_xinit(&r, prfm_TIME, 0);
    r.start = at(1, 900000000);
    const prfm_metrics stop = at(2, 100000000);
    prfm_stop_with(&r, &stop);
    EXPECT_EQ(r.accum.tm.tv_sec, 0);
    EXPECT_EQ(r.accum.tm.tv_nsec, 200000000);
}

TEST(Prfm, IntervalsAddWithACarry)
{
    prfm r;
    prfm_xinit(&r, prfm_TIME, 0);
    for (int i = 0; i < 2; ++i) {
        r.start = at(10, 100000000);
        const prfm_metrics stop = at(10, 700000000);
        prfm_stop_with(&r, &stop);
    }
    EXPECT_EQ(r.accum.tm.tv_sec, 1);
    EXPECT_EQ(r.accum.tm.tv_nsec, 200000000);
    EXPECT_EQ(dump_of(&r), "== time:\t1.200000000\n");
}

TEST(Prfm, ResourcesAreDifferencesWithMicrosecondCarry)
{
    prfm r{};
    prfm_xinit(&r, prfm_RUSAGE, 0);
    prfm_metrics stop{};
    r.start.ru.ru_utime = {3, 800000};
    stop.ru.ru_utime = {4, 100000};
    r.start.ru.ru_stime = {0, 0};
    stop.ru.ru_stime = {0, 700000};
    r.start.ru.ru_maxrss = 1000;
    stop.ru.ru_maxrss = 1500;
    stop.ru.ru_nivcsw = 3;
    prfm_stop_with(&r, &stop);
    prfm_stop_with(&r, &stop);  // the same interval again
    EXPECT_EQ(r.accum.ru.ru_utime.tv_sec, 0);
    EXPECT_EQ(r.accum.ru.ru_utime.tv_usec, 600000);
    EXPECT_EQ(r.accum.ru.ru_stime.tv_sec, 1);
    EXPECT_EQ(r.accum.ru.ru_stime.tv_usec, 400000);
    EXPECT_EQ(r.accum.ru.ru_maxrss, 1000);  // growth summed, not a peak
    EXPECT_EQ(r.accum.tm.tv_sec, 0);        // time not selected
    EXPECT_EQ(dump_of(&r, "P-Sensor [%s]\n"),
              "P-Sensor [tag]\n"
              "== resource usage:\n"
              "  user_time: 0.600000, sys_time: 1.400000\n"
              "  maxrss: 1000, ixrss: 0, idrss: 0, isrss: 0\n"
              "  minflt: 0, majflt: 0, nswap=0\n"
              "  inblock: 0, outblock: 0, msgsnd: 0, msgrcv: 0\n"
              "  nsignals: 0, nvcsw: 0, nivcsw: 6\n"
              "==\n");
}

TEST(Prfm, DumpWithoutFormatStartsWithTheTimeLine)
{
    prfm r;
    prfm_xinit(&r, prfm_TIME | prfm_RUSAGE, 0);
    r.accum.tm = {0, 5};
    const std::string d = dump_of(&r);
    EXPECT_EQ(d.rfind("== time:\t0.000000005\n== resource usage:\n", 0), 0u) << d;
}

TEST(Prfm, ARealIntervalCountsTime)
{
    prfm r;
    prfm_xinit(&r, prfm_TIME | prfm_RUSAGE, RUSAGE_SELF);
    prfm_start(&r);
    timespec t0, t;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    do  // a bounded busy wait of 2 ms
        clock_gettime(CLOCK_MONOTONIC, &t);
    while ((t.tv_sec - t0.tv_sec) * 1000000000L + (t.tv_nsec - t0.tv_nsec) < 2000000L);
    prfm_stop(&r);
    EXPECT_GE(r.accum.tm.tv_sec * 1000000000L + r.accum.tm.tv_nsec, 2000000L);
    EXPECT_LT(r.accum.tm.tv_nsec, 1000000000L);
}

TEST(Prfm, ProbeReadsTotalsWithoutTime)
{
    prfm r;
    prfm_xinit(&r, prfm_TIME | prfm_RUSAGE, RUSAGE_SELF);
    prfm_probe(&r);
    EXPECT_EQ(r.accum.tm.tv_sec, 0);
    EXPECT_EQ(r.accum.tm.tv_nsec, 0);
    EXPECT_GT(r.accum.ru.ru_maxrss, 0);
}
