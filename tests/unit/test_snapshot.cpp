// Snapshot requests: the tail, the file's name, and every way a request ends.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/time.h>
#include <unistd.h>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "kst.h"
#include "logcap.h"
// The ring's private record: these tests check its invariants (head, size,
// both views) field by field, which no public call shows.
#include "mmr_ring.h"
#include "dstream.h"
#include "testfs.h"
#include "util.h"

namespace {

class Snapshot : public testing::Test {
protected:
    void SetUp() override
    {
        glog_init("test");
        init_ksti_config(&g_cfg);
        snprintf(g_cfg.snap_dir, sizeof(g_cfg.snap_dir), "%s", dir_.path().c_str());
        g_ctx = ksti_ctx{};
        g_snapshot = 0;
        g_snapalarm = 0;
        ASSERT_EQ(mmr_create(&g_ctx.mmr, BYTES_IN_MB), 0);
        old_alarm_ = signal(SIGALRM, catch_alarm);
    }
    void TearDown() override
    {
        itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        signal(SIGALRM, old_alarm_);
        mmr_destroy(g_ctx.mmr);
        g_ctx = ksti_ctx{};
        g_snapshot = 0;
        g_snapalarm = 0;
    }

    // Puts whole TS packets into the ring, as the capture loop would.
    std::vector<uint8_t> feed(size_t npkts)
    {
        std::vector<uint8_t> data(npkts * 188);
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = (i % 188 == 0) ? MPEG_TS_SYNC : (uint8_t)(i * 7);
        mm_point pt{};
        uint8_t* p = mmr_iget(g_ctx.mmr, &pt);
        memcpy(p, data.data(), data.size());
        pt.len = data.size();
        EXPECT_EQ(mmr_iput(g_ctx.mmr, &pt), 0);
        held_ += npkts;
        return data;
    }

    // Without the analyzer the numbers of the name come from the bytes:
    // nothing has left the ring here, and it holds the packets fed.
    std::string name(const char* suffix) const
    {
        return dir_.path() + "/snap" + std::to_string(getpid()) + "-p0_" + std::to_string(held_) + "-" + suffix +
               ".ts";
    }

    size_t held_ = 0;

    TempDir dir_{"snap"};
    void (*old_alarm_)(int) = SIG_DFL;
};

}  // namespace

TEST_F(Snapshot, NoTailWritesTheRingAtOnce)
{
    auto data = feed(10);
    g_cfg.tail_sz_mb = 0;
    g_cfg.tail_tm_ms = 0;
    LogCapture cap;
    g_snapshot = 1;
    EXPECT_EQ(process_signals(), 0);
    EXPECT_EQ(g_snapshot, 0);
    EXPECT_EQ(slurp(name("N")), std::string(data.begin(), data.end()));
    const std::string log = cap.text();
    EXPECT_NE(log.find("(DBG)  mk_snapshot_file: " + name("N") + " created, fd"), std::string::npos) << log;
    EXPECT_NE(log.find("(INF)  take_snapshot: write 1880 bytes to [" + name("N") + "]\n"), std::string::npos) << log;
    EXPECT_FALSE(g_ctx.must_count_tail);
    EXPECT_FALSE(g_ctx.waiting_alarm);
}

TEST_F(Snapshot, TheNameCarriesPacketNumbers)
{
    feed(10);
    mmr_add_pkts(g_ctx.mmr, 1350);
    static_cast<mm_ring*>(g_ctx.mmr)->first_pktnum = 1000;
    EXPECT_EQ(take_snapshot("B"), 0);
    EXPECT_TRUE(exists(dir_.path() + "/snap" + std::to_string(getpid()) + "-p1000_350-B.ts"));
}

TEST_F(Snapshot, WithoutPacketNumbersTheNameCountsPacketsByBytes)
{
    // A ring of 1 MiB capped as the loop caps it: what left it and what it
    // holds, in packets.
    const size_t limit = BYTES_IN_MB - 4096;
    feed(5000);
    ASSERT_GE(mmr_cap(g_ctx.mmr, limit), 0);
    mm_info info{};
    mmr_get_info(g_ctx.mmr, &info);
    const uint64_t out = mmr_bytes_out(g_ctx.mmr);
    ASSERT_EQ(out + info.pld_size, 5000u * 188);
    ASSERT_EQ(out % 188, 0u);
    EXPECT_EQ(take_snapshot("N"), 0);
    EXPECT_TRUE(exists(dir_.path() + "/snap" + std::to_string(getpid()) + "-p" + std::to_string(out / 188) + "_" +
                       std::to_string(info.pld_size / 188) + "-N.ts"));
}

TEST_F(Snapshot, SnapshotsInARowWithoutTheAnalyzerAreNewFilesEachTime)
{
    g_cfg.tail_sz_mb = 0;
    g_cfg.tail_tm_ms = 0;
    // Room for the next feed, as the loop keeps room for the next read.
    const size_t limit = BYTES_IN_MB - 256 * 1024;
    std::string sent;
    std::vector<std::string> names;
    for (int i = 0; i < 3; ++i) {
        for (int k = 0; k < 4; ++k) {
            auto d = feed(1000);
            sent.append(d.begin(), d.end());
            ASSERT_GE(mmr_cap(g_ctx.mmr, limit), 0);
        }
        g_snapshot = 1;
        LogCapture cap(ERR_level);
        EXPECT_EQ(process_signals(), 0);
        EXPECT_EQ(g_snapshot, 0);
        EXPECT_EQ(cap.text(), "");
        const uint64_t out = mmr_bytes_out(g_ctx.mmr);
        mm_info info{};
        mmr_get_info(g_ctx.mmr, &info);
        const std::string n = dir_.path() + "/snap" + std::to_string(getpid()) + "-p" + std::to_string(out / 188) +
                              "_" + std::to_string(info.pld_size / 188) + "-N.ts";
        ASSERT_TRUE(exists(n)) << n;
        EXPECT_EQ(slurp(n), sent.substr(out, info.pld_size));
        names.push_back(n);
    }
    EXPECT_LT(names[0], names[1]);
    EXPECT_NE(names[1], names[2]);
}

TEST_F(Snapshot, ATailBySizeEndsWithB)
{
    auto data = feed(10);
    g_cfg.tail_sz_mb = 1;
    g_cfg.tail_tm_ms = 0;
    LogCapture cap;
    EXPECT_EQ(process_snapshot(), 0);
    EXPECT_TRUE(g_ctx.must_count_tail);
    EXPECT_FALSE(g_ctx.waiting_alarm);
    EXPECT_EQ(cap.text(), "(INF)  process_snapshot: take snapshot as soon as tail >= 1 Mb\n");
    count_tail(BYTES_IN_MB - 1);
    EXPECT_FALSE(exists(name("B")));
    cap.clear();
    count_tail(1);
    EXPECT_TRUE(exists(name("B")));
    EXPECT_EQ(cap.text().rfind("(INF)  run_app: tail size (1048576) >= 1 Mb\n", 0), 0u) << cap.text();
    EXPECT_FALSE(g_ctx.must_count_tail);
}

TEST_F(Snapshot, ATailByTimeEndsWithA)
{
    feed(3);
    g_cfg.tail_sz_mb = 0;
    g_cfg.tail_tm_ms = 30;
    LogCapture cap;
    g_snapshot = 1;
    EXPECT_EQ(process_signals(), 0);
    EXPECT_TRUE(g_ctx.waiting_alarm);
    EXPECT_FALSE(g_ctx.must_count_tail);
    EXPECT_EQ(cap.text(), "(DBG)  schedule_alarm: alarm set for 30 ms\n");
    for (int i = 0; i < 200 && !g_snapalarm; ++i)
        usleep(5000);
    ASSERT_EQ(g_snapalarm, 1);
    EXPECT_NE(cap.text().find("(NRM)  Received alarm-SIG(14).\n(INF)  catch_alarm: got the expected snapshot ALARM\n"),
              std::string::npos);
    EXPECT_EQ(process_signals(), 0);
    EXPECT_EQ(g_snapalarm, 0);
    EXPECT_TRUE(exists(name("A")));
    EXPECT_FALSE(g_ctx.waiting_alarm);
    EXPECT_NE(cap.text().find("(DBG)  clear_alarm: alarm cleared\n"), std::string::npos);
}

TEST_F(Snapshot, BytesFirstDisarmTheTimer)
{
    feed(3);
    g_cfg.tail_sz_mb = 1;
    g_cfg.tail_tm_ms = 60000;
    EXPECT_EQ(process_snapshot(), 0);
    EXPECT_TRUE(g_ctx.waiting_alarm);
    count_tail(BYTES_IN_MB);
    EXPECT_TRUE(exists(name("B")));
    EXPECT_FALSE(g_ctx.waiting_alarm);
    itimerval now{};
    getitimer(ITIMER_REAL, &now);
    EXPECT_EQ(now.it_value.tv_sec, 0);
    EXPECT_EQ(now.it_value.tv_usec, 0);
}

TEST_F(Snapshot, ARequestDuringATailIsRefused)
{
    feed(3);
    g_cfg.tail_sz_mb = 1;
    g_cfg.tail_tm_ms = 0;
    EXPECT_EQ(process_snapshot(), 0);
    LogCapture cap;
    g_snapshot = 1;
    EXPECT_EQ(process_signals(), 0);
    EXPECT_EQ(g_snapshot, 0);
    EXPECT_EQ(cap.text(), "(WRN)  Another snapshot is pending, ignoring this request\n");
    EXPECT_TRUE(g_ctx.must_count_tail);
    EXPECT_EQ(dir_.entries().size(), 0u);
}

TEST_F(Snapshot, AnAlarmThatWasNotAskedForIsOnlyLogged)
{
    LogCapture cap;
    catch_alarm(SIGALRM);
    EXPECT_EQ(g_snapalarm, 0);
    EXPECT_EQ(cap.text(), "(NRM)  Received alarm-SIG(14).\n");
}

TEST_F(Snapshot, TheRequestSignalSetsTheFlagAndLogs)
{
    LogCapture cap;
    snapshot_on_sig(SIGUSR2);
    snapshot_on_sig(SIGUSR2);  // two before the loop runs: still one request
    EXPECT_EQ(g_snapshot, 1);
    EXPECT_EQ(g_sigctx, 0);
    const std::string line = "(NRM)  Received snapshot-SIG(" + std::to_string(SIGUSR2) + ").\n";
    EXPECT_EQ(cap.text(), line + line);
}

TEST_F(Snapshot, AVanishedDirectoryIsRetriedAndCaptureGoesOn)
{
    feed(3);
    g_cfg.tail_sz_mb = 0;
    g_cfg.tail_tm_ms = 0;
    const std::string gone = dir_.path() + "/gone";
    snprintf(g_cfg.snap_dir, sizeof(g_cfg.snap_dir), "%s", gone.c_str());
    LogCapture cap;
    g_snapshot = 1;
    EXPECT_EQ(process_signals(), -1);
    EXPECT_EQ(g_snapshot, 1);  // tried again at the next turn
    const std::string path = gone + "/snap" + std::to_string(getpid()) + "-p0_3-N.ts";
    EXPECT_EQ(cap.text(), "(ERR)  mk_snapshot_file: open('" + path + "', " +
                              std::to_string(O_WRONLY | O_CREAT | O_EXCL) +
                              ", 0x1a4) ERROR(2): No such file or directory\n");
    ASSERT_EQ(mkdir(gone.c_str(), 0755), 0);
    EXPECT_EQ(process_signals(), 0);
    EXPECT_EQ(g_snapshot, 0);
    EXPECT_TRUE(exists(path));
}

TEST_F(Snapshot, AnExistingFileIsNeverOverwritten)
{
    feed(3);
    const std::string path = name("N");
    dir_.make("snap" + std::to_string(getpid()) + "-p0_3-N.ts", "keep");
    LogCapture cap(ERR_level);
    EXPECT_EQ(take_snapshot("N"), -1);
    EXPECT_EQ(slurp(path), "keep");
    EXPECT_EQ(cap.text(), "(ERR)  mk_snapshot_file: open('" + path + "', " +
                              std::to_string(O_WRONLY | O_CREAT | O_EXCL) + ", 0x1a4) ERROR(17): File exists\n");
}

TEST_F(Snapshot, AnEmptyRingGivesAnEmptyFile)
{
    LogCapture cap;
    EXPECT_EQ(take_snapshot("N"), 0);
    EXPECT_TRUE(exists(name("N")));
    EXPECT_EQ(slurp(name("N")), "");
    const std::string log = cap.text();
    EXPECT_NE(log.find("(WRN)  mmr_snapshot: no payload, nothing to write\n(ERR)  take_snapshot: failed to snapshot to fd"),
              std::string::npos)
        << log;
}

TEST_F(Snapshot, LongDirectoryNames)
{
    feed(3);
    std::string longdir = dir_.path() + "/";
    longdir += std::string(100 - longdir.size(), 'd');
    ASSERT_EQ(longdir.size(), 100u);
    ASSERT_EQ(mkdir(longdir.c_str(), 0755), 0);
    snprintf(g_cfg.snap_dir, sizeof(g_cfg.snap_dir), "%s", longdir.c_str());
    EXPECT_EQ(take_snapshot("N"), 0);

    const std::string longer = longdir + "/" + std::string(20, 'e');
    snprintf(g_cfg.snap_dir, sizeof(g_cfg.snap_dir), "%s", longer.c_str());
    LogCapture cap;
    EXPECT_EQ(take_snapshot("N"), -1);
    const int n = (int)(longer.size() + strlen("/snap") + std::to_string(getpid()).size() + strlen("-p0_3-N.ts"));
    EXPECT_EQ(cap.text(), "(ERR)  mk_snapshot_file: cannot make snapshot name, n=" + std::to_string(n) + "\n");
}

// A full disk is made in a private mount namespace, so the machine's own
// filesystems are never touched.
TEST_F(Snapshot, AFullDiskLeavesTheFileAndCaptureGoesOn)
{
    feed(10);
    const std::string full = dir_.path() + "/full";
    ASSERT_EQ(mkdir(full.c_str(), 0755), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", full.c_str(), "tmpfs", 0, "size=4k") != 0)
            _exit(77);
        // Fill it to the last byte.
        int ffd = open((full + "/filler").c_str(), O_WRONLY | O_CREAT, 0644);
        char block[4096] = {};
        while (write(ffd, block, sizeof(block)) > 0) {
        }
        close(ffd);
        snprintf(g_cfg.snap_dir, sizeof(g_cfg.snap_dir), "%s", full.c_str());
        LogCapture cap;
        const int rc = take_snapshot("N");
        const std::string path = full + "/snap" + std::to_string(getpid()) + "-p0_10-N.ts";
        const std::string log = cap.text();
        const std::string want_write = "ERROR(28): No space left on device\n(ERR)  take_snapshot: failed to snapshot to fd";
        if (rc != 0)
            _exit(1);
        if (log.find("(ERR)  mmr_snapshot: write(") == std::string::npos || log.find(want_write) == std::string::npos) {
            fprintf(stderr, "%s", log.c_str());
            _exit(2);
        }
        if (!exists(path) || !slurp(path).empty())
            _exit(3);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "no private mount namespace here (unshare/mount refused): cannot make a full disk";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1: wrong code, 2: wrong lines, 3: file missing or not empty";
}

TEST(SnapshotDeathTest, ArmingTwiceStopsTheProcess)
{
    EXPECT_DEATH(
        {
            g_ctx.waiting_alarm = true;
            schedule_alarm();
        },
        "Assertion failed: \\(!g_ctx.waiting_alarm\\), function schedule_alarm");
}
