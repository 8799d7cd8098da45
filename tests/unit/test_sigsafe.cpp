// Logging from signal handlers: the formatter and the stamp a handler uses,
// the errno it leaves, and a storm of signals against a logging loop.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop

#include "kst.h"
#include "log.h"
#include "logcap.h"
#include "sigsafe.h"
#include "testfs.h"
#include "timeop.h"
#include "util.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

// The handler's formatter against the C library's for the same arguments.
template <typename... A>
void same_as_snprintf(const char* fmt, A... args)
{
    char want[256], got[256];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    const int wn = snprintf(want, sizeof(want), fmt, args...);
    const int gn = sigs_format(got, sizeof(got), fmt, args...);
#pragma GCC diagnostic pop
    EXPECT_EQ(gn, wn) << fmt;
    EXPECT_STREQ(got, want) << fmt;
}

}  // namespace

TEST(SigSafe, FormatsWhatTheHandlersAndTheLinePrefixUse)
{
    same_as_snprintf("Received QUIT-SIG(%d), will exit now.\n", 15);
    same_as_snprintf("%s: got the expected snapshot ALARM\n", "catch_alarm");
    same_as_snprintf("%04d-%02d-%02d %02d:%02d:%02d.%06ld%s", 2026, 1, 5, 3, 4, 9, 7L, " UTC");
    same_as_snprintf("%ld.%06ld", 1763168523L, 456L);
    same_as_snprintf("%lu  ", 4294967296UL);
    same_as_snprintf("%s  ", "(ERR)");
    same_as_snprintf("%d %d %i", INT_MIN, INT_MAX, -1);
    same_as_snprintf("%zu %zd %lld %llu", SIZE_MAX, (ssize_t)-5, LLONG_MIN, ULLONG_MAX);
    same_as_snprintf("%x %X %08x %-5d| %5s|%-4s|%.2s", 0xbeefu, 0xbeefu, 0x1fu, 42, "ab", "cd", "xyz");
    same_as_snprintf("%c%% %u %hhu %hd", 'q', 7u, 300, 70000);
    same_as_snprintf("%p %s", (void*)0x1234, "end");
}

TEST(SigSafe, FormatCutsLikeSnprintfAndRefusesWhatItDoesNotKnow)
{
    char b[8];
    EXPECT_EQ(sigs_format(b, sizeof(b), "%s-%d", "abcdef", 1234), 11);
    EXPECT_STREQ(b, "abcdef-");
    EXPECT_EQ(sigs_format(b, 0, "%d", 5), 1);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
    EXPECT_EQ(sigs_format(b, sizeof(b), "%f", 1.0), -1);
#pragma GCC diagnostic pop
}

TEST(SigSafe, WriteAllFinishesAShortWrite)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const std::string text(100000, 'x');  // more than a pipe takes at once
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(p[0]);
        _exit(sigs_write_all(p[1], text.data(), text.size()) == 0 ? 0 : 1);
    }
    close(p[1]);
    std::string got;
    char buf[4096];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof(buf))) > 0)
        got.append(buf, (size_t)n);
    close(p[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(got, text);
}

TEST(SigSafe, AStampInAHandlerReadsAsOneMadeOutside)
{
    glog_init("test");
    const uint32_t forms[] = {0, f_GMT_TIME, f_FMT_SECONDS, f_RAW_TIME, f_GMT_TIME | f_FMT_SECONDS};
    const time_t stamps[] = {time(nullptr), 0, 951782400 /* 2000-02-29 */, 4102444799 /* 2099-12-31 */};
    for (uint32_t f : forms) {
        for (time_t s : stamps) {
            const timespec t{s, 123456789};
            char outside[128], inside[128];
            const ssize_t a = mk_timestr(&t, f, outside, sizeof(outside));
            sig_frame sf;
            sigctx_enter(&sf);
            const ssize_t b = mk_timestr(&t, f, inside, sizeof(inside));
            sigctx_leave(&sf);
            ASSERT_GT(a, 0);
            EXPECT_EQ(b, a) << f << " " << s;
            EXPECT_STREQ(inside, outside) << f << " " << s;
        }
    }
}

TEST(SigSafe, AHandlersLineHasTheSameFormAsTheLoops)
{
    TempDir d("sigsafe");
    const std::string path = d.at("app.log");
    glog_init("test");
    log_ctx saved = g_log;
    int saved_ll = g_mod_ll[0];
    ASSERT_EQ(log_open_ex(&g_log, path.c_str(), 0), 0);
    g_log.time_format = f_GMT_TIME;
    g_log.pid = 4242;
    log_set_group(&g_log, 0);
    memcpy(g_log.group.sym8, "KSTI", 4);
    g_mod_ll[0] = DEBUG_level;
    LOG_AT(NORM_level, "Received snapshot-SIG(%d).\n", 12);
    sig_frame sf;
    sigctx_enter(&sf);
    LOG_AT(NORM_level, "Received snapshot-SIG(%d).\n", 12);
    sigctx_leave(&sf);
    fclose(g_log.fp);
    g_log = saved;
    g_mod_ll[0] = saved_ll;

    const std::string text = slurp(path);
    const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}\S* \S+ 4242  \(NRM\)  KSTI  Received snapshot-SIG\(12\)\.)");
    size_t nl = text.find('\n');
    ASSERT_NE(nl, std::string::npos);
    EXPECT_TRUE(std::regex_search(text.substr(0, nl), line)) << text;
    EXPECT_TRUE(std::regex_search(text.substr(nl + 1), line)) << text;
    // Same zone word, same layout: only the microseconds may differ.
    EXPECT_EQ(text.substr(0, 17), text.substr(nl + 1, 17));
}

TEST(SigSafe, AHandlerLeavesErrnoAsItFoundIt)
{
    LogCapture cap;
    g_ctx = ksti_ctx{};
    errno = EAGAIN;
    snapshot_on_sig(SIGUSR2);
    EXPECT_EQ(errno, EAGAIN);
    errno = EINTR;
    catch_alarm(SIGALRM);
    EXPECT_EQ(errno, EINTR);
    errno = ECONNRESET;
    on_sighup(SIGHUP);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(g_sigctx, 0);
    g_snapshot = 0;
    g_hup = 0;
    // A write that fails inside the handler does not show either.
    log_ctx saved = g_log;
    g_log.fp = stderr;
    g_log.mirror_fp = nullptr;
    const int null_fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(null_fd, 0);
    FILE* ro = fdopen(null_fd, "r");
    ASSERT_NE(ro, nullptr);
    g_log.fp = ro;  // a descriptor open for reading: the write fails with EBADF
    errno = ENOMEM;
    snapshot_on_sig(SIGUSR2);
    EXPECT_EQ(errno, ENOMEM);
    fclose(ro);
    g_log = saved;
    g_snapshot = 0;
}

TEST(SigSafe, AHandlerInsideAHandlerKeepsBothLinesWhole)
{
    LogCapture cap;
    sig_frame outer;
    sigctx_enter(&outer);
    logbuf_reset();
    logbuf_prepare(&g_log, NORM_level, "%s: outer\n", "first");
    // The second handler breaks in between the outer's composing and writing.
    snapshot_on_sig(SIGUSR2);
    EXPECT_EQ(g_sigctx, 1);
    log_flush(&g_log, NORM_level);
    sigctx_leave(&outer);
    EXPECT_EQ(g_sigctx, 0);
    g_snapshot = 0;
    EXPECT_EQ(cap.text(), "(NRM)  Received snapshot-SIG(" + std::to_string(SIGUSR2) + ").\n(NRM)  first: outer\n");
}

namespace {

volatile sig_atomic_t g_storm_done = 0;

// The child of the storm test: logs at DEBUG in a tight loop, with the tool's
// own snapshot and alarm handlers installed, for as long as it is told.
[[noreturn]] void logging_child(const std::string& path, int seconds, int ready_fd)
{
    glog_init("storm");
    log_default(&g_log, stderr);
    if (log_open_ex(&g_log, path.c_str(), 0) != 0)
        _exit(2);
    log_set_pid(&g_log, getpid());
    log_set_group(&g_log, 0);
    memcpy(g_log.group.sym8, "KSTI", 4);
    log_set_modules(&g_log, DEBUG_level);
    g_ctx = ksti_ctx{};
    g_ctx.waiting_alarm = true;  // so the alarm handler logs its second line too
    if (handle_sig(SIGUSR2, snapshot_on_sig) != 0)
        _exit(3);
    (void)signal(SIGALRM, catch_alarm);
    if (write(ready_fd, "r", 1) != 1)
        _exit(4);
    close(ready_fd);
    timespec start, now;
    set_clk_now(&start, CLOCK_MONOTONIC);
    unsigned long n = 0;
    do {
        LOG_AT(DEBUG_level, "%s: line %lu of the loop, a bit of text to make it longer\n", "storm", n++);
        set_clk_now(&now, CLOCK_MONOTONIC);
    } while (now.tv_sec - start.tv_sec < seconds);
    LOG_AT(NORM_level, "%s: done after %lu lines\n", "storm", n);
    _exit(0);
}

bool digits_at(const std::string& l, size_t from, size_t n)
{
    if (l.size() < from + n)
        return false;
    for (size_t i = from; i < from + n; ++i)
        if (l[i] < '0' || l[i] > '9')
            return false;
    return true;
}

// The message of a well-formed line of the storm's log, or "" for a line
// that is cut, mixed with another or not one of the known forms. Checked by
// hand: a regular expression per line takes longer than the storm itself.
std::string storm_line_body(const std::string& l)
{
    // "YYYY-MM-DD HH:MM:SS.uuuuuu ZONE PID  "
    if (!digits_at(l, 0, 4) || l[4] != '-' || !digits_at(l, 5, 2) || l[7] != '-' || !digits_at(l, 8, 2) ||
        l[10] != ' ' || !digits_at(l, 11, 2) || l[13] != ':' || !digits_at(l, 14, 2) || l[16] != ':' ||
        !digits_at(l, 17, 2) || l[19] != '.' || !digits_at(l, 20, 6) || l[26] != ' ')
        return "";
    size_t p = 27;
    if (!(l.size() > p && l[p] >= '0' && l[p] <= '9')) {  // the zone's word
        const size_t sp = l.find(' ', p);
        if (sp == std::string::npos)
            return "";
        p = sp + 1;
    }
    size_t q = p;
    while (q < l.size() && l[q] >= '0' && l[q] <= '9')
        ++q;
    if (q == p || l.compare(q, 2, "  ") != 0)
        return "";
    const std::string rest = l.substr(q + 2);
    static const std::string fixed[] = {
        "(NRM)  KSTI  Received snapshot-SIG(" + std::to_string(SIGUSR2) + ").",
        "(NRM)  KSTI  Received alarm-SIG(" + std::to_string(SIGALRM) + ").",
        "(INF)  KSTI  catch_alarm: got the expected snapshot ALARM",
    };
    for (const std::string& f : fixed)
        if (rest == f)
            return rest;
    const std::string loop_a = "(DBG)  KSTI  storm: line ";
    const std::string loop_b = " of the loop, a bit of text to make it longer";
    if (rest.compare(0, loop_a.size(), loop_a) == 0 && rest.size() > loop_a.size() + loop_b.size() &&
        rest.compare(rest.size() - loop_b.size(), loop_b.size(), loop_b) == 0 &&
        digits_at(rest, loop_a.size(), rest.size() - loop_a.size() - loop_b.size()))
        return rest;
    const std::string end_a = "(NRM)  KSTI  storm: done after ";
    if (rest.compare(0, end_a.size(), end_a) == 0 && rest.size() > end_a.size() + 6 &&
        rest.compare(rest.size() - 6, 6, " lines") == 0)
        return rest;
    return "";
}

}  // namespace

TEST(SigSafe, ALoopThatLogsSurvivesAStormOfSignals)
{
    TempDir d("storm");
    const std::string path = d.at("storm.log");
    constexpr int kSeconds = 20;
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(ready[0]);
        logging_child(path, kSeconds, ready[1]);
    }
    close(ready[1]);
    // The storm begins once the child's handlers are in place.
    char r = 0;
    ASSERT_EQ(read(ready[0], &r, 1), 1);
    close(ready[0]);

    // The second process: SIGUSR2 and SIGALRM in turn, one every 50 µs.
    const pid_t sender = fork();
    ASSERT_GE(sender, 0);
    if (sender == 0) {
        timespec start, now;
        set_clk_now(&start, CLOCK_MONOTONIC);
        const timespec gap{0, 50000};
        int i = 0;
        do {
            if (kill(child, (i++ & 1) ? SIGALRM : SIGUSR2) != 0)
                _exit(0);  // the child is gone
            nanosleep(&gap, nullptr);
            set_clk_now(&now, CLOCK_MONOTONIC);
        } while (now.tv_sec - start.tv_sec < kSeconds);
        _exit(0);
    }

    int status = 0;
    pid_t done = 0;
    for (int i = 0; i < 600 && done == 0; ++i) {  // 60 s at most
        done = waitpid(child, &status, WNOHANG);
        if (done == 0)
            usleep(100000);
    }
    if (done == 0)
        kill(child, SIGKILL);
    kill(sender, SIGKILL);
    waitpid(sender, nullptr, 0);
    if (done == 0)
        waitpid(child, &status, 0);
    ASSERT_NE(done, 0) << "the logging child hung";
    ASSERT_TRUE(WIFEXITED(status)) << "died of signal " << WTERMSIG(status);
    ASSERT_EQ(WEXITSTATUS(status), 0);

    const std::string text = slurp(path);
    ASSERT_FALSE(text.empty());
    ASSERT_EQ(text.back(), '\n');
    size_t pos = 0, lines = 0, handler_lines = 0;
    while (pos < text.size()) {
        const size_t nl = text.find('\n', pos);
        const std::string l = text.substr(pos, nl - pos);
        pos = nl + 1;
        ++lines;
        const std::string rest = storm_line_body(l);
        ASSERT_FALSE(rest.empty()) << "line " << lines << ": " << l;
        if (rest.find("Received") != std::string::npos)
            ++handler_lines;
    }
    EXPECT_GT(handler_lines, 100u);
    EXPECT_NE(text.find("storm: done after"), std::string::npos);
}
