// Log rotation: the limits, the rotation itself, the table of files kept, and
// what happens when the disk says no. The clock is replaced, so the end of a
// day and the names of rotated files are known in advance.
#include <gtest/gtest.h>

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "config.h"
#include "errcap.h"
#include "log.h"
// The logger's seam: rotation at a given time and its clock.
#include "log_internal.h"
#include "logcap.h"
#include "testfs.h"
#include "timeop.h"
#include "util.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr uid_t k_nobody = 65534;

time_t g_fake_now = 0;

time_t fake_time(time_t* t)
{
    if (t != nullptr)
        *t = g_fake_now;
    return g_fake_now;
}

std::string stamped(const std::string& path, time_t t)
{
    return path + "." + std::to_string((unsigned long)t);
}

// The first line of a fresh log, as g_log writes it without time stamp.
std::string rotated_line(const std::string& new_name, time_t now, long idx)
{
    return "(NRM)  [test]: previous log rotated to [" + new_name + "] tm=" + std::to_string((long)now) +
           ", idx=" + std::to_string(idx) + "\n";
}

std::vector<std::string> sorted(std::vector<std::string> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

// Each test starts with both logs cleared, every module at DEBUG and the
// clock in the test's hand; all of it goes back afterwards.
class LogRota : public testing::Test {
protected:
    void SetUp() override
    {
        glog_init("test");
        saved_log_ = g_log;
        saved_access_ = g_access_log;
        g_log = log_ctx{};
        g_access_log = log_ctx{};
        for (int i = 0; i < LL_MAX_MODULES; ++i) {
            saved_ll_[i] = g_mod_ll[i];
            g_mod_ll[i] = DEBUG_level;
        }
        g_fake_now = 1700000000;
        log_detail::log_set_clock_for_test(fake_time);
    }
    void TearDown() override
    {
        log_detail::log_set_clock_for_test(nullptr);
        log_close(&g_log);
        log_close(&g_access_log);
        g_log = saved_log_;
        g_access_log = saved_access_;
        for (int i = 0; i < LL_MAX_MODULES; ++i)
            g_mod_ll[i] = saved_ll_[i];
        g_sigctx = 0;
    }

    // g_log on a file, lines without time, pid or group.
    static void open_log(log_ctx* log, const std::string& path, uint32_t flags = 0)
    {
        ASSERT_EQ(log_open_ex(log, path.c_str(), flags), 0);
        log->time_format = f_NO_TIME;
    }

    // An INFO line of exactly len bytes; returns what it wrote.
    static std::string write_line(size_t len, char fill = 'a')
    {
        const std::string body(len - strlen("(INF)  \n"), fill);
        LOG_AT(INFO_level, "%s\n", body.c_str());
        return "(INF)  " + body + "\n";
    }

    // Writes lines of len bytes at the present fake time until the log at
    // path has rotated; returns what the rotated file must hold: the file as
    // it was before the last line, and that line whole.
    static std::string write_until_rotated(const std::string& path, size_t len)
    {
        for (int i = 0; i < 100; ++i) {
            const std::string before = slurp(path);
            const std::string line = write_line(len);
            if (exists(stamped(path, g_fake_now)))
                return before + line;
        }
        ADD_FAILURE() << "no rotation of " << path;
        return {};
    }

private:
    log_ctx saved_log_{};
    log_ctx saved_access_{};
    int saved_ll_[LL_MAX_MODULES] = {};
};

}  // namespace

TEST_F(LogRota, ZeroLimitsNeverRotateAndKeepSixteen)
{
    log_set_rota(&g_log, 0, 0, 0);
    EXPECT_EQ(log_rota_maxsize(&g_log), 0u);
    EXPECT_EQ(log_rota_maxfiles(&g_log), 16u);
    EXPECT_EQ(log_rota_eod(&g_log), 0);

    TempDir d("rota");
    const std::string path = d.at("app.log");
    open_log(&g_log, path);
    log_set_rota(&g_log, 0, 0, 0);
    std::string expect;
    for (int i = 0; i < 50; ++i) {
        expect += write_line(1000);
        // Years go by: without an end of day nothing rotates by time either.
        g_fake_now += 86400 * 365;
    }
    EXPECT_EQ(sorted(d.entries()), std::vector<std::string>{"app.log"});
    EXPECT_EQ(slurp(path), expect);
    EXPECT_EQ(g_log.total_out, 50000u);
}

TEST_F(LogRota, MaxFiles127IsKept128GivesSixteen)
{
    log_ctx lg{};
    log_set_rota(&lg, 1, 127, 0);
    EXPECT_EQ(log_rota_maxfiles(&lg), 127u);
    log_set_rota(&lg, 1, 128, 0);
    EXPECT_EQ(log_rota_maxfiles(&lg), 16u);
    log_set_rota(&lg, 1, 1, 0);
    EXPECT_EQ(log_rota_maxfiles(&lg), 1u);

    // All 127 slots are used before the first file goes.
    TempDir d("rota");
    const std::string path = d.at("app.log");
    open_log(&g_log, path);
    log_set_rota(&g_log, 0, 127, 0);
    const time_t t0 = g_fake_now;
    for (int i = 0; i < 127; ++i) {
        g_fake_now = t0 + i;
        ASSERT_EQ(log_rotate(&g_log), 0) << i;
    }
    EXPECT_EQ(d.entries().size(), 128u);
    EXPECT_TRUE(exists(stamped(path, t0)));
    EXPECT_EQ(g_log.rota.next_idx, 0);

    g_fake_now = t0 + 127;
    ASSERT_EQ(log_rotate(&g_log), 0);
    EXPECT_EQ(d.entries().size(), 128u);
    EXPECT_FALSE(exists(stamped(path, t0)));
    EXPECT_TRUE(exists(stamped(path, t0 + 1)));
    EXPECT_EQ(g_log.rota.tm[0], t0 + 127);
    EXPECT_EQ(slurp(path), rotated_line(stamped(path, t0 + 127), t0 + 127, 0) +
                               "(DBG)  handle_rotation: replaced " + stamped(path, t0) + " with " +
                               stamped(path, t0 + 127) + "\n");
}

TEST_F(LogRota, TwoRotationsInOneSecondShareANameAndTheSecondUnlinkFails)
{
    TempDir d("rota");
    const std::string path = d.at("app.log");
    open_log(&g_log, path);
    log_set_rota(&g_log, 0, 2, 0);
    const time_t t = g_fake_now;

    const std::string one = write_line(20, '1');
    ASSERT_EQ(log_rotate(&g_log), 0);
    EXPECT_EQ(slurp(stamped(path, t)), one);
    const std::string first = rotated_line(stamped(path, t), t, 0);
    EXPECT_EQ(slurp(path), first);

    // The same second: the same name, and the file of the first rotation is replaced.
    const std::string two = write_line(20, '2');
    ASSERT_EQ(log_rotate(&g_log), 0);
    EXPECT_EQ(slurp(stamped(path, t)), first + two);
    EXPECT_EQ(slurp(path), rotated_line(stamped(path, t), t, 1));
    EXPECT_EQ(g_log.rota.tm[0], t);
    EXPECT_EQ(g_log.rota.tm[1], t);

    // Slot 0 takes the shared file away...
    g_fake_now = t + 1;
    ASSERT_EQ(log_rotate(&g_log), 0);
    EXPECT_FALSE(exists(stamped(path, t)));
    EXPECT_EQ(slurp(path), rotated_line(stamped(path, t + 1), t + 1, 0) + "(DBG)  handle_rotation: replaced " +
                               stamped(path, t) + " with " + stamped(path, t + 1) + "\n");

    // ...so that slot 1 finds nothing left to remove.
    g_fake_now = t + 2;
    errno = EINVAL;
    ASSERT_EQ(log_rotate(&g_log), 0);
    // A failed unlink is logged and forgotten.
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(slurp(path), rotated_line(stamped(path, t + 2), t + 2, 1) + "(ERR)  handle_rotation: unlink(" +
                               stamped(path, t) + ") ERROR(2) : No such file or directory\n");
    EXPECT_EQ(g_log.rota.tm[0], t + 1);
    EXPECT_EQ(g_log.rota.tm[1], t + 2);
    EXPECT_EQ(sorted(d.entries()),
              (std::vector<std::string>{"app.log", "app.log." + std::to_string(t + 1),
                                        "app.log." + std::to_string(t + 2)}));
}

TEST_F(LogRota, TwoFilesKeptThirdRotationRemovesTheFirst)
{
    TempDir d("rota");
    const std::string path = d.at("app.log");
    open_log(&g_log, path);
    log_set_rota(&g_log, 1000, 2, 0);
    const time_t t1 = 1700000100, t2 = 1700000200, t3 = 1700000300;

    g_fake_now = t1;
    const std::string c1 = write_until_rotated(path, 300);
    EXPECT_EQ(slurp(stamped(path, t1)), c1);
    EXPECT_EQ(slurp(path), rotated_line(stamped(path, t1), t1, 0));

    g_fake_now = t2;
    const std::string c2 = write_until_rotated(path, 300);
    EXPECT_EQ(slurp(path), rotated_line(stamped(path, t2), t2, 1));

    g_fake_now = t3;
    const std::string c3 = write_until_rotated(path, 300);

    EXPECT_FALSE(exists(stamped(path, t1)));
    EXPECT_EQ(slurp(stamped(path, t2)), c2);
    EXPECT_EQ(slurp(stamped(path, t3)), c3);
    EXPECT_EQ(c2.rfind(rotated_line(stamped(path, t1), t1, 0), 0), 0u);
    EXPECT_EQ(c3.rfind(rotated_line(stamped(path, t2), t2, 1), 0), 0u);
    EXPECT_EQ(slurp(path), rotated_line(stamped(path, t3), t3, 0) + "(DBG)  handle_rotation: replaced " +
                               stamped(path, t1) + " with " + stamped(path, t3) + "\n");
    EXPECT_EQ(sorted(d.entries()),
              (std::vector<std::string>{"app.log", "app.log.1700000200", "app.log.1700000300"}));
    EXPECT_EQ(g_log.rota.next_idx, 1);
}

TEST_F(LogRota, AppendedLogAtTheLimitRotatesAtTheFirstLine)
{
    TempDir d("rota");
    const std::string old(300, 'o');
    const std::string path = d.make("alert.log", old);
    open_log(&g_log, path, F_APPEND_OLD);
    EXPECT_EQ(g_log.total_out, 300u);
    log_set_rota(&g_log, 300, 4, 0);
    // Opening alone doesn't rotate: only a line does.
    EXPECT_EQ(sorted(d.entries()), std::vector<std::string>{"alert.log"});

    const std::string line = write_line(30);
    EXPECT_EQ(slurp(stamped(path, g_fake_now)), old + line);
    const std::string fresh = rotated_line(stamped(path, g_fake_now), g_fake_now, 0);
    EXPECT_EQ(slurp(path), fresh);
    EXPECT_EQ(g_log.total_out, fresh.size());
}

TEST_F(LogRota, LineCrossingTheLimitGoesWholeIntoTheOldFile)
{
    TempDir d("rota");
    const std::string path = d.at("app.log");
    open_log(&g_log, path);
    log_set_rota(&g_log, 300, 4, 0);

    const std::string a = write_line(200);
    EXPECT_FALSE(exists(stamped(path, g_fake_now)));
    const std::string b = write_line(150);
    EXPECT_EQ(slurp(stamped(path, g_fake_now)), a + b);
    const std::string fresh = rotated_line(stamped(path, g_fake_now), g_fake_now, 0);
    EXPECT_EQ(slurp(path), fresh);

    // One byte short of the limit is no reason; reaching it is.
    g_fake_now += 1;
    const std::string c = write_line(300 - fresh.size() - 1);
    EXPECT_EQ(g_log.total_out, 299u);
    EXPECT_FALSE(exists(stamped(path, g_fake_now)));
    const std::string e = write_line(10);
    EXPECT_EQ(slurp(stamped(path, g_fake_now)), fresh + c + e);
    EXPECT_EQ(g_log.rota.next_idx, 2);
}

TEST_F(LogRota, EndOfDayNeedsALaterSecondThanOneToMidnight)
{
    TempDir d("rota");
    const std::string path = d.at("app.log");
    open_log(&g_log, path);
    const time_t start = 1700000000;
    log_set_rota(&g_log, 0, 4, start);
    const time_t eod = get_endofday_utime(start);
    ASSERT_EQ(log_rota_eod(&g_log), eod);
    struct tm tmv {};
    ASSERT_NE(localtime_r(&eod, &tmv), nullptr);
    ASSERT_EQ(tmv.tm_hour * 3600 + tmv.tm_min * 60 + tmv.tm_sec, 23 * 3600 + 59 * 60 + 59);

    g_fake_now = eod;
    const std::string late = write_line(40);
    EXPECT_EQ(sorted(d.entries()), std::vector<std::string>{"app.log"});
    EXPECT_EQ(log_rota_eod(&g_log), eod);

    g_fake_now = eod + 1;
    const std::string next_day = write_line(40);
    EXPECT_EQ(slurp(stamped(path, eod + 1)), late + next_day);
    EXPECT_EQ(slurp(path), rotated_line(stamped(path, eod + 1), eod + 1, 0));

    // The limit moved to the end of the day that has just begun.
    const time_t eod2 = log_rota_eod(&g_log);
    EXPECT_EQ(eod2, get_endofday_utime(eod + 1));
    struct tm day1 {}, day2 {};
    ASSERT_NE(localtime_r(&eod, &day1), nullptr);
    ASSERT_NE(localtime_r(&eod2, &day2), nullptr);
    EXPECT_EQ(day2.tm_hour, 23);
    EXPECT_EQ(day2.tm_min, 59);
    EXPECT_EQ(day2.tm_sec, 59);
    EXPECT_NE(day2.tm_yday, day1.tm_yday);
    EXPECT_GT(eod2, eod + 1);
    EXPECT_LE(eod2 - eod, 25 * 3600);

    // Once a day: the rest of the new day writes on.
    g_fake_now = eod2;
    write_line(40);
    EXPECT_EQ(d.entries().size(), 2u);
    g_fake_now = eod2 + 1;
    write_line(40);
    EXPECT_EQ(d.entries().size(), 3u);
    EXPECT_TRUE(exists(stamped(path, eod2 + 1)));
}

TEST_F(LogRota, StderrAndPipeLogsNeverRotate)
{
    // A log on stderr doesn't reach the test at all: nothing but the line.
    {
        g_log.fp = stderr;
        strcpy(g_log.name, "/tmp/not-a-log");
        g_log.time_format = f_NO_TIME;
        log_set_rota(&g_log, 1, 4, 1);
        g_fake_now = get_endofday_utime(1) + 86400 * 365;
        StderrCapture err;
        LOG_AT(INFO_level, "%s\n", "to the console");
        EXPECT_EQ(err.text(), "(INF)  to the console\n");
        EXPECT_EQ(log_rota_eod(&g_log), get_endofday_utime(1));
    }
    // Asked directly, both standard streams are refused.
    for (FILE* fp : {stdout, stderr}) {
        g_log.fp = fp;
        StderrCapture err;
        EXPECT_EQ(log_rotate(&g_log), -1);
        EXPECT_EQ(err.text(), "log_rotate: stdout and stderr cannot be rotated.\n");
    }
    g_log = log_ctx{};

    // A pipe log reaches the test and is refused every time.
    TempDir d("rota");
    const std::string out = d.at("piped");
    ASSERT_EQ(log_popen(&g_log, ("cat > " + out).c_str()), 0);
    g_log.time_format = f_NO_TIME;
    log_set_rota(&g_log, 1, 4, 0);
    {
        StderrCapture err;
        LOG_AT(INFO_level, "%s\n", "one");
        LOG_AT(INFO_level, "%s\n", "two");
        EXPECT_EQ(err.text(), "log_rotate: not supported for pipe-based streams.\n"
                              "log_rotate: not supported for pipe-based streams.\n");
    }
    log_close(&g_log);
    g_log = log_ctx{};
    EXPECT_EQ(slurp(out), "(INF)  one\n(INF)  two\n");
    EXPECT_EQ(sorted(d.entries()), std::vector<std::string>{"piped"});

    // A command's name is refused even if the pipe bit is lost.
    FILE* tmp = tmpfile();
    g_log.fp = tmp;
    strcpy(g_log.name, "|cat");
    {
        StderrCapture err;
        EXPECT_EQ(log_rotate(&g_log), -1);
        EXPECT_EQ(err.text(), "log_rotate: not supported for pipe-based streams.\n");
    }
    EXPECT_EQ(g_log.fp, tmp);
    fclose(tmp);
    g_log = log_ctx{};
}

TEST_F(LogRota, NamelessLogHasNothingToRotate)
{
    FILE* tmp = tmpfile();
    g_log.fp = tmp;
    StderrCapture err;
    EXPECT_EQ(log_rotate(&g_log), 0);
    EXPECT_EQ(err.text(), "log_rotate: nothing to rotate.\n");
    EXPECT_EQ(g_log.fp, tmp);
    fclose(tmp);
    g_log = log_ctx{};
}

TEST_F(LogRota, NoRotationInsideASignalHandler)
{
    TempDir d("rota");
    const std::string path = d.at("app.log");
    open_log(&g_log, path);
    log_set_rota(&g_log, 100, 4, 0);
    g_sigctx = 1;
    const std::string a = write_line(150);
    EXPECT_EQ(sorted(d.entries()), std::vector<std::string>{"app.log"});
    g_sigctx = 0;
    const std::string b = write_line(20);
    EXPECT_EQ(slurp(stamped(path, g_fake_now)), a + b);
}

TEST_F(LogRota, AlertLogRotationIsRecordedInTheApplicationLog)
{
    TempDir d("rota");
    const std::string path = d.at("alert.log");
    open_log(&g_access_log, path, F_APPEND_OLD);
    log_set_rota(&g_access_log, 100, 4, 0);
    LogCapture cap(DEBUG_level, &g_log);
    g_log.rota = rotation_ctx{};

    std::string written;
    for (int i = 0; i < 2; ++i) {
        logbuf_reset();
        ASSERT_GT(logbuf_prepare(&g_access_log, MIN_level, "%s\n", std::string(59, 'x').c_str()), 0);
        written += logbuf_text();
        log_flush(&g_access_log, MIN_level);
    }
    EXPECT_EQ(slurp(stamped(path, g_fake_now)), written);
    EXPECT_EQ(slurp(path), "");
    EXPECT_EQ(g_access_log.total_out, 0u);
    EXPECT_EQ(cap.text(), rotated_line(stamped(path, g_fake_now), g_fake_now, 0));
}

TEST_F(LogRota, RenameRefusedInReadOnlyDirectoryGoesOnInTheSameFile)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to hand a directory to nobody; root itself ignores a read-only directory";
    TempDir d("rota");
    if (chown(d.path().c_str(), k_nobody, k_nobody) != 0)
        GTEST_SKIP() << "cannot hand " << d.path() << " to uid " << k_nobody << ": " << strerror(errno);
    const std::string path = d.at("app.log");
    FILE* err_file = tmpfile();
    ASSERT_NE(err_file, nullptr);

    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // The group first: once the user has changed, the group can't.
        if (setgroups(0, nullptr) != 0 || setgid(k_nobody) != 0 || setuid(k_nobody) != 0)
            _exit(77);
        dup2(fileno(err_file), STDERR_FILENO);
        open_log(&g_log, path);
        log_set_rota(&g_log, 300, 4, 0);
        EXPECT_EQ(chmod(d.path().c_str(), 0555), 0);

        const std::string cancel = "(ERR)  log_rotate: log_rotate: failed to rename [" + path + "] to [" +
                                   stamped(path, g_fake_now) +
                                   "], ERROR(13): Permission denied - rotation cancelled this time\n";
        std::string expect;
        expect += write_line(200);
        expect += write_line(200);  // crosses the limit: the rename is refused
        expect += cancel;
        EXPECT_EQ(slurp(path), expect);
        EXPECT_EQ(g_log.total_out, cancel.size());

        // The count starts again from the cancel line: one more try per limit written.
        const size_t room = 300 - cancel.size();
        expect += write_line(room - 1);
        EXPECT_EQ(slurp(path), expect);
        expect += write_line(10);
        expect += cancel;
        EXPECT_EQ(slurp(path), expect);
        expect += write_line(100);
        EXPECT_EQ(slurp(path), expect);
        EXPECT_EQ(g_log.rota.next_idx, 0);
        EXPECT_EQ(g_log.rota.tm[0], 0);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    if (WEXITSTATUS(status) == 77) {
        fclose(err_file);
        GTEST_SKIP() << "cannot become uid " << k_nobody << " in a child";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the child's failures are above";

    std::string err;
    char buf[4096];
    rewind(err_file);
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), err_file)) > 0)
        err.append(buf, n);
    fclose(err_file);
    const std::string stopped = "log_rotate: failed to rename [" + path + "] to [" + stamped(path, g_fake_now) +
                                "], ERROR(13): Permission denied - rotation is to be stopped\n";
    EXPECT_EQ(err, stopped + stopped);
    EXPECT_EQ(sorted(d.entries()), std::vector<std::string>{"app.log"});
    EXPECT_EQ(chmod(d.path().c_str(), 0755), 0);
}

TEST_F(LogRota, LimitBelowTheRotationLineRotatesOncePerLine)
{
    TempDir d("rota");
    const std::string path = d.at("app.log");
    open_log(&g_log, path);
    log_set_rota(&g_log, 10, 4, 0);
    const time_t t = g_fake_now;

    const std::string a = write_line(20);
    EXPECT_EQ(slurp(stamped(path, t)), a);
    const std::string fresh = rotated_line(stamped(path, t), t, 0);
    EXPECT_EQ(slurp(path), fresh);
    EXPECT_EQ(d.entries().size(), 2u);

    g_fake_now = t + 1;
    const std::string b = write_line(20);
    EXPECT_EQ(slurp(stamped(path, t + 1)), fresh + b);
    EXPECT_EQ(slurp(path), rotated_line(stamped(path, t + 1), t + 1, 1));
    EXPECT_EQ(d.entries().size(), 3u);
}

TEST_F(LogRota, ClosedDescriptorFailsTheRotationAndTheConsoleTakesOver)
{
    TempDir d("rota");
    const std::string path = d.at("app.log");
    open_log(&g_log, path);
    const std::string line = write_line(20);
    StderrCapture err;
    ASSERT_EQ(close(fileno(g_log.fp)), 0);
    EXPECT_EQ(log_rotate(&g_log), -1);
    EXPECT_EQ(err.text(), "log_rotate: failed to close [" + path + "], ERROR(9): Bad file descriptor\n");
    EXPECT_EQ(g_log.fp, stderr);
    EXPECT_EQ(slurp(path), line);
    EXPECT_EQ(sorted(d.entries()), std::vector<std::string>{"app.log"});
}

TEST_F(LogRota, ConfiguredSizeIsShiftedIn32BitSignedArithmetic)
{
    const auto cfg = [](int mb) {
        log_cfg lc{};
        lc.level = INFO_level;
        lc.max_size_mb = mb;
        lc.max_files = 4;
        return lc;
    };
    const struct {
        int mb;
        size_t bytes;
    } rows[] = {
        {0, 0},
        {1, 1u << 20},
        {2047, 2047u << 20},
        // Beyond 2047 the 32-bit value turns negative and is widened with
        // its sign: a size no log reaches.
        {2048, 0xFFFFFFFF80000000ull},
        {4095, 0xFFFFFFFFFFF00000ull},
        {4096, 0},
        {-1, 0xFFFFFFFFFFF00000ull},
    };
    for (const auto& r : rows) {
        log_ctx lg{};
        const log_cfg lc = cfg(r.mb);
        apply_log_config(&lg, &lc);
        EXPECT_EQ(log_rota_maxsize(&lg), r.bytes) << r.mb;
        EXPECT_EQ(log_rota_eod(&lg), 0) << r.mb;
    }

    TempDir d("rota");
    const std::string path = d.at("app.log");
    open_log(&g_log, path);

    // 2048 Mb: past 2 GiB written, still no rotation.
    const log_cfg big = cfg(2048);
    apply_log_config(&g_log, &big);
    g_log.total_out = (size_t)1 << 31;
    write_line(20);
    EXPECT_EQ(sorted(d.entries()), std::vector<std::string>{"app.log"});

    // 1 Mb: the line that reaches 1048576 bytes rotates, not one before.
    const log_cfg one = cfg(1);
    apply_log_config(&g_log, &one);
    std::string expect = slurp(path);
    g_log.total_out = expect.size();
    while (g_log.total_out + 1000 < 1048576)
        expect += write_line(1000);
    EXPECT_EQ(sorted(d.entries()), std::vector<std::string>{"app.log"});
    expect += write_line(1000);
    EXPECT_EQ(slurp(stamped(path, g_fake_now)), expect);
    EXPECT_EQ(slurp(path), rotated_line(stamped(path, g_fake_now), g_fake_now, 0));
}
