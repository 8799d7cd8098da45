// The tool's settings from its configuration file: keys, defaults, types,
// the reload while the capture runs, and the report of what is in force.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

#include "kst.h"
#include "logcap.h"
#include "strf.h"
#include "strops.h"
#include "testfs.h"
#include "timeop.h"

namespace {

// The file an operator starts from: every key the tool reads.
const char* const k_example = R"(kst = {
  log = {
    file = "/var/log/kst{N}.log";
    level = "info";
    time_format = "local";
    max_size_mb = 64;
    max_files = 16;
    enable_syslog = false;
    eod_rotate = true;
  };
  alert_log = {
    file = "/var/log/kst-alerts{N}.log";
    level = "info";
  };
  runtime = {
    pidfile = "";
    non_daemon = false;
    quiet = true;
    enforce_core_dumps = false;
    cpunum = 0;
    run_as_user = "nobody";
  };
  source = {
    mcast_ifc = "em0";
    read_tmout_ms = 5000;
  };
  cache = {
    size_mb = 64;
    tail_size_mb = 16;
    tail_duration_ms = 2000;
    min_bytes_left = 65536;
  };
  snapshot = {
    dir_path = "/var/snap";
    file_prefix = "snap";
  };
  stats = {
    tput_report_sec = 60;
  };
  stream_analyzer = {
    enabled = true;
    source_tag = "ch1";
  };
  config_reload_period = 30;
  pkt_reset_idx = 4000000000L;
  lost_sync_alert = true;
};
source = {
  use_http10_get = true;
};
)";

// The example's snapshot directory must exist for its load to pass. Tests of
// this binary run in parallel under ctest, so one holding the directory keeps
// another from removing it under its feet: a lock file orders them.
class ExampleSnapDir {
public:
    ExampleSnapDir()
        : lock_(open("/tmp/kst-test-var-snap.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
        if (lock_ >= 0)
            flock(lock_, LOCK_EX);
        made_ = mkdir("/var/snap", 0755) == 0;
    }
    ~ExampleSnapDir()
    {
        if (made_)
            rmdir("/var/snap");
        if (lock_ >= 0)
            close(lock_);
    }
    ExampleSnapDir(const ExampleSnapDir&) = delete;
    ExampleSnapDir& operator=(const ExampleSnapDir&) = delete;

private:
    int lock_;
    bool made_ = false;
};

// The two groups a file must have, and what the test adds inside "kst".
std::string minimal(const std::string& extra = "")
{
    return "kst = {\n  log = { };\n  runtime = { };\n" + extra + "};\n";
}

// Sets a file's modification time, so that a reload can be made to happen or not.
void set_mtime(const std::string& path, time_t t)
{
    timespec ts[2] = {{t, 0}, {t, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), ts, 0), 0) << path;
}

std::string dump(const ksti_cfg* cfg)
{
    char* text = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&text, &len);
    dump_config(fp, cfg);
    fclose(fp);
    std::string out(text, len);
    free(text);
    return out;
}

class Settings : public testing::Test {
protected:
    void SetUp() override
    {
        glog_init("test");
        init_ksti_config(&g_cfg);
        g_ctx = ksti_ctx{};
        g_log.rota = rotation_ctx{};
        g_access_log.rota = rotation_ctx{};
    }
    void TearDown() override
    {
        init_ksti_config(&g_cfg);
        g_ctx = ksti_ctx{};
    }

    std::string conf(const std::string& text, const char* name = "kst.conf") { return dir_.make(name, text); }

    TempDir dir_{"settings"};
};

TEST_F(Settings, DefaultsWithoutAnyFile)
{
    EXPECT_EQ(g_cfg.log.level, INFO_level);
    EXPECT_EQ(g_cfg.log.timefmt, 0);
    EXPECT_FALSE(g_cfg.log.enable_syslog);
    EXPECT_EQ(g_cfg.log.max_size_mb, 4);
    EXPECT_EQ(g_cfg.log.max_files, 4);
    EXPECT_STREQ(g_cfg.rt.user, "");
    EXPECT_STREQ(g_cfg.rt.pidfile, "");
    EXPECT_FALSE(g_cfg.rt.enforce_core_dumps);
    EXPECT_FALSE(g_cfg.rt.quiet);
    EXPECT_FALSE(g_cfg.rt.non_daemon);
    EXPECT_EQ(g_cfg.rt.cpunum, 0);
    EXPECT_EQ(g_cfg.min_read_bytes, 4096u);
    EXPECT_EQ(g_cfg.cache_sz_mb, 8u);
    EXPECT_EQ(g_cfg.tail_sz_mb, 2u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 1000u);
    EXPECT_TRUE(g_cfg.lost_sync_alert);
    EXPECT_STREQ(g_cfg.mcast_ifc, "all");
    EXPECT_STREQ(g_cfg.snap_dir, "/tmp");
    EXPECT_STREQ(g_cfg.snap_pfx, "snap");
    EXPECT_FALSE(g_cfg.tsa.is_enabled);
    EXPECT_EQ(g_cfg.tsa.max_skip_pkts, 0u);
    EXPECT_STREQ(g_cfg.config_path, "");
    EXPECT_EQ(g_cfg.reload_period, 0u);
}

TEST_F(Settings, TheSearchListIsInItsOrder)
{
    ASSERT_EQ(g_cfgloc_count, 3u);
    EXPECT_STREQ(g_cfgloc[0], "./kst.conf");
    EXPECT_STREQ(g_cfgloc[1], "/etc/kst.conf");
    EXPECT_STREQ(g_cfgloc[2], "/usr/local/etc/kst.conf");
}

TEST_F(Settings, AFileWithOnlyTheRequiredGroupsDropsTailTimeAndInterface)
{
    const std::string path = conf(minimal());
    LogCapture cap;
    const time_t before = time(nullptr);
    ASSERT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), 0);
    EXPECT_EQ(cap.text(), "");

    // Two file defaults differ from the built-in ones on purpose.
    EXPECT_EQ(g_cfg.tail_tm_ms, 0u);
    EXPECT_STREQ(g_cfg.mcast_ifc, "");
    EXPECT_EQ(g_cfg.cache_sz_mb, 8u);
    EXPECT_EQ(g_cfg.tail_sz_mb, 2u);
    EXPECT_EQ(g_cfg.min_read_bytes, 4096u);
    EXPECT_EQ(g_cfg.read_tmout_ms, 0);
    EXPECT_EQ(g_cfg.reload_period, 0u);
    EXPECT_EQ(g_cfg.report_tput_sec, 0u);
    EXPECT_EQ(g_cfg.pkt_reset_idx, 0u);
    EXPECT_TRUE(g_cfg.lost_sync_alert);
    EXPECT_FALSE(g_cfg.use_http10_get);
    EXPECT_STREQ(g_cfg.snap_dir, "/tmp");
    EXPECT_STREQ(g_cfg.snap_pfx, "snap");
    // A log section read from a file has its own defaults.
    EXPECT_STREQ(g_cfg.log.path, "");
    EXPECT_EQ(g_cfg.log.max_size_mb, 64);
    EXPECT_EQ(g_cfg.log.max_files, 16);
    EXPECT_TRUE(g_cfg.log.enable_syslog);
    EXPECT_EQ(g_cfg.rt.cpunum, -1);
    EXPECT_STREQ(g_cfg.config_path, path.c_str());
    EXPECT_GE(g_ctx.config_load_tm, before);
}

TEST_F(Settings, AFileWithoutTheLogGroupIsRefused)
{
    const std::string path = conf("kst = { runtime = { }; };\n");
    LogCapture cap;
    EXPECT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), -1);
    EXPECT_EQ(cap.text(), "(ERR)  load_config: missing log section\n(ERR)  load_ksti_config: FAILED (-1)\n");
    EXPECT_EQ(g_ctx.config_load_tm, 0);
}

TEST_F(Settings, AFileWithoutTheRuntimeGroupIsRefused)
{
    const std::string path = conf("kst = { log = { }; };\n");
    LogCapture cap;
    EXPECT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), -1);
    EXPECT_EQ(cap.text(), "(ERR)  load_config: missing runtime section\n(ERR)  load_ksti_config: FAILED (-1)\n");
}

TEST_F(Settings, AMissingFileIsToldOnStderrOnly)
{
    const std::string path = dir_.at("nope.conf");
    LogCapture cap;
    testing::internal::CaptureStderr();
    EXPECT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to load [" + path + "]\n");
    EXPECT_EQ(cap.text(), "");
    EXPECT_STREQ(g_cfg.config_path, "");
}

TEST_F(Settings, ASyntaxErrorNamesTheLine)
{
    const std::string path = conf("kst = {\n  log = { };\n  runtime = { ];\n};\n");
    LogCapture cap;
    EXPECT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), -1);
    EXPECT_EQ(cap.text(), "(ERR)  Error reading/parsing config file [" + path +
                              "]: line 3: syntax error\n(ERR)  load_ksti_config: FAILED (-1)\n");
}

TEST_F(Settings, TheExampleFileLoadsAsItStands)
{
    g_cfg.instance_num = 7;
    const std::string path = conf(k_example);
    LogCapture cap(INFO_level);
    int rc;
    {
        const ExampleSnapDir snap;
        rc = load_ksti_config(path.c_str(), &g_cfg, false);
    }
    ASSERT_EQ(rc, 0) << cap.text();

    EXPECT_STREQ(g_cfg.log.path, "/var/log/kst7.log");
    EXPECT_EQ(g_cfg.log.level, INFO_level);
    EXPECT_EQ(g_cfg.log.timefmt, 0);
    EXPECT_EQ(g_cfg.log.max_size_mb, 64);
    EXPECT_EQ(g_cfg.log.max_files, 16);
    EXPECT_FALSE(g_cfg.log.enable_syslog);
    EXPECT_TRUE(g_cfg.log.eod_rotate);
    EXPECT_STREQ(g_cfg.alert_log.path, "/var/log/kst-alerts7.log");
    EXPECT_STREQ(g_cfg.rt.pidfile, "");
    EXPECT_FALSE(g_cfg.rt.non_daemon);
    EXPECT_TRUE(g_cfg.rt.quiet);
    EXPECT_EQ(g_cfg.rt.cpunum, 0);
    EXPECT_STREQ(g_cfg.rt.user, "nobody");
    EXPECT_STREQ(g_cfg.mcast_ifc, "em0");
    EXPECT_EQ(g_cfg.read_tmout_ms, 5000);
    EXPECT_EQ(g_cfg.cache_sz_mb, 64u);
    EXPECT_EQ(g_cfg.tail_sz_mb, 16u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 2000u);
    EXPECT_EQ(g_cfg.min_read_bytes, 65536u);
    EXPECT_STREQ(g_cfg.snap_dir, "/var/snap");
    EXPECT_STREQ(g_cfg.snap_pfx, "snap");
    EXPECT_EQ(g_cfg.report_tput_sec, 60u);
    EXPECT_TRUE(g_cfg.tsa.is_enabled);
    EXPECT_STREQ(g_cfg.tsa.source, "ch1");
    EXPECT_EQ(g_cfg.reload_period, 30u);
    EXPECT_EQ(g_cfg.pkt_reset_idx, 4000000000u);
    EXPECT_TRUE(g_cfg.lost_sync_alert);
    EXPECT_TRUE(g_cfg.use_http10_get);
}

TEST_F(Settings, TheReportOfTheExampleFile)
{
    const std::string path = conf(k_example);
    int rc;
    {
        const ExampleSnapDir snap;
        rc = load_ksti_config(path.c_str(), &g_cfg, false);
    }
    ASSERT_EQ(rc, 0);
    strcpy(g_cfg.src_url, "udp://239.1.1.1:5000");
    apply_log_config(&g_log, &g_cfg.log);
    apply_log_config(&g_access_log, &g_cfg.alert_log);
    const long eod = (long)get_endofday_utime(time(nullptr));

    EXPECT_EQ(dump(&g_cfg), "-----------------------------------\n"
                            "Instance: 0\n"
                            "Log (regular):\n"
                            "\tpath   = /var/log/kst.log\n"
                            "\tlevel  = info\n"
                            "\tformat = local\n"
                            "\trota:max size   = 64 Mb\n"
                            "\trota:max files  = 16\n" +
                                strf("\trota:end-of-day = ON (%ld)\n", eod) +
                                "\n"
                                "Log (alerts):\n"
                                "\tpath   = /var/log/kst-alerts.log\n"
                                "\tlevel  = info\n"
                                "\tformat = local\n"
                                "\trota:max size   = 64 Mb\n"
                                "\trota:max files  = 16\n"
                                "\trota:end-of-day = off (0)\n"
                                "\n"
                                "Runtime:\n"
                                "\trun as user: nobody\n"
                                "\tCPU: 0\n"
                                "\tflags: [quiet]\n"
                                "\n"
                                "Source:\n"
                                "\tURL            = udp://239.1.1.1:5000\n"
                                "\tRead time-out  = 5000 ms\n"
                                "\tMulticast ifc  = em0\n"
                                "\tHTTP/1.0 GET   = yes\n"
                                "Cache:\n"
                                "\tSize           = 64 Mb\n"
                                "\tTail           = 16/2000 Mb/ms\n"
                                "\tMin vacant     = 65536 bytes\n"
                                "Snapshots:\n"
                                "\tDirectory      = /var/snap\n"
                                "\tFile prefix    = snap\n"
                                "\tReset index    = 4000000000\n"
                                "\tReload period   = 30 sec\n"
                                "Stats:\n"
                                "\tTPS report     = 60 sec\n"
                                "\tLost-sync alert     = yes\n"
                                "Analysis: \n"
                                "\tsource:                [ch1]\n"
                                "\tskipped packets:       9000\n"
                                "\tPTS/DTS delta:         500 (ms)\n"
                                "\tT:sdt_ignore:          no\n"
                                "\tT:misc_ignore:         no\n"
                                "\tT:pdts_update:         no\n"
                                "\tT:pat_pmt_pkt:         no\n"
                                "\tT:pcr_update:          no\n"
                                "\taccess-log-alerts:     off\n"
                                "-----------------------------------\n");
}

TEST_F(Settings, TheReportOfTheDefaultsLeavesOutWhatIsZero)
{
    strcpy(g_cfg.src_url, "file://x.ts");
    g_cfg.instance_num = 3;
    g_cfg.lost_sync_alert = false;
    g_cfg.log.max_size_mb = 0;
    g_cfg.alert_log.max_size_mb = 0;
    g_cfg.rt.cpunum = -1;
    EXPECT_EQ(dump(&g_cfg), "-----------------------------------\n"
                            "Instance: 3\n"
                            "Log (regular):\n"
                            "\tpath   = \n"
                            "\tlevel  = info\n"
                            "\tformat = local\n"
                            "\n"
                            "Log (alerts):\n"
                            "\tpath   = \n"
                            "\tlevel  = normal\n"
                            "\tformat = local\n"
                            "\n"
                            "Runtime:\n"
                            "\tflags:\n"
                            "\n"
                            "Source:\n"
                            "\tURL            = file://x.ts\n"
                            "\tRead time-out  = 0 ms\n"
                            "\tMulticast ifc  = all\n"
                            "\tHTTP/1.0 GET   = no\n"
                            "Cache:\n"
                            "\tSize           = 8 Mb\n"
                            "\tTail           = 2/1000 Mb/ms\n"
                            "\tMin vacant     = 4096 bytes\n"
                            "Snapshots:\n"
                            "\tDirectory      = /tmp\n"
                            "\tFile prefix    = snap\n"
                            "Stats:\n"
                            "\tLost-sync alert     = no\n"
                            "-----------------------------------\n");
}

TEST_F(Settings, TheInstanceNumberReplacesTheMacroInLogFiles)
{
    const std::string path = conf("kst = {\n  log = { file = \"/l/a{N}-{N}.log\"; };\n"
                                  "  alert_log = { file = \"/l/b{N}.log\"; };\n  runtime = { };\n};\n");
    g_cfg.instance_num = 12;
    ASSERT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), 0);
    EXPECT_STREQ(g_cfg.log.path, "/l/a12-12.log");
    EXPECT_STREQ(g_cfg.alert_log.path, "/l/b12.log");

    // With number 0 the macro vanishes from a file's path.
    init_ksti_config(&g_cfg);
    ASSERT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), 0);
    EXPECT_STREQ(g_cfg.log.path, "/l/a-.log");
    EXPECT_STREQ(g_cfg.alert_log.path, "/l/b.log");
}

TEST_F(Settings, WithoutAnAlertLogGroupTheAlertLogStaysAsItWas)
{
    strcpy(g_cfg.alert_log.path, "/before.log");
    g_cfg.alert_log.max_files = 9;
    ASSERT_EQ(load_ksti_config(conf(minimal()).c_str(), &g_cfg, false), 0);
    EXPECT_STREQ(g_cfg.alert_log.path, "/before.log");
    EXPECT_EQ(g_cfg.alert_log.max_files, 9);
}

TEST_F(Settings, TheHttpKeyLivesOutsideTheToolsGroup)
{
    const std::string inside = conf(minimal("  source = { use_http10_get = true; };\n"), "in.conf");
    ASSERT_EQ(load_ksti_config(inside.c_str(), &g_cfg, false), 0);
    EXPECT_FALSE(g_cfg.use_http10_get);

    const std::string outside = conf(minimal() + "source = { use_http10_get = true; };\n", "out.conf");
    ASSERT_EQ(load_ksti_config(outside.c_str(), &g_cfg, false), 0);
    EXPECT_TRUE(g_cfg.use_http10_get);
}

TEST_F(Settings, AKeyOfAnotherTypeTakesTheDefault)
{
    const std::string path = conf(minimal("  cache = { size_mb = \"64\"; tail_size_mb = 1.5; };\n"
                                          "  lost_sync_alert = 0;\n"
                                          "  snapshot = { file_prefix = 5; };\n"
                                          "  source = { mcast_ifc = 1; };\n"));
    LogCapture cap;
    ASSERT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), 0);
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(g_cfg.cache_sz_mb, 8u);
    EXPECT_EQ(g_cfg.tail_sz_mb, 2u);
    EXPECT_TRUE(g_cfg.lost_sync_alert);
    EXPECT_STREQ(g_cfg.snap_pfx, "snap");
    EXPECT_STREQ(g_cfg.mcast_ifc, "");
}

TEST_F(Settings, ANegativeNumberIsStoredSignExtended)
{
    const std::string path = conf(minimal("  cache = { tail_size_mb = -1; size_mb = -2; };\n"));
    ASSERT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, SIZE_MAX);
    EXPECT_EQ(g_cfg.cache_sz_mb, SIZE_MAX - 1);
}

TEST_F(Settings, TheLimitsOfTheCommandLineDoNotApplyToTheFile)
{
    const std::string path = conf(minimal("  cache = { size_mb = 4096; tail_size_mb = 1000; };\n"));
    ASSERT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), 0);
    EXPECT_EQ(g_cfg.cache_sz_mb, 4096u);
    EXPECT_EQ(g_cfg.tail_sz_mb, 1000u);
}

TEST_F(Settings, AStringLongerThanItsFieldFailsTheLoad)
{
    const std::string dir127(127, 'd');
    const std::string path = conf(minimal("  snapshot = { dir_path = \"" + dir127 + "\"; };\n"));
    LogCapture cap;
    EXPECT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), -1);
    EXPECT_EQ(cap.text(),
              "(ERR)  load_config_str: kst.snapshot.dir_path value is too long (127), max = 127 characters.\n"
              "(ERR)  load_ksti_config: FAILED (-1)\n");
}

TEST_F(Settings, TheInterfaceAndPrefixTakeFourteenCharacters)
{
    const std::string ok = conf(minimal("  source = { mcast_ifc = \"abcdefghijklmn\"; };\n"
                                        "  snapshot = { file_prefix = \"ABCDEFGHIJKLMN\"; };\n"),
                                "ok.conf");
    ASSERT_EQ(load_ksti_config(ok.c_str(), &g_cfg, false), 0);
    EXPECT_STREQ(g_cfg.mcast_ifc, "abcdefghijklmn");
    EXPECT_STREQ(g_cfg.snap_pfx, "ABCDEFGHIJKLMN");

    const std::string bad = conf(minimal("  source = { mcast_ifc = \"abcdefghijklmno\"; };\n"), "bad.conf");
    LogCapture cap;
    EXPECT_EQ(load_ksti_config(bad.c_str(), &g_cfg, false), -1);
    EXPECT_EQ(cap.text(),
              "(ERR)  load_config_str: kst.source.mcast_ifc value is too long (15), max = 15 characters.\n"
              "(ERR)  load_ksti_config: FAILED (-1)\n");
}

TEST_F(Settings, ASnapshotDirectoryThatIsNotThereFailsTheLoad)
{
    const std::string missing = dir_.at("gone");
    const std::string path = conf(minimal("  snapshot = { dir_path = \"" + missing + "\"; };\n"));
    LogCapture cap;
    EXPECT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), ENOENT);
    EXPECT_EQ(cap.text(), strf("(ERR)  dir_check: opendir('%s', ...) ERROR(%d): %s\n", missing.c_str(), ENOENT,
                               strerror(ENOENT)) +
                              strf("(ERR)  load_ksti_config: FAILED (%d)\n", ENOENT));
    EXPECT_EQ(g_ctx.config_load_tm, 0);
}

TEST_F(Settings, ATrailingSlashOfTheSnapshotDirectoryIsCut)
{
    const std::string path = conf(minimal("  snapshot = { dir_path = \"" + dir_.path() + "/\"; };\n"));
    ASSERT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), 0);
    EXPECT_EQ(std::string(g_cfg.snap_dir), dir_.path());
}

TEST_F(Settings, AnEmptySnapshotDirectoryPassesTheLoad)
{
    const std::string path = conf(minimal("  snapshot = { dir_path = \"\"; };\n"));
    ASSERT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), 0);
    EXPECT_STREQ(g_cfg.snap_dir, "");
}

TEST_F(Settings, AReloadReadsOnlyTheReloadableKeys)
{
    // No log or runtime group is needed, and none of the start-only keys is read.
    const std::string path = conf("kst = { cache = { size_mb = 64; tail_size_mb = 9; };\n"
                                  "  source = { mcast_ifc = \"eth9\"; read_tmout_ms = 77; };\n"
                                  "  runtime = { quiet = true; }; };\n"
                                  "source = { use_http10_get = true; };\n");
    ASSERT_EQ(load_ksti_config(path.c_str(), &g_cfg, true), 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 9u);
    EXPECT_EQ(g_cfg.cache_sz_mb, 8u);
    EXPECT_STREQ(g_cfg.mcast_ifc, "all");
    EXPECT_EQ(g_cfg.read_tmout_ms, 0);
    EXPECT_FALSE(g_cfg.rt.quiet);
    EXPECT_FALSE(g_cfg.use_http10_get);
}

TEST_F(Settings, TheAnalyzerGroupIsOptional)
{
    g_cfg.tsa.is_enabled = true;
    g_cfg.tsa.max_skip_pkts = 5;
    ASSERT_EQ(load_ksti_config(conf(minimal()).c_str(), &g_cfg, false), 0);
    EXPECT_TRUE(g_cfg.tsa.is_enabled);
    EXPECT_EQ(g_cfg.tsa.max_skip_pkts, 5u);
}

TEST_F(Settings, AFailingAnalyzerGroupFailsTheLoad)
{
    const std::string path = conf(minimal("  stream_analyzer = { enabled = true; pcr_freq_ms = \"5x\"; };\n"));
    LogCapture cap;
    EXPECT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), ERR_BADMULT);
    EXPECT_EQ(cap.text(), strf("(ERR)  tsan_load_config: failed to load config, rc=%d\n", ERR_BADMULT) +
                              strf("(ERR)  load_ksti_config: FAILED (%d)\n", ERR_BADMULT));
}

TEST_F(Settings, WithoutTheFlightRecorderGroupThereIsNoRingAndNoLine)
{
    ASSERT_EQ(load_ksti_config(conf(minimal()).c_str(), &g_cfg, false), 0);
    EXPECT_EQ(g_cfg.flight_pages, 0u);
    const std::string without = dump(&g_cfg);
    EXPECT_EQ(without.find("Flight"), std::string::npos);
    // The group adds its two lines just before the closing rule, and nothing else.
    ASSERT_EQ(load_ksti_config(conf(minimal("  flight_recorder = { pages = 64; };\n")).c_str(), &g_cfg, false),
              0);
    EXPECT_EQ(g_cfg.flight_pages, 64u);
    const std::string rule = "-----------------------------------\n";
    std::string expect = without;
    expect.insert(expect.size() - rule.size(), "Flight recorder:\n\tRing           = kst.0, 64 pages\n");
    EXPECT_EQ(dump(&g_cfg), expect);
}

TEST_F(Settings, TheFlightRecorderTakesDefaultPagesAndTheInstanceNumber)
{
    g_cfg.instance_num = 7;
    ASSERT_EQ(load_ksti_config(conf(minimal("  flight_recorder = { };\n")).c_str(), &g_cfg, false), 0);
    EXPECT_EQ(g_cfg.flight_pages, (size_t)D_FLIGHT_PAGES);
    EXPECT_NE(dump(&g_cfg).find("\tRing           = kst.7, 64 pages\n"), std::string::npos);
    // Read at the start only: a reload keeps what the start made.
    ASSERT_EQ(load_ksti_config(conf(minimal()).c_str(), &g_cfg, true), 0);
    EXPECT_EQ(g_cfg.flight_pages, (size_t)D_FLIGHT_PAGES);
}

TEST_F(Settings, FlightRecorderPagesOutsideTheRangeFailTheLoad)
{
    for (int pages : {0, -1, MAX_FLIGHT_PAGES + 1}) {
        LogCapture cap;
        const std::string path = conf(minimal(strf("  flight_recorder = { pages = %d; };\n", pages)));
        EXPECT_EQ(load_ksti_config(path.c_str(), &g_cfg, false), -1);
        EXPECT_EQ(cap.text(), strf("(ERR)  load_config: flight_recorder.pages=%d is outside 1..16384\n", pages) +
                                  "(ERR)  load_ksti_config: FAILED (-1)\n");
    }
    ASSERT_EQ(load_ksti_config(conf(minimal("  flight_recorder = { pages = 16384; };\n")).c_str(), &g_cfg, false),
              0);
    EXPECT_EQ(g_cfg.flight_pages, 16384u);
}

// The reload while the capture runs: a copy is loaded and replaces the settings whole.
class Reload : public Settings {
protected:
    void SetUp() override
    {
        Settings::SetUp();
        path_ = conf(minimal("  config_reload_period = 1;\n"));
        ASSERT_EQ(load_ksti_config(path_.c_str(), &g_cfg, false), 0);
        set_mtime(path_, 1000000);
        g_ctx.config_mtime = 1000000;
        // The period has passed since the last good load.
        g_ctx.config_load_tm = time(nullptr) - 5;
    }
    void rewrite(const std::string& text, time_t mtime)
    {
        dir_.make("kst.conf", text);
        set_mtime(path_, mtime);
    }
    // A changed file is not even looked at: no line, no new time, no new value.
    void expect_changed_file_unseen()
    {
        rewrite(minimal("  cache = { tail_size_mb = 9; };\n"), 1000010);
        LogCapture cap;
        EXPECT_EQ(config_reload_check(), 0);
        EXPECT_EQ(cap.text(), "");
        EXPECT_EQ(g_cfg.tail_sz_mb, 2u);
        EXPECT_EQ(g_ctx.config_mtime, 1000000);
    }
    std::string path_;
};

TEST_F(Reload, AChangedFileReplacesTheReloadableSettings)
{
    g_cfg.cache_sz_mb = 8;
    strcpy(g_cfg.src_url, "udp://1.2.3.4:5");
    rewrite(minimal("  config_reload_period = 7;\n"
                    "  cache = { size_mb = 64; tail_size_mb = 0; tail_duration_ms = 0; min_bytes_left = 8192; };\n"
                    "  snapshot = { dir_path = \"" +
                    dir_.path() + "\"; file_prefix = \"cut\"; };\n"
                                  "  stats = { tput_report_sec = 5; };\n"
                                  "  stream_analyzer = { enabled = true; source_tag = \"ch9\"; };\n"
                                  "  pkt_reset_idx = 1000;\n  lost_sync_alert = false;\n"
                                  "  source = { mcast_ifc = \"eth1\"; read_tmout_ms = 5; };\n"),
            1000010);
    LogCapture cap;
    const time_t before = time(nullptr);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(cap.text(), "(NRM)  [" + path_ + "] updated, re-loading config\n");
    EXPECT_EQ(g_cfg.reload_period, 7u);
    EXPECT_EQ(g_cfg.tail_sz_mb, 0u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 0u);
    EXPECT_EQ(g_cfg.min_read_bytes, 8192u);
    EXPECT_EQ(std::string(g_cfg.snap_dir), dir_.path());
    EXPECT_STREQ(g_cfg.snap_pfx, "cut");
    EXPECT_EQ(g_cfg.report_tput_sec, 5u);
    EXPECT_TRUE(g_cfg.tsa.is_enabled);
    EXPECT_STREQ(g_cfg.tsa.source, "ch9");
    EXPECT_EQ(g_cfg.pkt_reset_idx, 1000u);
    EXPECT_FALSE(g_cfg.lost_sync_alert);
    // Never read at a reload.
    EXPECT_EQ(g_cfg.cache_sz_mb, 8u);
    EXPECT_STREQ(g_cfg.mcast_ifc, "");
    EXPECT_EQ(g_cfg.read_tmout_ms, 0);
    EXPECT_STREQ(g_cfg.src_url, "udp://1.2.3.4:5");
    EXPECT_EQ(g_ctx.config_mtime, 1000010);
    EXPECT_GE(g_ctx.config_load_tm, before);
}

TEST_F(Reload, AReloadOverridesTheCommandLine)
{
    ASSERT_EQ(get_tail_params("5:300"), 0);
    ASSERT_EQ(xtrack_opt("all"), 0);
    rewrite(minimal("  config_reload_period = 1;\n  stream_analyzer = { enabled = false; };\n"), 1000010);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(g_cfg.tail_sz_mb, 2u);
    EXPECT_EQ(g_cfg.tail_tm_ms, 0u);
    EXPECT_FALSE(g_cfg.tsa.trk.pcr_update);
}

TEST_F(Reload, NothingHappensWithoutAPeriod)
{
    g_cfg.reload_period = 0;
    expect_changed_file_unseen();
}

TEST_F(Reload, NothingHappensBeforeThePeriodHasPassed)
{
    g_cfg.reload_period = 3600;
    expect_changed_file_unseen();
}

TEST_F(Reload, AnUnchangedFileIsNotReloaded)
{
    LogCapture cap;
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(Reload, AFileTimeThatMovesBackCausesNoReload)
{
    rewrite(minimal("  config_reload_period = 1;\n  cache = { tail_size_mb = 9; };\n"), 999990);
    LogCapture cap;
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(g_cfg.tail_sz_mb, 2u);
    EXPECT_EQ(g_ctx.config_mtime, 999990);
}

TEST_F(Reload, ABrokenFileKeepsEverythingAndWaitsForTheNextChange)
{
    const ksti_ctx ctx_before = g_ctx;
    ksti_cfg before;
    memcpy(&before, &g_cfg, sizeof(before));
    rewrite("kst = {\n  cache = { tail_size_mb = 9 ]\n};\n", 1000010);
    LogCapture cap;
    EXPECT_EQ(config_reload_check(), -1);
    EXPECT_EQ(cap.text(), "(NRM)  [" + path_ + "] updated, re-loading config\n" +
                              "(ERR)  Error reading/parsing config file [" + path_ +
                              "]: line 2: syntax error\n"
                              "(ERR)  load_ksti_config: FAILED (-1)\n"
                              "(ERR)  config_reload_check: failed to reload config (err=-1), older version retained\n");
    EXPECT_EQ(memcmp(&before, &g_cfg, sizeof(before)), 0);
    EXPECT_EQ(g_ctx.config_load_tm, ctx_before.config_load_tm);

    // The same file is not tried again...
    cap.clear();
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(cap.text(), "");

    // ...until it is touched.
    rewrite(minimal("  config_reload_period = 1;\n  cache = { tail_size_mb = 9; };\n"), 1000020);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(cap.text(), "(NRM)  [" + path_ + "] updated, re-loading config\n");
    EXPECT_EQ(g_cfg.tail_sz_mb, 9u);
}

TEST_F(Reload, TheCacheSizeCannotBeChanged)
{
    rewrite(minimal("  config_reload_period = 1;\n  cache = { size_mb = 512; };\n"), 1000010);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(g_cfg.cache_sz_mb, 8u);
}

TEST_F(Reload, AnEmptySnapshotDirectoryStaysEmptyAfterAReload)
{
    rewrite(minimal("  config_reload_period = 1;\n  snapshot = { dir_path = \"\"; };\n"), 1000010);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_STREQ(g_cfg.snap_dir, "");
}

TEST_F(Reload, AVanishedFileIsToldAtEveryTurnAndItsReturnCountsAsAnUpdate)
{
    ASSERT_EQ(unlink(path_.c_str()), 0);
    LogCapture cap;
    const std::string line = strf("(ERR)  get_file_mtime: FAILED to retrieve mtime for [%s]: %s\n", path_.c_str(),
                                  strerror(ENOENT));
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(cap.text(), line + line);
    EXPECT_EQ(g_ctx.config_mtime, -1);

    // Even an old time is later than -1.
    cap.clear();
    rewrite(minimal("  config_reload_period = 1;\n  cache = { tail_size_mb = 9; };\n"), 10);
    EXPECT_EQ(config_reload_check(), 0);
    EXPECT_EQ(cap.text(), "(NRM)  [" + path_ + "] updated, re-loading config\n");
    EXPECT_EQ(g_cfg.tail_sz_mb, 9u);
}

// The analyzer's group.
tsan_config load_tsan(TempDir& dir, const std::string& group, int* rc)
{
    const std::string path = dir.make("tsan.conf", "g = {" + group + "};\n");
    config_init(&g_libcfg);
    EXPECT_EQ(config_read_file(&g_libcfg, path.c_str()), CONFIG_TRUE);
    tsan_config cfg;
    memset(&cfg, 0xA5, sizeof(cfg));
    *rc = tsan_load_config(config_lookup(&g_libcfg, "g"), &cfg);
    config_destroy(&g_libcfg);
    return cfg;
}

TEST_F(Settings, ADisabledAnalyzerReadsNothingElse)
{
    LogCapture cap;
    int rc = -1;
    const tsan_config cfg = load_tsan(dir_, "source_tag = \"x\"; max_skipped_pkts = 5; track = 1; pcr_update = true;",
                                      &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(cap.text(), "(DBG)  tsan_load_config: TSAN disabled, skipping further settings\n");
    const tsan_config zero{};
    EXPECT_EQ(memcmp(&cfg, &zero, sizeof(cfg)), 0);
}

TEST_F(Settings, AnEnabledAnalyzerTakesItsDefaults)
{
    int rc = -1;
    const tsan_config cfg = load_tsan(dir_, "enabled = true;", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(cfg.is_enabled);
    EXPECT_FALSE(cfg.access_log_alerts);
    EXPECT_STREQ(cfg.source, "");
    EXPECT_EQ(cfg.max_skip_pkts, 9000u);
    EXPECT_EQ(cfg.max_pdts_delta, 500u);
    EXPECT_EQ(cfg.max_pcr_delta, 0u);
    EXPECT_EQ(cfg.pcr_freq_ms, 0u);
    EXPECT_EQ(cfg.dump_stats_period, 0u);
}

TEST_F(Settings, AnalyzerSizesAreNumbersOrText)
{
    int rc = -1;
    const tsan_config cfg = load_tsan(dir_,
                                      "enabled = true; access_log_alerts = true; source_tag = \"ch1\";"
                                      "max_skipped_pkts = \"2K\"; max_pdts_delta_ms = 100; max_pcr_delta_ms = \"\";"
                                      "pcr_freq_ms = 40L; dump_stats_period = \"1m\";",
                                      &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(cfg.access_log_alerts);
    EXPECT_STREQ(cfg.source, "ch1");
    EXPECT_EQ(cfg.max_skip_pkts, 2048u);
    EXPECT_EQ(cfg.max_pdts_delta, 100u);
    EXPECT_EQ(cfg.max_pcr_delta, 0u);
    EXPECT_EQ(cfg.pcr_freq_ms, 40u);
    EXPECT_EQ(cfg.dump_stats_period, 1048576u);
}

TEST_F(Settings, TheFirstFailingAnalyzerKeyEndsTheLoad)
{
    LogCapture cap;
    int rc = 0;
    const tsan_config cfg = load_tsan(dir_, "enabled = true; max_skipped_pkts = \"5x\"; max_pdts_delta_ms = 7;", &rc);
    EXPECT_EQ(rc, ERR_BADMULT);
    EXPECT_EQ(cap.text(), strf("(ERR)  tsan_load_config: failed to load config, rc=%d\n", ERR_BADMULT));
    EXPECT_EQ(cfg.max_pdts_delta, 0u);
}

TEST_F(Settings, AnOverlongSourceTagEndsTheAnalyzerLoad)
{
    int rc = 0;
    (void)load_tsan(dir_, "enabled = true; source_tag = \"" + std::string(62, 's') + "\";", &rc);
    EXPECT_EQ(rc, 0);
    LogCapture cap;
    (void)load_tsan(dir_, "enabled = true; source_tag = \"" + std::string(63, 's') + "\";", &rc);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(cap.text(),
              "(ERR)  load_config_setting_str: source_tag value is too long (63), max = 63 characters.\n"
              "(ERR)  tsan_load_config: failed to load config, rc=-1\n");
}

TEST_F(Settings, TrackingFlagsAreReadOnlyNextToATrackSetting)
{
    int rc = -1;
    tsan_config cfg = load_tsan(dir_, "enabled = true; pcr_update = true; sdt_ignore = true;", &rc);
    EXPECT_FALSE(cfg.trk.pcr_update);
    EXPECT_FALSE(cfg.trk.sdt_ignore);

    // The contents of "track" are not read; the flags stand beside it.
    cfg = load_tsan(dir_,
                    "enabled = true; track = { pcr_update = false; }; pcr_update = true; sdt_ignore = true;"
                    "misc_ignore = 1; pdts_update = true; pat_pmt_pkt = true;",
                    &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(cfg.trk.pcr_update);
    EXPECT_TRUE(cfg.trk.sdt_ignore);
    EXPECT_FALSE(cfg.trk.misc_ignore);
    EXPECT_TRUE(cfg.trk.pdts_update);
    EXPECT_TRUE(cfg.trk.pat_pmt_pkt);
}

std::string tsan_dump(const tsan_config* cfg)
{
    char* text = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&text, &len);
    tsan_dump_config(fp, "Analysis", cfg);
    fclose(fp);
    std::string out(text, len);
    free(text);
    return out;
}

TEST_F(Settings, TheAnalyzerReport)
{
    tsan_config cfg{};
    EXPECT_EQ(tsan_dump(&cfg), "Analysis: disabled\n");

    cfg.is_enabled = true;
    strcpy(cfg.source, "ch1");
    cfg.max_skip_pkts = 0;
    cfg.max_pcr_delta = 800;
    cfg.pcr_freq_ms = 40;
    cfg.dump_stats_period = 60;
    cfg.access_log_alerts = true;
    cfg.trk.misc_ignore = true;
    cfg.trk.pcr_update = true;
    EXPECT_EQ(tsan_dump(&cfg), "Analysis: \n"
                               "\tsource:                [ch1]\n"
                               "\tskipped packets:       0\n"
                               "\tPCR delta:             800 (ms)\n"
                               "\tPCR frequency:         40 (ms)\n"
                               "\tdump stats every:      60 (sec)\n"
                               "\tT:sdt_ignore:          no\n"
                               "\tT:misc_ignore:         yes\n"
                               "\tT:pdts_update:         no\n"
                               "\tT:pat_pmt_pkt:         no\n"
                               "\tT:pcr_update:          yes\n"
                               "\taccess-log-alerts:     ON\n");
}

}  // namespace
