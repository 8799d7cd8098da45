// The logger: line layout, level filtering, destinations, and its own failures.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <fstream>
// g++ 12 with the sanitizers sees an uninitialised member inside <regex>
// where there is none.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#include <string>

#include "log.h"
#include "logcap.h"
#include "testfs.h"
#include "timeop.h"
#include "util.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

int g_evaluated = 0;
int side_effect()
{
    ++g_evaluated;
    return 7;
}

}  // namespace

TEST(Log, LineHasTagThenTwoBlanks)
{
    LogCapture cap;
    LOG_AT(ERR_level, "%s: failed %d\n", "unit", 3);
    EXPECT_EQ(cap.text(), "(ERR)  unit: failed 3\n");
}

TEST(Log, EveryLevelHasItsTag)
{
    LogCapture cap(SECTION_level);
    const int levels[] = {PANIC_level, ERR_level, CRIT_level, WARN_level, NORM_level,
                          INFO_level,  DEBUG_level, SECTION_level, 5, -126};
    for (int lv : levels) {
        logbuf_reset();
        logbuf_prepare(&g_log, lv, "x\n");
        log_flush(&g_log, lv);
    }
    EXPECT_EQ(cap.text(), "(PNC)  x\n(ERR)  x\n(CRI)  x\n(WRN)  x\n(NRM)  x\n(INF)  x\n(DBG)  x\n(SCT)  x\n"
                          "( ? )  x\n( ? )  x\n");
}

TEST(Log, LinesWithoutLevelHaveNoTag)
{
    LogCapture cap(DEBUG_level, &g_access_log);
    logbuf_reset();
    ASSERT_EQ(logbuf_prepare(&g_access_log, MIN_level, "ALERT %d\n", 1), 8);
    log_flush(&g_access_log, MIN_level);
    EXPECT_EQ(cap.text(), "ALERT 1\n");
}

TEST(Log, LevelIsTestedBeforeArgumentsAreEvaluated)
{
    LogCapture cap(NORM_level);
    g_evaluated = 0;
    LOG_AT(DEBUG_level, "%s: %d\n", "quiet", side_effect());
    EXPECT_EQ(g_evaluated, 0);
    EXPECT_EQ(cap.text(), "");
    LOG_AT(NORM_level, "%s: %d\n", "loud", side_effect());
    EXPECT_EQ(g_evaluated, 1);
    EXPECT_EQ(cap.text(), "(NRM)  loud: 7\n");
}

TEST(Log, EachUnitTestsItsOwnModule)
{
    LogCapture cap(NORM_level);
    g_mod_ll[LLMOD_SYSWRAP] = DEBUG_level;
    LOG_AT(DEBUG_level, "%s\n", "default module stays quiet");
    EXPECT_EQ(cap.text(), "");
}

TEST(Log, PidAndGroupFollowTheTimeWithTwoBlanks)
{
    LogCapture cap;
    g_log.time_format = 0;
    g_log.pid = 1234;
    n64_tag grp{};
    memcpy(grp.sym8, "KSTI", 4);
    log_set_group(&g_log, grp.num64);
    LOG_AT(ERR_level, "%s: boom\n", "mmr_create");
    const std::string line = cap.text();
    const std::string zone = get_timezone(false);
    std::regex layout("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6}(.*) 1234  \\(ERR\\)  KSTI  mmr_create: boom\n$");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, layout)) << line;
    EXPECT_EQ(m[1].str(), zone);
}

TEST(Log, RawTimeIsSecondsAndMicroseconds)
{
    LogCapture cap;
    g_log.time_format = f_RAW_TIME;
    g_log.pid = 1234;
    LOG_AT(ERR_level, "%s: x\n", "f");
    EXPECT_TRUE(std::regex_match(cap.text(), std::regex("^\\d+\\.\\d{6} 1234  \\(ERR\\)  f: x\n$"))) << cap.text();
}

TEST(Log, NoTimeDropsThePidWithTheTime)
{
    LogCapture cap;
    g_log.time_format = f_NO_TIME;
    g_log.pid = 1234;
    LOG_AT(WARN_level, "%s: x\n", "f");
    EXPECT_EQ(cap.text(), "(WRN)  f: x\n");
}

TEST(Log, UnsupportedTimerGoesToStderr)
{
    LogCapture cap;
    g_log.time_format = 2;
    testing::internal::CaptureStderr();
    logbuf_reset();
    EXPECT_EQ(logbuf_prepare(&g_log, ERR_level, "x\n"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "flags2clock: unsupported timer value: 2\n");
    EXPECT_TRUE(logbuf_empty());
}

TEST(Log, LineOf2047BytesIsCutReportedAndStillWritten)
{
    LogCapture cap;
    const std::string msg(2047, 'x');
    testing::internal::CaptureStderr();
    logbuf_reset();
    EXPECT_EQ(logbuf_prepare(&g_log, MIN_level, "%s", msg.c_str()), -1);
    log_flush(&g_log, MIN_level);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.rfind("fprintf/vfprintf: ", 0), 0u) << err;
    EXPECT_EQ(cap.text(), std::string(2046, 'x'));
}

TEST(Log, LineOf2046BytesFits)
{
    LogCapture cap;
    const std::string msg(2046, 'y');
    logbuf_reset();
    EXPECT_EQ(logbuf_prepare(&g_log, MIN_level, "%s", msg.c_str()), 2046);
    log_flush(&g_log, MIN_level);
    EXPECT_EQ(cap.text(), msg);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
TEST(Log, EmptyFormatIsReportedAndThePrefixStillWritten)
{
    LogCapture cap;
    testing::internal::CaptureStderr();
    logbuf_reset();
    EXPECT_EQ(logbuf_prepare(&g_log, ERR_level, ""), -1);
    log_flush(&g_log, ERR_level);
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("fprintf/vfprintf: ", 0), 0u);
    EXPECT_EQ(cap.text(), "(ERR)  ");
}
#pragma GCC diagnostic pop

TEST(Log, FlushOfEmptyBufferTouchesNothing)
{
    LogCapture cap;
    g_log.total_out = 42;
    logbuf_reset();
    log_flush(&g_log, ERR_level);
    EXPECT_EQ(g_log.total_out, 42u);
    EXPECT_EQ(cap.text(), "");
}

TEST(Log, FlushCountsBytesOut)
{
    LogCapture cap;
    LOG_AT(ERR_level, "%s\n", "abc");
    EXPECT_EQ(g_log.total_out, strlen("(ERR)  abc\n"));
}

TEST(Log, MirrorOnSameDescriptorGetsNoSecondCopy)
{
    LogCapture cap;
    g_log.mirror_fp = cap.fp();
    LOG_AT(ERR_level, "%s\n", "once");
    EXPECT_EQ(cap.text(), "(ERR)  once\n");
}

TEST(Log, MirrorOnAnotherDescriptorGetsTheLine)
{
    LogCapture cap;
    FILE* mirror = tmpfile();
    log_mirror(&g_log, mirror);
    EXPECT_EQ(log_mirror_fp(&g_log), mirror);
    LOG_AT(ERR_level, "%s\n", "twice");
    fflush(mirror);
    rewind(mirror);
    char buf[64] = {};
    ASSERT_NE(fgets(buf, sizeof(buf), mirror), nullptr);
    EXPECT_STREQ(buf, "(ERR)  twice\n");
    EXPECT_EQ(cap.text(), "(ERR)  twice\n");
    g_log.mirror_fp = nullptr;
    fclose(mirror);
}

TEST(Log, MatchLogLevelWords)
{
    int lv = 99;
    EXPECT_EQ(match_log_level("panic", &lv), -1);
    EXPECT_EQ(match_log_level("PANIC", &lv), -1);
    EXPECT_EQ(match_log_level("Panic", &lv), -1);
    EXPECT_EQ(match_log_level("ctitical", &lv), -1);
    EXPECT_EQ(lv, 99);
    EXPECT_EQ(match_log_level("Debug", &lv), 0);
    EXPECT_EQ(lv, DEBUG_level);
    const std::pair<const char*, int> words[] = {
        {"err", ERR_level},   {"ERROR", ERR_level},     {"crit", CRIT_level}, {"Critical", CRIT_level},
        {"warn", WARN_level}, {"warning", WARN_level},  {"norm", NORM_level}, {"normal", NORM_level},
        {"info", INFO_level}, {"dbg", DEBUG_level},     {"section", SECTION_level}, {"sect", SECTION_level},
    };
    for (const auto& [word, level] : words) {
        ASSERT_EQ(match_log_level(word, &lv), 0) << word;
        EXPECT_EQ(lv, level) << word;
    }
    EXPECT_EQ(match_log_level("verbose", &lv), -1);
}

TEST(Log, LevelNames)
{
    const std::pair<int, const char*> names[] = {
        {PANIC_level, "panic"}, {ERR_level, "error"},  {CRIT_level, "ctitical"},   {WARN_level, "warning"},
        {NORM_level, "normal"}, {INFO_level, "info"},  {DEBUG_level, "debug"},     {SECTION_level, "section"},
        {MIN_level, "??"},      {17, "??"},
    };
    for (const auto& [level, name] : names)
        EXPECT_STREQ(log_level_str(level), name) << level;
}

TEST(Log, ReadLevelEnv)
{
    unsetenv("KST_TEST_LEVEL");
    EXPECT_EQ(read_level_env("KST_TEST_LEVEL", 5), 5);
    setenv("KST_TEST_LEVEL", "0", 1);
    EXPECT_EQ(read_level_env("KST_TEST_LEVEL", 5), 0);
    setenv("KST_TEST_LEVEL", "debug", 1);
    EXPECT_EQ(read_level_env("KST_TEST_LEVEL", 5), 5);
    setenv("KST_TEST_LEVEL", "00", 1);  // zero counts only when written as "0"
    EXPECT_EQ(read_level_env("KST_TEST_LEVEL", 5), 5);
    setenv("KST_TEST_LEVEL", "-3", 1);
    EXPECT_EQ(read_level_env("KST_TEST_LEVEL", 5), -3);
    unsetenv("KST_TEST_LEVEL");
}

TEST(Log, ModuleLevelsPushAndPopOnce)
{
    LogCapture cap;
    log_set_modules(&g_log, INFO_level);
    log_push_mlevels();
    log_set_modules(&g_log, ERR_level);
    log_push_mlevels();  // a second push keeps the first copy
    log_pop_mlevels();
    EXPECT_EQ(g_mod_ll[0], INFO_level);
    EXPECT_EQ(g_mod_ll[LL_MAX_MODULES - 1], INFO_level);
    g_mod_ll[0] = WARN_level;
    log_pop_mlevels();  // nothing pushed: nothing happens
    EXPECT_EQ(g_mod_ll[0], WARN_level);
}

TEST(Log, DefaultOnAppLogSetsSectionLevelsOnce)
{
    log_ctx saved = g_log;
    g_log.llst.sec_ll_set = 0;
    g_sec_ll[3] = 0;
    log_default(&g_log, stderr);
    EXPECT_EQ(g_sec_ll[3], SECTION_level);
    g_sec_ll[3] = 1;
    log_default(&g_log, stderr);
    EXPECT_EQ(g_sec_ll[3], 1);
    g_log = saved;
}

TEST(Log, OpenMovesTheOldLogAsideUnderItsMtime)
{
    glog_init("test");
    TempDir d("logtest");
    const std::string path = d.at("app.log");
    { std::ofstream(path) << "old\n"; }
    timespec times[2] = {{1700000000, 0}, {1700000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);

    log_ctx lg{};
    ASSERT_EQ(log_open_ex(&lg, path.c_str(), 0), 0);
    EXPECT_EQ(slurp(path + ".1700000000"), "old\n");
    EXPECT_EQ(lg.total_out, 0u);
    EXPECT_STREQ(lg.name, path.c_str());
    log_close(&lg);
    EXPECT_EQ(lg.fp, stderr);
    EXPECT_EQ(d.remove(), 0);
}

TEST(Log, AppendOldKeepsTheLogAndCountsItsSize)
{
    glog_init("test");
    TempDir d("logtest");
    const std::string path = d.at("alert.log");
    { std::ofstream(path) << "0123456789"; }
    log_ctx lg{};
    ASSERT_EQ(log_open_ex(&lg, path.c_str(), F_APPEND_OLD), 0);
    EXPECT_EQ(lg.total_out, 10u);
    lg.time_format = f_NO_TIME;
    logbuf_reset();
    logbuf_prepare(&lg, MIN_level, "line\n");
    log_flush(&lg, MIN_level);
    EXPECT_EQ(lg.total_out, 15u);
    log_close(&lg);
    EXPECT_EQ(slurp(path), "0123456789line\n");
    EXPECT_EQ(d.remove(), 0);
}

TEST(Log, PathOf128BytesOpensAndKeeps127)
{
    glog_init("test");
    TempDir d("logtest");
    std::string path = d.path() + "/";
    path += std::string(128 - path.size(), 'p');
    ASSERT_EQ(path.size(), 128u);
    log_ctx lg{};
    ASSERT_EQ(log_open_ex(&lg, path.c_str(), F_APPEND_OLD), 0);
    EXPECT_EQ(std::string(lg.name), path.substr(0, 127));
    log_close(&lg);
    EXPECT_EQ(d.remove(), 0);
}

TEST(Log, PathOf129BytesIsRefused)
{
    glog_init("test");
    const std::string path = "/tmp/" + std::string(124, 'q');
    ASSERT_EQ(path.size(), 129u);
    log_ctx lg{};
    testing::internal::CaptureStderr();
    EXPECT_EQ(log_open_ex(&lg, path.c_str(), F_APPEND_OLD), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Log pathname/command is too long, 128 bytes allowed\n");
    EXPECT_EQ(access(path.c_str(), F_OK), -1);
}

TEST(Log, FailedOpenGoesToStderr)
{
    glog_init("test");
    log_ctx lg{};
    testing::internal::CaptureStderr();
    EXPECT_EQ(log_open_ex(&lg, "/nonexistent-dir/kst.log", 0), -1);
    const std::string expect = "do_open: uid/gig=" + std::to_string(geteuid()) + "/" + std::to_string(getegid()) +
                               " fopen(/nonexistent-dir/kst.log) ERROR(2): No such file or directory\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), expect);
}

TEST(Log, PipeLogReachesTheCommand)
{
    glog_init("test");
    TempDir d("logtest");
    const std::string out = d.at("piped");
    const std::string cmd = "cat > " + out;
    log_ctx lg{};
    ASSERT_EQ(log_popen(&lg, cmd.c_str()), 0);
    EXPECT_TRUE(lg.is_pipe);
    lg.time_format = f_NO_TIME;
    logbuf_reset();
    logbuf_prepare(&lg, INFO_level, "%s: piped\n", "t");
    log_flush(&lg, INFO_level);
    log_close(&lg);
    EXPECT_EQ(slurp(out), "(INF)  t: piped\n");
    EXPECT_EQ(d.remove(), 0);
}

TEST(Log, CloseOnStandardStreamDoesNothing)
{
    log_ctx lg{};
    lg.fp = stderr;
    lg.use_syslog = 1;
    log_close(&lg);
    EXPECT_EQ(lg.fp, stderr);
    EXPECT_EQ(lg.use_syslog, 1u);
}

TEST(Log, SnprintfBtrace)
{
    char buf[8];
    EXPECT_EQ(snprintf_btrace(buf, sizeof(buf), nullptr), 0);
    EXPECT_EQ(snprintf_btrace(buf, sizeof(buf), "%s", "abc"), 0);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(snprintf_btrace(buf, sizeof(buf), "%s", "12345678"), -1);
    char bt[16] = "keep";
    EXPECT_EQ(btrace_to_buf(bt, sizeof(bt)), 0);
    EXPECT_STREQ(bt, "keep");
}

TEST(LogDeathTest, LogAssertLogsAtPanicFlushesAndAborts)
{
    EXPECT_DEATH(
        {
            glog_init("test");
            g_log.fp = stderr;
            g_log.time_format = f_NO_TIME;
            g_log.pid = 0;
            g_log.group.num64 = 0;
            LOG_ASSERT(1 == 2);
        },
        "\\(PNC\\)  ASSERT at:\n==\nAssertion failed: \\(0\\), function TestBody, file tests/unit/test_log.cpp, line [0-9]+\\.");
}

TEST(LogDeathTest, GroupMustEndInZero)
{
    EXPECT_DEATH(
        {
            LogCapture cap;
            n64_tag grp;
            memcpy(grp.sym8, "ABCDEFGH", 8);
            g_log.group = grp;
            logbuf_reset();
            logbuf_prepare(&g_log, ERR_level, "x\n");
        },
        "Assertion failed: \\(0 == log->group.sym8\\[sizeof\\(log->group.sym8\\)-1\\]\\)");
}

// Syslog needs /dev/log: the test gives itself one in a private mount
// namespace, so the machine's own /dev is never touched.
TEST(Log, NegativeLevelsGoToSyslogOthersDoNot)
{
    int sync_pipe[2];
    ASSERT_EQ(pipe(sync_pipe), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(sync_pipe[0]);
        auto fail = [&](char code) {
            (void)!write(sync_pipe[1], &code, 1);
            _exit(0);
        };
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
            fail('S');
        int s = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        strcpy(sa.sun_path, "/dev/log");
        if (s < 0 || bind(s, (sockaddr*)&sa, sizeof(sa)) != 0)
            fail('S');
        timeval tv{2, 0};
        setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));

        glog_init("test");
        g_log.fp = tmpfile();
        g_log.time_format = f_NO_TIME;
        g_log.pid = 0;
        g_mod_ll[0] = DEBUG_level;
        glog_enable_syslog("kst-test");
        LOG_AT(NORM_level, "%s\n", "normal-not-sent");
        LOG_AT(WARN_level, "%s\n", "warn-sent");
        log_close(&g_log);  // a log on a file: closes the syslog connection too
        char buf[512] = {};
        ssize_t n = recv(s, buf, sizeof(buf) - 1, 0);
        if (n <= 0)
            fail('N');
        // Priority: LOG_LOCAL0 (16 << 3 = 128) + warning (4).
        if (strncmp(buf, "<132>", 5) != 0 || strstr(buf, "kst-test[") == nullptr ||
            strstr(buf, "(WRN)  warn-sent") == nullptr)
            fail('W');
        n = recv(s, buf, sizeof(buf) - 1, MSG_DONTWAIT);
        if (n > 0)
            fail('2');
        fail('K');
    }
    close(sync_pipe[1]);
    char code = 0;
    ASSERT_EQ(read(sync_pipe[0], &code, 1), 1);
    close(sync_pipe[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    if (code == 'S')
        GTEST_SKIP() << "no private mount namespace here (unshare/mount refused): cannot provide /dev/log";
    EXPECT_EQ(code, 'K') << "N: nothing received, W: wrong line, 2: a second line was sent";
}

namespace {

std::string lard_text(lard_t lh)
{
    const lard_meta* m = lard_get_meta(lh);
    return std::string(lard_data(lh) + m->pld_start, m->pld_len);
}

std::string lard_name(const char* what)
{
    return "kst_test_log_lard." + std::to_string(getpid()) + "." + what;
}

}  // namespace

TEST(LogLard, NoRingByDefault)
{
    LogCapture cap;
    EXPECT_FALSE(lard_enabled(&g_log));
    EXPECT_EQ(log_set_lard(&g_log, nullptr), nullptr);
}

TEST(LogLard, EveryLevelReachesTheRingTheFileOnlyItsOwn)
{
    LogCapture cap(NORM_level);
    lard_t lh = lard_create(lard_name("levels").c_str(), 1);
    ASSERT_NE(lh, nullptr);
    EXPECT_EQ(log_set_lard(&g_log, lh), nullptr);
    EXPECT_TRUE(lard_enabled(&g_log));
    g_evaluated = 0;
    LOG_AT(DEBUG_level, "%s: %d\n", "quiet", side_effect());
    EXPECT_EQ(g_evaluated, 1);  // composed for the ring, once
    LOG_AT(NORM_level, "%s: %d\n", "loud", side_effect());
    EXPECT_EQ(g_evaluated, 2);  // the file shares the ring's composition
    EXPECT_EQ(cap.text(), "(NRM)  loud: 7\n");
    EXPECT_EQ(lard_text(lh), "(DBG)  quiet: 7\n(NRM)  loud: 7\n");
    EXPECT_EQ(lard_get_ctemp(lh), 0);
    EXPECT_EQ(log_set_lard(&g_log, nullptr), lh);
    LOG_AT(NORM_level, "%s\n", "after");
    EXPECT_EQ(lard_text(lh), "(DBG)  quiet: 7\n(NRM)  loud: 7\n");
    lard_destroy(lh);
}

TEST(LogLard, SeriousLinesWarmTheRing)
{
    LogCapture cap(NORM_level);
    lard_t lh = lard_create(lard_name("warm").c_str(), 1);
    ASSERT_NE(lh, nullptr);
    log_set_lard(&g_log, lh);
    LOG_AT(WARN_level, "w\n");
    EXPECT_EQ(lard_get_ctemp(lh), 1);
    LOG_AT(CRIT_level, "c\n");
    LOG_AT(ERR_level, "e\n");
    LOG_AT(PANIC_level, "p\n");
    EXPECT_EQ(lard_get_ctemp(lh), 1 + 2 + 3 + 4);
    EXPECT_EQ(lard_get_meta(lh)->sns.idx, 8u);  // a slot for the write, one for the weight
    LOG_AT(INFO_level, "i\n");
    EXPECT_EQ(lard_get_ctemp(lh), 10);
    // The alert log's lines never reach a ring.
    log_set_lard(&g_log, nullptr);
    lard_destroy(lh);
}

TEST(LogLard, CloseOfAFileLogDestroysTheRingAStandardStreamKeepsIt)
{
    LogCapture cap(NORM_level);
    const std::string name = lard_name("close");
    lard_t lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    log_ctx lg{};
    lg.fp = stderr;
    log_set_lard(&lg, lh);
    log_close(&lg);
    EXPECT_EQ(lg.lh, lh);
    struct stat st;
    EXPECT_EQ(stat(("/dev/shm/" + name + ".meta").c_str(), &st), 0);
    lg.fp = tmpfile();
    log_close(&lg);
    EXPECT_EQ(lg.lh, nullptr);
    EXPECT_NE(stat(("/dev/shm/" + name + ".meta").c_str(), &st), 0);
    EXPECT_NE(stat(("/dev/shm/" + name + ".dat").c_str(), &st), 0);
}

TEST(LogLardDeathTest, AnAssertionReachesTheRingAtAnyLevel)
{
    const std::string name = lard_name("assert");
    EXPECT_DEATH(
        {
            LogCapture cap(MIN_level);
            lard_t lh = lard_create(name.c_str(), 1);
            log_set_lard(&g_log, lh);
            LOG_ASSERT(1 == 2);
        },
        "Assertion failed");
    lard_t rd = lard_open(name.c_str());
    ASSERT_NE(rd, nullptr);
    EXPECT_EQ(lard_text(rd), "(PNC)  ASSERT at:\n==\n");
    EXPECT_EQ(lard_get_ctemp(rd), 4);
    bool crashed = false;
    EXPECT_FALSE(lard_is_active(rd, &crashed));
    EXPECT_TRUE(crashed);
    lard_destroy(rd);
}
