// The sensor table, its switches, the probe points in the I/O helpers.
#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <string>
#include <vector>

#include "fdio.h"
#include "psensor.h"

namespace {

std::string dump_all()
{
    char* buf = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&buf, &len);
    psensors_dump(fp);
    fclose(fp);
    std::string out(buf, len);
    free(buf);
    return out;
}

struct Table {
    ~Table()
    {
        psensors_destroy();
        psensors_init(nullptr, 0);
    }
};

}  // namespace

TEST(Psensor, NothingIsEnabledBeforeInit)
{
    for (const psensor& s : g_psensor)
        EXPECT_FALSE(s.enabled);
}

TEST(Psensor, InitFillsTheLibraryTags)
{
    Table t;
    const char* mine[] = {"mine", nullptr};
    ASSERT_EQ(psensors_init(mine, 1), 0);
    EXPECT_STREQ(g_psensor[PRF_APP].nametag, "app");
    EXPECT_STREQ(g_psensor[PRF_EVIDLE].nametag, "ev_idle");
    EXPECT_STREQ(g_psensor[PRF_DATAOUT].nametag, "data_out");
    EXPECT_STREQ(g_psensor[USENSOR_FIRST].nametag, "mine");
    EXPECT_EQ(g_pctx.ucount, 1u);
    EXPECT_TRUE(g_psensor[PRF_DATAIN].enabled);
    EXPECT_EQ(g_psensor[PRF_DATAIN].sensor.flags, prfm_TIME | prfm_RUSAGE);
    EXPECT_EQ(g_psensor[PRF_DATAIN].sensor.who, 0);
    ASSERT_EQ(psensors_init(nullptr, 0), 0);
    EXPECT_FALSE(g_psensor[PRF_DATAIN].enabled);
    EXPECT_EQ(g_pctx.ucount, 0u);
}

TEST(Psensor, SeventyApplicationTagsTakeSixtyFour)
{
    Table t;
    std::vector<std::string> names;
    for (int i = 0; i < 70; ++i)
        names.push_back("u" + std::to_string(i));
    std::vector<const char*> tags;
    for (auto& n : names)
        tags.push_back(n.c_str());
    tags.push_back(nullptr);
    ASSERT_EQ(psensors_init(tags.data(), 0), 0);
    EXPECT_EQ(g_pctx.ucount, 64u);
    EXPECT_STREQ(g_psensor[MAX_PSENSORS - 1].nametag, "u63");
}

TEST(Psensor, LibraryTagIndexIgnoresCase)
{
    EXPECT_EQ(libptag_index("EV_LOOP"), 1);
    EXPECT_EQ(libptag_index("data_out"), 8);
    EXPECT_EQ(libptag_index("app"), 0);
    EXPECT_EQ(libptag_index("ev_loops"), -1);
    EXPECT_EQ(libptag_index("kestrel"), -1);
}

TEST(Psensor, ADisabledSensorIsNotTouchedEvenIfLeftStarted)
{
    Table t;
    psensors_init(nullptr, 0);
    psensor& s = g_psensor[PRF_APP];
    s.started = 1;
    psensor_begin(PRF_APP);
    psensor_end(PRF_APP);
    EXPECT_EQ(s.started, 1u);
    EXPECT_EQ(s.sensor.start.tm.tv_sec, 0);
    EXPECT_EQ(s.sensor.start.tm.tv_nsec, 0);
    EXPECT_EQ(dump_all(), "");
}

TEST(Psensor, AnInnerProbeIsIgnoredTheOuterIntervalCounts)
{
    Table t;
    psensors_init(nullptr, 1);
    psensor& s = g_psensor[PRF_APP];
    psensor_begin(PRF_APP);
    const timespec outer = s.sensor.start.tm;
    psensor_begin(PRF_APP);  // inner: ignored
    EXPECT_EQ(s.sensor.start.tm.tv_nsec, outer.tv_nsec);
    psensor_end(PRF_APP);
    EXPECT_EQ(s.started, 0u);
    const timespec after = s.sensor.accum.tm;
    psensor_end(PRF_APP);  // nothing running: nothing added
    EXPECT_EQ(s.sensor.accum.tm.tv_nsec, after.tv_nsec);
    EXPECT_EQ(s.sensor.accum.tm.tv_sec, after.tv_sec);
}

TEST(Psensor, DumpSkipsSensorsWithoutTime)
{
    Table t;
    const char* mine[] = {"mine", nullptr};
    psensors_init(mine, 1);
    g_psensor[USENSOR_FIRST].sensor.accum.tm = {2, 5};
    g_psensor[PRF_EVLOOP].sensor.accum.tm = {0, 7};
    const std::string d = dump_all();
    EXPECT_EQ(d.find("P-Sensor [app]"), std::string::npos);
    EXPECT_EQ(d.rfind("P-Sensor [ev_loop]\n== time:\t0.000000007\n== resource usage:\n", 0), 0u) << d;
    EXPECT_NE(d.find("==\nP-Sensor [mine]\n== time:\t2.000000005\n"), std::string::npos) << d;
    // An enabled sensor with time but beyond the application's count is not shown.
    g_psensor[USENSOR_FIRST + 1].enabled = 1;
    g_psensor[USENSOR_FIRST + 1].sensor.accum.tm = {1, 0};
    EXPECT_EQ(dump_all(), d);
}

TEST(Psensor, ReadsAndWritesAreProbed)
{
    Table t;
    psensors_init(nullptr, 1);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(nwrite(p[1], "abc", 3, 0), 3);
    char buf[8];
    ASSERT_EQ(nread(p[0], buf, sizeof(buf), 0), 3);
    close(p[0]);
    close(p[1]);
    for (int i : {PRF_DATAIN, PRF_DATAOUT}) {
        const psensor& s = g_psensor[i];
        EXPECT_EQ(s.started, 0u) << s.nametag;
        EXPECT_TRUE(s.sensor.accum.tm.tv_sec != 0 || s.sensor.accum.tm.tv_nsec != 0) << s.nametag;
    }
    const prfm_metrics none{};
    EXPECT_EQ(g_psensor[PRF_EVLOOP].sensor.accum.tm.tv_nsec, none.tm.tv_nsec);
    EXPECT_NE(dump_all().find("P-Sensor [data_in]\n"), std::string::npos);
}
