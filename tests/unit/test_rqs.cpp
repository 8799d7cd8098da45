// The event loop on real descriptors: pipes, socket pairs, TCP on
// loopback, a regular file appended to, renamed and deleted while watched;
// the order of a pass, its lines, and how it ends.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "logcap.h"
#include "psensor.h"
#include "rqs.h"
#include "strf.h"
#include "testfs.h"
#include "util.h"

namespace {

struct seen_event {
    std::string what;
    int fd;
    uint32_t flags;
    void* udata;
    long data;
};

struct Recorder {
    std::vector<seen_event> events;
    int passes = 0;
    int post = 0;
    int idle_after = 1;  // on_idle ends the loop at this pass
    int fail_fd = -1;    // the read callback fails for this one
    std::vector<int> close_on_read;
    std::vector<int> add_on_post;
    int dormant_for = 0;
    timespec tmout{-1, 0};
};

Recorder* g_rec = nullptr;

int rec(const char* what, int fd, uint32_t flags, void* udata, void* data)
{
    g_rec->events.push_back({what, fd, flags, udata, (long)(intptr_t)data});
    return 0;
}

ssize_t g_nopoll_idx = 99;

int on_read(int fd, uint32_t flags, void* udata, void* data)
{
    rec("read", fd, flags, udata, data);
    if (udata == &g_nopoll_idx) {
        // An entry added and dropped within the walk of events: it goes at
        // the purge after post-processing, before any pass walks it.
        rqs_add_nopoll_reader(fd, &g_nopoll_idx, nullptr);
        rqs_pprm_nopoll(g_nopoll_idx);
        char b;
        (void)!read(fd, &b, 1);
    }
    for (int c : g_rec->close_on_read) {
        if (c == fd) {
            rqs_rm_fd(fd, true, false);
            close(fd);
        }
    }
    return fd == g_rec->fail_fd ? 1 : 0;
}

int on_write(int fd, uint32_t flags, void* udata, void* data)
{
    return rec("write", fd, flags, udata, data);
}

int on_file(int fd, uint32_t flags, void* udata, void* data)
{
    return rec("file", fd, flags, udata, data);
}

int on_idle()
{
    return ++g_rec->passes >= g_rec->idle_after ? 1 : 0;
}

int on_post()
{
    ++g_rec->post;
    for (int fd : g_rec->add_on_post)
        rqs_add_reader(fd, nullptr);
    g_rec->add_on_post.clear();
    return 0;
}

void on_time_out()
{
    g_rec->events.push_back({"time_out", -1, 0, nullptr, 0});
}

void update_tmout(timespec* t)
{
    *t = g_rec->tmout;
}

bool is_dormant()
{
    return --g_rec->dormant_for < 0;
}

rqs_config config(bool quit_on_zero = false)
{
    rqs_config cfg{};
    cfg.cb.update_tmout = update_tmout;
    cfg.cb.on_idle = on_idle;
    cfg.cb.read = on_read;
    cfg.cb.write = on_write;
    cfg.cb.post_process = on_post;
    cfg.cb.on_file_modified = on_file;
    cfg.cb.time_out = on_time_out;
    cfg.quit_on_zero_fds = quit_on_zero ? 1 : 0;
    return cfg;
}

// A loop of its own for each test, and pipes that it closes.
class Rqs : public testing::Test {
protected:
    void SetUp() override
    {
        g_rec = &rec_;
        g_quit = 0;
    }
    void TearDown() override
    {
        rqs_destroy();
        for (int fd : fds_)
            close(fd);
        g_rec = nullptr;
        g_quit = 0;
    }
    // A pipe; its read end, readable when `ready`.
    int pipe_reader(bool ready)
    {
        int p[2];
        EXPECT_EQ(pipe(p), 0);
        fds_.push_back(p[0]);
        fds_.push_back(p[1]);
        if (ready) {
            EXPECT_EQ(write(p[1], "x", 1), 1);
        }
        return p[0];
    }
    std::vector<std::string> whats() const
    {
        std::vector<std::string> v;
        for (const auto& e : rec_.events)
            v.push_back(e.what);
        return v;
    }
    Recorder rec_;
    std::vector<int> fds_;
};

}  // namespace

TEST_F(Rqs, WithNothingRegisteredAndQuitOnZeroTheFirstPassEnds)
{
    const rqs_config cfg = config(true);
    ASSERT_EQ(rqs_init(&cfg), 0);
    LogCapture cap(INFO_level);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(cap.text(), "(INF)  Entering event loop\n"
                          "(CRI)  rqs_event_loop: no fd's, no activity, quitting now.\n"
                          "(INF)  Exiting event loop, 0 failed, rc=0, quit=0\n");
    EXPECT_TRUE(rec_.events.empty());
}

TEST_F(Rqs, WithoutQuitOnZeroAnEmptyLoopWaitsForItsTimeOut)
{
    const rqs_config cfg = config(false);
    ASSERT_EQ(rqs_init(&cfg), 0);
    rec_.tmout = {0, 20 * 1000 * 1000};
    rec_.idle_after = 3;
    const timespec before = rqs_now();
    LogCapture cap(INFO_level);
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(whats(), (std::vector<std::string>{"time_out", "time_out", "time_out"}));
    // Twice a pass, but the last pass ends at its idle call, before the second.
    EXPECT_EQ(rec_.post, 5);
    // The loop's clock moved with the waits.
    const timespec after = rqs_now();
    EXPECT_GT(after.tv_sec * 1000000000L + after.tv_nsec, before.tv_sec * 1000000000L + before.tv_nsec);
    EXPECT_EQ(cap.text(), "(INF)  Entering event loop\n(INF)  Exiting event loop, 0 failed, rc=1, quit=0\n");
}

TEST_F(Rqs, ADormancyTestThatSaysNoKeepsAnEmptyLoopGoing)
{
    rqs_config with = config(true);
    with.cb.is_dormant = is_dormant;
    ASSERT_EQ(rqs_init(&with), 0);
    rec_.tmout = {0, 1000 * 1000};
    rec_.idle_after = 100;
    rec_.dormant_for = 2;
    LogCapture cap(INFO_level);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(rec_.passes, 2);
    EXPECT_NE(cap.text().find("(CRI)  rqs_event_loop: no fd's, no activity, quitting now.\n"), std::string::npos);
}

TEST_F(Rqs, NoTimeOutWaitsUntilADescriptorIsReady)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    const int rd = pipe_reader(false);
    const int wr = fds_.back();
    ASSERT_EQ(rqs_add_reader(rd, &rec_), 0);
    std::thread later([wr] {
        usleep(50 * 1000);
        (void)!write(wr, "abc", 3);
    });
    EXPECT_EQ(rqs_event_loop(), 1);
    later.join();
    ASSERT_EQ(whats(), (std::vector<std::string>{"time_out", "read"}));
    EXPECT_EQ(rec_.events[1].fd, rd);
    EXPECT_EQ(rec_.events[1].udata, &rec_);
    EXPECT_EQ(rec_.events[1].data, 3);
    EXPECT_EQ(rec_.events[1].flags, 0u);
}

TEST_F(Rqs, SwitchingOffBothFiltersOfAnUnknownDescriptorIsAlreadyDone)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    const int fd = pipe_reader(false);
    LogCapture cap;
    EXPECT_EQ(rqs_mod(fd, nullptr, 0), 0);
    EXPECT_EQ(cap.text(), strf("(DBG)  apply_kev_change: fd%d filter=-1 action=8 fflags=0x0000 udata=(nil)\n"
                               "(DBG)  rqs_mod: reading was already OFF for fd%d\n"
                               "(DBG)  apply_kev_change: fd%d filter=-2 action=8 fflags=0x0000 udata=(nil)\n"
                               "(DBG)  rqs_mod: writing was already OFF for fd%d\n"
                               "(DBG)  rqs_mod: fd%d, udata=(nil) [--] OK\n",
                               fd, fd, fd, fd, fd));
}

TEST_F(Rqs, EnablingAFilterNeverAddedAddsItAndDisablingStopsItsEvents)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    int sp[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sp), 0);
    fds_.push_back(sp[0]);
    fds_.push_back(sp[1]);
    ASSERT_EQ(rqs_add_writer(sp[0], nullptr), 0);
    ASSERT_EQ(rqs_mod(sp[0], &rec_, RQS_READ | RQS_WRITE), 0);
    ASSERT_EQ(write(sp[1], "hi", 2), 2);
    rec_.tmout = {0, 0};
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(whats(), (std::vector<std::string>{"time_out", "read", "write"}));
    EXPECT_EQ(rec_.events[1].data, 2);
    rec_.events.clear();
    rec_.passes = 0;
    LogCapture cap;
    ASSERT_EQ(rqs_mod(sp[0], &rec_, RQS_READ), 0);
    EXPECT_NE(cap.text().find(strf("(DBG)  rqs_mod: disabled writing for fd%d\n", sp[0])), std::string::npos);
    EXPECT_NE(cap.text().find(strf("(DBG)  rqs_mod: fd%d, udata=%p [R-] OK\n", sp[0], (void*)&rec_)),
              std::string::npos);
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(whats(), (std::vector<std::string>{"time_out", "read"}));
}

TEST_F(Rqs, OneFailedEventOfThreeStillLetsTheOthersAndPostProcessingRun)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    int r[3];
    for (int& fd : r) {
        fd = pipe_reader(true);
        ASSERT_EQ(rqs_add_reader(fd, nullptr), 0);
    }
    rec_.fail_fd = r[1];
    rec_.idle_after = 100;
    LogCapture cap(INFO_level);
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(whats(), (std::vector<std::string>{"time_out", "read", "read", "read"}));
    EXPECT_EQ(rec_.post, 1);
    EXPECT_EQ(rec_.passes, 0);
    EXPECT_EQ(cap.text(), "(INF)  Entering event loop\n(INF)  Exiting event loop, 1 failed, rc=0, quit=0\n");
}

TEST_F(Rqs, ACallbackMayRemoveItsOwnDescriptor)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    fds_.push_back(p[1]);
    ASSERT_EQ(write(p[1], "x", 1), 1);
    ASSERT_EQ(rqs_add_reader(p[0], nullptr), 0);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1u);
    rec_.close_on_read.push_back(p[0]);
    rec_.tmout = {0, 1000 * 1000};
    rec_.idle_after = 3;
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(whats(), (std::vector<std::string>{"time_out", "read", "time_out", "time_out"}));
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 0u);
    EXPECT_EQ(rqs_fd_count(GET_TOTALFDS), 0u);
}

TEST_F(Rqs, TcpOnLoopbackAcceptsReadsAndSeesTheHangUp)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    const int srv = socket(AF_INET, SOCK_STREAM, 0);
    fds_.push_back(srv);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(srv, (sockaddr*)&at, sizeof(at)), 0);
    ASSERT_EQ(listen(srv, 4), 0);
    socklen_t len = sizeof(at);
    getsockname(srv, (sockaddr*)&at, &len);
    ASSERT_EQ(rqs_add_reader(srv, nullptr), 0);
    const int cli = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(cli, (sockaddr*)&at, sizeof(at)), 0);
    rec_.tmout = {5, 0};
    EXPECT_EQ(rqs_event_loop(), 1);
    ASSERT_EQ(whats(), (std::vector<std::string>{"time_out", "read"}));
    EXPECT_EQ(rec_.events[1].fd, srv);
    const int conn = accept(srv, nullptr, nullptr);
    ASSERT_GE(conn, 0);
    fds_.push_back(conn);
    ASSERT_EQ(rqs_rm_fd(srv, true, false), 0);
    ASSERT_EQ(rqs_add_reader(conn, nullptr), 0);
    ASSERT_EQ(write(cli, "hello", 5), 5);
    close(cli);
    rec_.events.clear();
    rec_.passes = 0;
    EXPECT_EQ(rqs_event_loop(), 1);
    ASSERT_EQ(whats(), (std::vector<std::string>{"time_out", "read"}));
    EXPECT_EQ(rec_.events[1].fd, conn);
    EXPECT_EQ(rec_.events[1].data, 5);
    EXPECT_EQ(rec_.events[1].flags, RQS_SOCKHUP);
}

TEST_F(Rqs, AReadWatchedFileIsDispatchedAsAFileForReadsMovesAndDeletion)
{
    TempDir dir("rqs");
    const std::string path = dir.make("watched.log", "first line\n");
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    const int wd = rqs_add_file_watch(&rec_, path.c_str());
    ASSERT_GE(wd, 0);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1u);
    rec_.tmout = {5, 0};
    // Readable: its offset is below its size.
    EXPECT_EQ(rqs_event_loop(), 1);
    ASSERT_EQ(whats(), (std::vector<std::string>{"time_out", "file"}));
    EXPECT_EQ(rec_.events[1].fd, wd);
    EXPECT_EQ(rec_.events[1].flags, 0u);
    EXPECT_EQ(rec_.events[1].data, 11);
    EXPECT_EQ(rec_.events[1].udata, &rec_);
    char buf[64];
    ASSERT_EQ(read(wd, buf, sizeof(buf)), 11);

    // Appended to while the loop waits: readable again, for the new bytes.
    rec_.events.clear();
    rec_.passes = 0;
    std::thread append([&path] {
        usleep(30 * 1000);
        FILE* f = fopen(path.c_str(), "a");
        fputs("more\n", f);
        fclose(f);
    });
    EXPECT_EQ(rqs_event_loop(), 1);
    append.join();
    ASSERT_EQ(whats(), (std::vector<std::string>{"time_out", "file"}));
    EXPECT_EQ(rec_.events[1].data, 5);
    ASSERT_EQ(read(wd, buf, sizeof(buf)), 5);

    // Moved to another name.
    rec_.events.clear();
    rec_.passes = 0;
    const std::string moved = path + ".1";
    ASSERT_EQ(rename(path.c_str(), moved.c_str()), 0);
    EXPECT_EQ(rqs_event_loop(), 1);
    ASSERT_EQ(whats(), (std::vector<std::string>{"time_out", "file"}));
    EXPECT_EQ(rec_.events[1].flags, RQS_RMV | RQS_FMOVED);

    // Deleted, while the watcher still holds it open.
    rec_.events.clear();
    rec_.passes = 0;
    ASSERT_EQ(unlink(moved.c_str()), 0);
    EXPECT_EQ(rqs_event_loop(), 1);
    ASSERT_EQ(whats(), (std::vector<std::string>{"time_out", "file"}));
    EXPECT_EQ(rec_.events[1].flags, RQS_RMV | RQS_FDELETED);

    rqs_rm_file_watch(wd);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 0u);
}

TEST_F(Rqs, AFileMonitorWithoutReadWatchSeesOnlyMovesAndDeletion)
{
    TempDir dir("rqs");
    const std::string path = dir.make("monitored", "data");
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    const int wd = rqs_add_file_monitor(nullptr, path.c_str(), false);
    ASSERT_GE(wd, 0);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 1u);
    rec_.tmout = {0, 20 * 1000 * 1000};
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(whats(), (std::vector<std::string>{"time_out"}));
    rec_.events.clear();
    rec_.passes = 0;
    ASSERT_EQ(unlink(path.c_str()), 0);
    rec_.tmout = {5, 0};
    EXPECT_EQ(rqs_event_loop(), 1);
    ASSERT_EQ(whats(), (std::vector<std::string>{"time_out", "file"}));
    EXPECT_EQ(rec_.events[1].flags, RQS_RMV | RQS_FDELETED);
    rqs_rm_file_monitor(wd, false);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 0u);
}

TEST_F(Rqs, AMissingFileCannotBeWatched)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    LogCapture cap;
    EXPECT_EQ(rqs_add_file_watch(nullptr, "/nonexistent/kst-rqs"), -1);
    EXPECT_NE(cap.text().find("rqs_add_file_monitor: open("), std::string::npos) << cap.text();
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 0u);
}

namespace {
void set_quit(int)
{
    g_quit = 1;
}
}  // namespace

TEST_F(Rqs, ASignalThatSetsQuitEndsTheWaitAndTheLoop)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    ASSERT_EQ(rqs_add_reader(pipe_reader(false), nullptr), 0);
    struct sigaction sa{}, old{};
    sa.sa_handler = set_quit;
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
    const pthread_t self = pthread_self();
    std::thread later([self] {
        usleep(50 * 1000);
        pthread_kill(self, SIGUSR1);
    });
    LogCapture cap(INFO_level);
    EXPECT_EQ(rqs_event_loop(), 0);
    later.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(cap.text(), "(INF)  Entering event loop\n"
                          "(INF)  rqs_event_loop interrupted, quit=1\n"
                          "(INF)  Exiting event loop, 0 failed, rc=0, quit=1\n");
    EXPECT_TRUE(rec_.events.empty());
}

TEST_F(Rqs, QuitSetBeforeTheLoopLeavesAtOnce)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    g_quit = 1;
    LogCapture cap(INFO_level);
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(cap.text(), "(INF)  Entering event loop\n");
}

TEST_F(Rqs, AFullEventArrayOfAtLeastSixteenIsWarnedAbout)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    for (int i = 0; i < 15; ++i)
        ASSERT_EQ(rqs_add_reader(pipe_reader(true), nullptr), 0);
    // After the first pass the array holds 20; then 20 descriptors fill it.
    for (int i = 0; i < 5; ++i)
        rec_.add_on_post.push_back(pipe_reader(true));
    rec_.idle_after = 2;
    LogCapture cap(WARN_level);
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 20u);
    EXPECT_EQ(cap.text(), "(WRN)  rqs_event_loop: all event slots populated, might need more\n");
}

TEST_F(Rqs, ANoPollEntryEndsTheLoopAsNoEventMaskIsDefined)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    ssize_t idx = 99;
    const int fd = pipe_reader(false);
    LogCapture cap;
    ASSERT_EQ(rqs_add_nopoll_reader(fd, &idx, &rec_), 0);
    EXPECT_EQ(idx, 0);
    EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 1u);
    EXPECT_EQ(rqs_event_loop(), -1);
    EXPECT_EQ(cap.text(), strf("(DBG)  rqs_add_nopoll_reader[0]: fd%d, events=0x0, udata=%p, total=1 events.\n"
                               "(INF)  Entering event loop\n"
                               "(DBG)  on_nopoll: idx=0 fd=%d udata=%p\n"
                               "(ERR)  on_nopoll: unrecognized event mask: 0x0\n"
                               "(INF)  Exiting event loop, 0 failed, rc=-1, quit=0\n",
                               fd, (void*)&rec_, fd, (void*)&rec_));
    // No wait took place: with no descriptor but a no-poll entry it is skipped.
    EXPECT_TRUE(rec_.events.empty());
}

TEST_F(Rqs, AMarkedNoPollEntryGoesAtThePurgeAndItsOwnerLearnsIt)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    ssize_t a = 99, b = 99;
    ASSERT_EQ(rqs_add_nopoll_writer(7, &a, nullptr), 0);
    ASSERT_EQ(rqs_add_nopoll_reader(8, &b, nullptr), 0);
    LogCapture cap;
    rqs_pprm_nopoll(a);
    EXPECT_EQ(a, 0);
    EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 2u);
    rqs_purge_nopoll_rm();
    EXPECT_EQ(a, -1);
    EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 1u);
    rqs_rm_nopoll(b);
    EXPECT_EQ(b, -1);
    EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 0u);
    EXPECT_EQ(cap.text(), "(DBG)  rqs_pprm_nopoll: added no-poll event[0] at pos=0, total: 2 no-poll events.\n"
                          "(DBG)  rqs_purge_nopoll_rm: fd=7, udata=(nil) (j=0)\n"
                          "(DBG)  rqs_rm_nopoll: fd=8, udata=(nil) (j=1)\n");
}

TEST_F(Rqs, TheStageAndTheRequestTypes)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    const int* stage = static_cast<int*>(rqs_ctx(RQS_CTX_STAGE, nullptr));
    ASSERT_NE(stage, nullptr);
    EXPECT_EQ(*stage, ELOOP_START);
    LogCapture cap;
    EXPECT_EQ(rqs_ctx(2, nullptr), nullptr);
    EXPECT_EQ(cap.text(), "(ERR)  rqs_ctx: invalid request type: 2\n");
}

TEST_F(Rqs, AfterDestroyRemovingADescriptorDoesNothing)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    const int fd = pipe_reader(false);
    ASSERT_EQ(rqs_add_reader(fd, nullptr), 0);
    rqs_destroy();
    LogCapture cap;
    EXPECT_EQ(rqs_rm_fd(fd, true, true), 0);
    EXPECT_EQ(cap.text(), "");
}

TEST_F(Rqs, AnInvalidDescriptorIsRefusedWithItsError)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    LogCapture cap;
    EXPECT_EQ(rqs_add_reader(1000, nullptr), EBADF);
    EXPECT_EQ(rqs_fd_count(GET_POLLFDS), 0u);
    EXPECT_NE(cap.text().find(strf("...) ERROR(%d): ", EBADF)), std::string::npos) << cap.text();
    EXPECT_EQ(cap.text().rfind("(ERR)  apply_kev_change: kevent(", 0), 0u) << cap.text();
}

TEST(RqsDeathTest, RemovingAMonitorThatIsNoneStopsTheProcess)
{
    EXPECT_DEATH(
        {
            const rqs_config cfg{};
            rqs_init(&cfg);
            rqs_rm_file_monitor(0, true);
        },
        "Assertion failed: \\(is_watched\\(wd\\)\\), function rqs_rm_file_monitor");
}

TEST(RqsDeathTest, AnUnknownCountSpecifierStopsTheProcess)
{
    EXPECT_DEATH(rqs_fd_count(3), "Assertion failed: \\(0\\), function rqs_fd_count");
}

TEST_F(Rqs, ADescriptorClosedWithoutRemovalAndReusedIsRegisteredAnew)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(rqs_add_reader(p[0], nullptr), 0);
    const int number = p[0];
    close(p[0]);
    close(p[1]);
    // The same number, now another pipe's read end, with a byte waiting.
    int q[2];
    ASSERT_EQ(pipe(q), 0);
    ASSERT_EQ(q[0], number);
    fds_.push_back(q[0]);
    fds_.push_back(q[1]);
    ASSERT_EQ(write(q[1], "y", 1), 1);
    ASSERT_EQ(rqs_add_reader(q[0], &rec_), 0);
    rec_.tmout = {5, 0};
    EXPECT_EQ(rqs_event_loop(), 1);
    ASSERT_EQ(whats(), (std::vector<std::string>{"time_out", "read"}));
    EXPECT_EQ(rec_.events[1].udata, &rec_);
}

TEST_F(Rqs, TheLoopsSensorsCountWhenTheyAreOn)
{
    ASSERT_EQ(psensors_init(nullptr, 1), 0);
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    ASSERT_EQ(rqs_add_reader(pipe_reader(true), nullptr), 0);
    EXPECT_EQ(rqs_event_loop(), 1);
    for (int s : {PRF_EVLOOP, PRF_EVREAD, PRF_EVPP, PRF_EVIDLE}) {
        const timespec& t = g_psensor[s].sensor.accum.tm;
        EXPECT_TRUE(t.tv_sec != 0 || t.tv_nsec != 0) << g_psensor[s].nametag;
        EXPECT_EQ(g_psensor[s].started, 0u) << g_psensor[s].nametag;
    }
    const timespec& w = g_psensor[PRF_EVWRITE].sensor.accum.tm;
    EXPECT_TRUE(w.tv_sec == 0 && w.tv_nsec == 0);
    psensors_destroy();
    for (auto& s : g_psensor)
        s.enabled = 0;
}

TEST_F(Rqs, ACallbackMayDropANoPollEntryDuringTheWalk)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    ASSERT_EQ(rqs_add_reader(pipe_reader(true), &g_nopoll_idx), 0);
    rec_.tmout = {0, 1000 * 1000};
    rec_.idle_after = 2;
    LogCapture cap(ERR_level);
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(g_nopoll_idx, -1);
    EXPECT_EQ(rqs_fd_count(GET_NOPOLLFDS), 0u);
    // The entry never reached a walk of its own.
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(whats(), (std::vector<std::string>{"time_out", "read", "time_out"}));
}

TEST_F(Rqs, AReusedNumberKeepsNoneOfTheOldDescriptorsFilters)
{
    const rqs_config cfg = config();
    ASSERT_EQ(rqs_init(&cfg), 0);
    int old_sp[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, old_sp), 0);
    ASSERT_EQ(rqs_add_reader(old_sp[0], &rec_), 0);
    // Writing was on, then off: the filter stays registered, disabled.
    ASSERT_EQ(rqs_mod(old_sp[0], &rec_, RQS_READ | RQS_WRITE), 0);
    ASSERT_EQ(rqs_mod(old_sp[0], &rec_, RQS_READ), 0);
    ASSERT_EQ(rqs_rm_fd(old_sp[0], true, false), 0);
    const int number = old_sp[0];
    close(old_sp[0]);
    close(old_sp[1]);
    int sp[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sp), 0);
    ASSERT_EQ(sp[0], number);
    fds_.push_back(sp[0]);
    fds_.push_back(sp[1]);
    int fresh = 0;
    ASSERT_EQ(rqs_add_reader(sp[0], &fresh), 0);
    // Enabling writing of the new descriptor registers it with its own data.
    ASSERT_EQ(rqs_mod(sp[0], &fresh, RQS_READ | RQS_WRITE), 0);
    rec_.tmout = {0, 0};
    EXPECT_EQ(rqs_event_loop(), 1);
    ASSERT_EQ(whats(), (std::vector<std::string>{"time_out", "write"}));
    EXPECT_EQ(rec_.events[1].udata, &fresh);
}
