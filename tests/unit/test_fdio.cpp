// Restartable single reads and writes: one call each, interruptions ridden
// over unless the program is stopping.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include "fdio.h"
#include "logcap.h"
#include "strf.h"
#include "testpipe.h"
#include "testsig.h"
#include "util.h"

namespace {

// What the signal handler does on its third tick.
enum TickAction { TICK_NOTHING, TICK_FEED, TICK_DRAIN, TICK_QUIT };

volatile sig_atomic_t g_ticks = 0;
volatile sig_atomic_t g_action = TICK_NOTHING;
volatile sig_atomic_t g_tick_fd = -1;

void on_tick(int)
{
    g_ticks = g_ticks + 1;
    if (g_ticks == 3) {
        char buf[4096];
        switch (g_action) {
        case TICK_FEED:
            (void)!write(g_tick_fd, "z", 1);
            break;
        case TICK_DRAIN:
            while (read(g_tick_fd, buf, sizeof(buf)) > 0) {
            }
            break;
        case TICK_QUIT:
            g_quit = 1;
            break;
        default:
            break;
        }
    }
    // Should a restart never succeed, stop the loop rather than hang.
    if (g_ticks >= 200)
        g_quit = 1;
}

// Resets the tick state and gives the handler: the state has to be in place
// before the timer starts.
sighandler_t arm_ticks(TickAction action, int fd)
{
    g_ticks = 0;
    g_action = action;
    g_tick_fd = fd;
    g_quit = 0;
    return on_tick;
}

// SIGALRM every 20 ms to on_tick, so blocking calls are broken off with EINTR
// again and again; the third tick does the action.
class Ticker {
public:
    Ticker(TickAction action, int fd) : alarms_(arm_ticks(action, fd)) {}
    ~Ticker()
    {
        alarms_.stop();
        g_quit = 0;
    }

private:
    AlarmTicker alarms_;
};

// What a call made under the ticker gave back, and how many ticks it took.
struct Ticked {
    ssize_t rc;
    int err;
    int ticks;
};

template <class Call>
Ticked under_ticks(TickAction action, int fd, Call call)
{
    Ticker t(action, fd);
    const ssize_t rc = call();
    const int err = errno;
    return Ticked{rc, err, g_ticks};
}

// The call gave up with EINTR once the third tick said the program is
// stopping, long before the ticker's own stop at 200.
void expect_stopped(const Ticked& r)
{
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.err, EINTR);
    EXPECT_GE(r.ticks, 3);
    EXPECT_LT(r.ticks, 200);
}

}  // namespace

// ---- nread ----

TEST(Nread, CountZeroMakesNoCall)
{
    LogCapture cap;
    char buf[4];
    errno = EDOM;
    EXPECT_EQ(nread(-1, buf, 0, FDIO_VERBOSE), 0);
    EXPECT_EQ(errno, EDOM);  // a read of -1 would have said EBADF
    EXPECT_EQ(cap.text(), "");
}

TEST(Nread, EndOfFileIsZero)
{
    Pipe p;
    p.close_wr();
    char buf[4];
    LogCapture cap;
    EXPECT_EQ(nread(p.rd(), buf, sizeof(buf), 0), 0);
    EXPECT_EQ(cap.text(), "");
}

TEST(Nread, AShortReadIsReturnedAsItIs)
{
    Pipe p;
    ASSERT_EQ(write(p.wr(), "abc", 3), 3);
    char buf[100];
    EXPECT_EQ(nread(p.rd(), buf, sizeof(buf), 0), 3);
    EXPECT_EQ(std::string(buf, 3), "abc");
}

TEST(Nread, FailureIsNegativeWithTheWrappersLine)
{
    char buf[10];
    LogCapture cap;
    EXPECT_EQ(nread(-1, buf, sizeof(buf), 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(cap.text(),
              strf("(ERR)  nread: read(-1, %p, 10) ERROR(%d): %s\n", (void*)buf, EBADF, strerror(EBADF)));
}

TEST(Nread, WouldBlockIsReturnedNotRetried)
{
    Pipe p;
    ASSERT_EQ(fcntl(p.rd(), F_SETFL, O_NONBLOCK), 0);
    char buf[10];
    LogCapture cap;
    EXPECT_EQ(nread(p.rd(), buf, sizeof(buf), 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(cap.text(), "");
}

TEST(Nread, AnInterruptedReadStartsOver)
{
    Pipe p;
    char buf[10] = {};
    LogCapture cap;
    const Ticked r = under_ticks(TICK_FEED, p.wr(), [&] { return nread(p.rd(), buf, sizeof(buf), 0); });
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(buf[0], 'z');
    EXPECT_GE(r.ticks, 3);
    EXPECT_EQ(cap.text(), "");
}

TEST(Nread, AnInterruptedReadEndsWhenTheProgramIsStopping)
{
    Pipe p;
    char buf[10];
    LogCapture cap;
    expect_stopped(under_ticks(TICK_QUIT, -1, [&] { return nread(p.rd(), buf, sizeof(buf), 0); }));
    EXPECT_EQ(cap.text(), "");
}

TEST(Nread, VerboseReportsEachInterruption)
{
    Pipe p;
    char buf[10];
    LogCapture cap;
    const Ticked r = under_ticks(TICK_QUIT, -1, [&] { return nread(p.rd(), buf, sizeof(buf), FDIO_VERBOSE); });
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.err, EINTR);
    // One line per interruption: the ticks before the stop all broke a read,
    // unless one landed while a line was being written.
    const std::string line =
        strf("(ERR)  nread: read(%d, %p, 10) ERROR(%d): %s\n", p.rd(), (void*)buf, EINTR, strerror(EINTR));
    std::string text = cap.text();
    int lines = 0;
    while (text.compare(0, line.size(), line) == 0) {
        text.erase(0, line.size());
        ++lines;
    }
    EXPECT_EQ(text, "");
    EXPECT_GE(lines, 1);
    EXPECT_LE(lines, 3);
}

// ---- nwrite ----

TEST(Nwrite, CountZeroMakesNoCall)
{
    LogCapture cap;
    errno = EDOM;
    EXPECT_EQ(nwrite(-1, "x", 0, FDIO_VERBOSE), 0);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(cap.text(), "");
}

TEST(Nwrite, APartialWriteIsReturnedAsItIs)
{
    Pipe p;
    ASSERT_EQ(fcntl(p.wr(), F_SETFL, O_NONBLOCK), 0);
    const std::string big(1 << 20, 'w');
    const ssize_t rc = nwrite(p.wr(), big.data(), big.size(), 0);
    EXPECT_GT(rc, 0);
    EXPECT_LT(rc, (ssize_t)big.size());
}

TEST(Nwrite, AllBytesOfAnOrdinaryWrite)
{
    Pipe p;
    LogCapture cap;
    EXPECT_EQ(nwrite(p.wr(), "hello", 5, 0), 5);
    char buf[8];
    EXPECT_EQ(read(p.rd(), buf, sizeof(buf)), 5);
    EXPECT_EQ(std::string(buf, 5), "hello");
    EXPECT_EQ(cap.text(), "");
}

TEST(Nwrite, ABrokenPipeIsReturnedAsItIs)
{
    SignalGuard no_sigpipe(SIGPIPE, SIG_IGN);
    Pipe p;
    p.close_rd();
    LogCapture cap;
    EXPECT_EQ(nwrite(p.wr(), "abc", 3, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(cap.text(), "");
    const char* buf = "abc";
    EXPECT_EQ(nwrite(p.wr(), buf, 3, FDIO_VERBOSE), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(cap.text(), strf("(ERR)  nwrite: write(%d, %p, 3) ERROR(%d): %s\n", p.wr(), (const void*)buf,
                               EPIPE, strerror(EPIPE)));
}

TEST(Nwrite, AnInterruptedWriteStartsOver)
{
    Pipe p;
    p.fill();
    // The handler drains without blocking.
    ASSERT_EQ(fcntl(p.rd(), F_SETFL, O_NONBLOCK), 0);
    LogCapture cap;
    const Ticked r = under_ticks(TICK_DRAIN, p.rd(), [&] { return nwrite(p.wr(), "q", 1, 0); });
    EXPECT_EQ(r.rc, 1);
    EXPECT_GE(r.ticks, 3);
    EXPECT_EQ(cap.text(), "");
}

TEST(Nwrite, AnInterruptedWriteEndsWhenTheProgramIsStopping)
{
    Pipe p;
    p.fill();
    LogCapture cap;
    expect_stopped(under_ticks(TICK_QUIT, -1, [&] { return nwrite(p.wr(), "q", 1, 0); }));
    EXPECT_EQ(cap.text(), "");
}
