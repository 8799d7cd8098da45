// Checked system calls: the one failure line per wrapper, the silent ordinary
// events, the extras of some wrappers, and errno surviving the log.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "logcap.h"
#include "strf.h"
#include "syswrap.h"
#include "testfs.h"
#include "testpipe.h"
#include "testsig.h"

// A failed huge allocation must come back as none here, as it does without
// the address checker.
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}

namespace {

std::string err_text(int err)
{
    return strf("ERROR(%d): %s\n", err, strerror(err));
}

// A call made while SIGALRM keeps breaking it off: its result and the errno
// it left, taken before the ticker stops.
struct Interrupted {
    long rc;
    int err;
};

template <class Call>
Interrupted under_alarms(Call call)
{
    AlarmTicker t;
    const long rc = call();
    const int err = errno;
    return Interrupted{rc, err};
}

// A socket of the given type on 127.0.0.1 with a port of its own.
int bound_loopback(int type, sockaddr_in* where)
{
    int s = socket(AF_INET, type, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(s, reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
    socklen_t len = sizeof(*where);
    EXPECT_EQ(getsockname(s, reinterpret_cast<sockaddr*>(where), &len), 0);
    return s;
}

int udp_loopback(sockaddr_in* where)
{
    return bound_loopback(SOCK_DGRAM, where);
}

// A TCP listener on 127.0.0.1 with a port of its own.
int tcp_listener(sockaddr_in* where, int backlog)
{
    int s = bound_loopback(SOCK_STREAM, where);
    EXPECT_EQ(listen(s, backlog), 0);
    return s;
}

// A file of the given content, open for reading, in a directory of its own;
// both go when the test is done.
class InputFile {
public:
    explicit InputFile(const std::string& content)
        : dir_("syswrap"), fd_(open(dir_.make("f", content).c_str(), O_RDONLY))
    {
        EXPECT_GE(fd_, 0);
    }
    ~InputFile()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;
    int fd() const { return fd_; }

private:
    TempDir dir_;
    int fd_;
};

}  // namespace

// ---- no_fault ----

TEST(NoFault, TheFourOrdinaryEventsAreNoFaultOfAnInnocentPeer)
{
    EXPECT_TRUE(no_fault(EINTR, 0));
    EXPECT_TRUE(no_fault(EPIPE, 0));
    EXPECT_TRUE(no_fault(EAGAIN, 0));
    EXPECT_TRUE(no_fault(EWOULDBLOCK, 0));
    EXPECT_TRUE(no_fault(ECONNRESET, 0));
}

TEST(NoFault, AGuiltyPeerMakesEveryErrorAFault)
{
    EXPECT_FALSE(no_fault(EINTR, 1));
    EXPECT_FALSE(no_fault(EPIPE, 2));
    EXPECT_FALSE(no_fault(EAGAIN, 0x80000000u));
    EXPECT_FALSE(no_fault(ECONNRESET, 1));
}

TEST(NoFault, OtherNumbersAreFaults)
{
    EXPECT_FALSE(no_fault(0, 0));
    EXPECT_FALSE(no_fault(EBADF, 0));
    EXPECT_FALSE(no_fault(EINVAL, 0));
    EXPECT_FALSE(no_fault(ENOMEM, 0));
    EXPECT_FALSE(no_fault(ETIMEDOUT, 0));
    EXPECT_FALSE(no_fault(-1, 0));
    EXPECT_FALSE(no_fault(-EINTR, 0));
    EXPECT_FALSE(no_fault(100000, 0));
    // The names decide, not the numbers of another platform.
    if (EAGAIN != 35) {
        EXPECT_FALSE(no_fault(35, 0));
    }
    if (ECONNRESET != 54) {
        EXPECT_FALSE(no_fault(54, 0));
    }
}

// ---- W_close ----

TEST(WClose, SuccessIsToldAtDebug)
{
    Pipe p;
    const int fd = p.rd();
    LogCapture cap;
    EXPECT_EQ(W_close("test", fd), 0);
    EXPECT_EQ(cap.text(), strf("(DBG)  test: CLOSED(fd%d)\n", fd));
    p.close_rd();  // already closed: the Pipe must not close another's descriptor
}

TEST(WClose, SuccessIsSilentBelowDebug)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    LogCapture cap(INFO_level);
    EXPECT_EQ(W_close("test", fds[0]), 0);
    EXPECT_EQ(W_close("test", fds[1]), 0);
    EXPECT_EQ(cap.text(), "");
}

TEST(WClose, FailureLineAndErrnoKept)
{
    LogCapture cap;
    EXPECT_EQ(W_close("test", -1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(cap.text(), "(ERR)  test: close(fd-1) " + err_text(EBADF));
}

// ---- W_calloc / W_realloc ----

TEST(WCalloc, SuccessIsSilent)
{
    LogCapture cap;
    void* p = W_calloc("test", 4, 8);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(static_cast<unsigned char*>(p)[31], 0);
    free(p);
    EXPECT_EQ(cap.text(), "");
}

TEST(WCalloc, FailureLineAndErrnoKept)
{
    volatile size_t nmemb = SIZE_MAX / 2;
    volatile size_t size = 4;
    LogCapture cap;
    EXPECT_EQ(W_calloc("test", nmemb, size), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: calloc(%ld, 4) ", (long)(SIZE_MAX / 2)) + err_text(ENOMEM));
}

TEST(WRealloc, FailureLineKeepsTheOldBlock)
{
    void* old = malloc(16);
    ASSERT_NE(old, nullptr);
    volatile size_t size = SIZE_MAX - 4096;
    LogCapture cap;
    EXPECT_EQ(W_realloc("test", old, size), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(cap.text(),
              strf("(ERR)  test: realloc(%p, %ld) ", old, (long)(SIZE_MAX - 4096)) + err_text(ENOMEM));
    free(old);
}

TEST(WRealloc, SuccessIsSilent)
{
    LogCapture cap;
    void* p = W_realloc("test", nullptr, 32);
    ASSERT_NE(p, nullptr);
    p = W_realloc("test", p, 64);
    ASSERT_NE(p, nullptr);
    free(p);
    EXPECT_EQ(cap.text(), "");
}

// ---- files ----

TEST(WLseek, FailureOnAPipe)
{
    Pipe p;
    LogCapture cap;
    EXPECT_EQ(W_lseek("test", p.rd(), 5, SEEK_SET), -1);
    EXPECT_EQ(errno, ESPIPE);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: lseek(%d, 5, 0) ", p.rd()) + err_text(ESPIPE));
}

TEST(WLseek, SuccessReturnsTheOffsetSilently)
{
    InputFile f("0123456789");
    LogCapture cap;
    EXPECT_EQ(W_lseek("test", f.fd(), 4, SEEK_SET), 4);
    EXPECT_EQ(W_lseek("test", f.fd(), 0, SEEK_END), 10);
    EXPECT_EQ(cap.text(), "");
}

TEST(WUnlink, FailureLine)
{
    TempDir d("syswrap");
    const std::string f = d.at("absent");
    LogCapture cap;
    EXPECT_EQ(W_unlink("test", f.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(cap.text(), "(ERR)  test: unlink(" + f + ") " + err_text(ENOENT));
}

TEST(WUnlink, SuccessRemovesSilently)
{
    TempDir d("syswrap");
    const std::string f = d.make("f", "x");
    LogCapture cap;
    EXPECT_EQ(W_unlink("test", f.c_str()), 0);
    EXPECT_NE(access(f.c_str(), F_OK), 0);
    EXPECT_EQ(cap.text(), "");
}

TEST(WFtruncate, FailureLine)
{
    LogCapture cap;
    EXPECT_EQ(W_ftruncate("test", -1, 10), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(cap.text(), "(ERR)  test: ftruncate(-1, 10) " + err_text(EBADF));
}

TEST(WOpen, ModeZeroCreatesRwRR)
{
    TempDir d("syswrap");
    const std::string f = d.at("new");
    const mode_t old_mask = umask(0);
    LogCapture cap;
    int fd = W_open("test", f.c_str(), O_WRONLY | O_CREAT, 0);
    umask(old_mask);
    ASSERT_GE(fd, 0);
    close(fd);
    struct stat st {};
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(cap.text(), "");
}

TEST(WOpen, AGivenModeIsUsed)
{
    TempDir d("syswrap");
    const std::string f = d.at("new");
    const mode_t old_mask = umask(0);
    int fd = W_open("test", f.c_str(), O_WRONLY | O_CREAT, 0600);
    umask(old_mask);
    ASSERT_GE(fd, 0);
    close(fd);
    struct stat st {};
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST(WOpen, FailureLinePrintsTheModeAsGiven)
{
    TempDir d("syswrap");
    const std::string f = d.at("nodir/new");
    LogCapture cap;
    EXPECT_EQ(W_open("test", f.c_str(), O_WRONLY | O_CREAT, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(W_open("test", f.c_str(), O_RDONLY, 0600), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(cap.text(),
              strf("(ERR)  test: open('%s', %d, 0x0) ", f.c_str(), O_WRONLY | O_CREAT) + err_text(ENOENT) +
                  strf("(ERR)  test: open('%s', %d, 0x180) ", f.c_str(), O_RDONLY) + err_text(ENOENT));
}

TEST(WPread, FailureLineEvenWithFlagsZero)
{
    Pipe p;
    char buf[8];
    LogCapture cap;
    EXPECT_EQ(W_pread_f("test", p.rd(), buf, sizeof(buf), 3, 0), -1);
    EXPECT_EQ(errno, ESPIPE);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: pread(%d, %p, 8, 3) ", p.rd(), (void*)buf) + err_text(ESPIPE));
}

TEST(WPread, ReadsAtTheOffsetSilently)
{
    InputFile f("0123456789");
    char buf[4] = {};
    LogCapture cap;
    EXPECT_EQ(W_pread_f("test", f.fd(), buf, sizeof(buf), 3, 0), 4);
    EXPECT_EQ(std::string(buf, 4), "3456");
    EXPECT_EQ(cap.text(), "");
}

// ---- read / write ----

TEST(WRead, InterruptedWithFlagsZeroIsSilent)
{
    Pipe p;
    char buf[16];
    LogCapture cap;
    const Interrupted r = under_alarms([&] { return W_read_f("test", p.rd(), buf, sizeof(buf), 0); });
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.err, EINTR);
    EXPECT_EQ(cap.text(), "");
}

TEST(WRead, InterruptedWithAGuiltyPeerIsLogged)
{
    Pipe p;
    char buf[16];
    LogCapture cap;
    const Interrupted r = under_alarms([&] { return W_read_f("test", p.rd(), buf, sizeof(buf), 1); });
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.err, EINTR);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: read(%d, %p, 16) ", p.rd(), (void*)buf) + err_text(EINTR));
}

TEST(WRead, WouldBlockWithFlagsZeroIsSilent)
{
    Pipe p;
    ASSERT_EQ(fcntl(p.rd(), F_SETFL, O_NONBLOCK), 0);
    char buf[16];
    LogCapture cap;
    EXPECT_EQ(W_read_f("test", p.rd(), buf, sizeof(buf), 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(cap.text(), "");
}

TEST(WRead, BadDescriptorIsLoggedWithFlagsZero)
{
    char buf[16];
    LogCapture cap;
    EXPECT_EQ(W_read_f("test", -1, buf, sizeof(buf), 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: read(-1, %p, 16) ", (void*)buf) + err_text(EBADF));
}

TEST(WRead, SuccessReturnsTheBytesSilently)
{
    Pipe p;
    ASSERT_EQ(write(p.wr(), "abc", 3), 3);
    char buf[16];
    LogCapture cap;
    EXPECT_EQ(W_read_f("test", p.rd(), buf, sizeof(buf), 1), 3);
    EXPECT_EQ(std::string(buf, 3), "abc");
    EXPECT_EQ(cap.text(), "");
}

class WWriteClosedPipe : public ::testing::Test {
protected:
    void SetUp() override { p_.close_rd(); }
    SignalGuard no_sigpipe_{SIGPIPE, SIG_IGN};
    Pipe p_;
};

TEST_F(WWriteClosedPipe, AGuiltyPeerGetsOneLine)
{
    const char buf[] = "abc";
    LogCapture cap;
    EXPECT_EQ(W_write_f("test", p_.wr(), buf, 3, 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(cap.text(),
              strf("(ERR)  test: write(%d, %p, 3) ", p_.wr(), (const void*)buf) + err_text(EPIPE));
}

TEST_F(WWriteClosedPipe, FlagsZeroIsSilent)
{
    const char buf[] = "abc";
    LogCapture cap;
    EXPECT_EQ(W_write_f("test", p_.wr(), buf, 3, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(cap.text(), "");
}

TEST(WWrite, BadDescriptorIsLoggedWithFlagsZero)
{
    const char buf[] = "abc";
    LogCapture cap;
    EXPECT_EQ(W_write_f("test", -1, buf, 3, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: write(-1, %p, 3) ", (const void*)buf) + err_text(EBADF));
}

// ---- sockets ----

TEST(WSocket, SuccessIsToldAtDebug)
{
    LogCapture cap;
    int s = W_socket("test", AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(s, 0);
    EXPECT_EQ(cap.text(), strf("(DBG)  test opened socket fd=%d (%d, %d, 0)\n", s, AF_INET, SOCK_DGRAM));
    close(s);
}

TEST(WSocket, FailureLine)
{
    LogCapture cap;
    EXPECT_EQ(W_socket("test", -1, SOCK_DGRAM, 0), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: socket(-1, %d, 0) ", SOCK_DGRAM) + err_text(EAFNOSUPPORT));
}

TEST(WGetsockopt, FailurePrintsTheLengthBehindThePointer)
{
    Pipe p;
    int val = 0;
    socklen_t len = sizeof(val);
    LogCapture cap;
    EXPECT_EQ(W_getsockopt("test", p.rd(), SOL_SOCKET, SO_RCVBUF, &val, &len), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(W_getsockopt("test", p.rd(), SOL_SOCKET, SO_RCVBUF, &val, nullptr), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(
        cap.text(),
        strf("(ERR)  test: getsockopt(%d, %d, %d, %p, 4) ", p.rd(), SOL_SOCKET, SO_RCVBUF, (void*)&val) +
            err_text(ENOTSOCK) +
            strf("(ERR)  test: getsockopt(%d, %d, %d, %p, 0) ", p.rd(), SOL_SOCKET, SO_RCVBUF, (void*)&val) +
            err_text(ENOTSOCK));
}

TEST(WGetsockopt, SuccessIsSilent)
{
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    int val = 0;
    socklen_t len = sizeof(val);
    LogCapture cap;
    EXPECT_EQ(W_getsockopt("test", s, SOL_SOCKET, SO_TYPE, &val, &len), 0);
    EXPECT_EQ(val, SOCK_DGRAM);
    close(s);
    EXPECT_EQ(cap.text(), "");
}

TEST(WSetsockopt, FailureLine)
{
    Pipe p;
    int val = 1;
    LogCapture cap;
    EXPECT_EQ(W_setsockopt("test", p.rd(), SOL_SOCKET, SO_REUSEADDR, &val, sizeof(val)), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: setsockopt(%d, %d, %d, %p, 4) ", p.rd(), SOL_SOCKET,
                               SO_REUSEADDR, (void*)&val) +
                              err_text(ENOTSOCK));
}

TEST(WBind, FailureLineHasItsOwnColon)
{
    Pipe p;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    LogCapture cap;
    EXPECT_EQ(W_bind("test", p.rd(), reinterpret_cast<sockaddr*>(&a), sizeof(a)), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: bind(%d, %p, 16): ", p.rd(), (void*)&a) + err_text(ENOTSOCK));
}

TEST(WListen, FailureLine)
{
    Pipe p;
    LogCapture cap;
    EXPECT_EQ(W_listen("test", p.rd(), 5), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: listen(%d, 5) ", p.rd()) + err_text(ENOTSOCK));
}

TEST(WConnect, NonBlockingConnectInProgressIsToldUnderTheWrappersName)
{
    sockaddr_in where{};
    int l = tcp_listener(&where, 8);
    int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_GE(s, 0);
    LogCapture cap;
    // Linux holds the socket locked through the call, so the peer's answer
    // cannot complete a non-blocking connect before it returns, not even on
    // the loopback.
    EXPECT_EQ(W_connect("some_caller", s, reinterpret_cast<sockaddr*>(&where), sizeof(where)), -1);
    EXPECT_EQ(errno, EINPROGRESS);
    EXPECT_EQ(cap.text(), strf("(INF)  W_connect: non-blocking connect in progress for fd%d\n", s));
    close(s);
    close(l);
}

TEST(WConnect, BlockingConnectIsSilent)
{
    sockaddr_in where{};
    int l = tcp_listener(&where, 8);
    int s = socket(AF_INET, SOCK_STREAM, 0);
    LogCapture cap;
    EXPECT_EQ(W_connect("test", s, reinterpret_cast<sockaddr*>(&where), sizeof(where)), 0);
    EXPECT_EQ(cap.text(), "");
    close(s);
    close(l);
}

TEST(WConnect, FailureLine)
{
    Pipe p;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    LogCapture cap;
    EXPECT_EQ(W_connect("test", p.rd(), reinterpret_cast<sockaddr*>(&a), sizeof(a)), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: connect(%d, %p, 16) ", p.rd(), (void*)&a) + err_text(ENOTSOCK));
}

TEST(WAccept, NobodyWaitingIsSilent)
{
    sockaddr_in where{};
    int l = tcp_listener(&where, 8);
    ASSERT_EQ(fcntl(l, F_SETFL, O_NONBLOCK), 0);
    sockaddr_in peer{};
    socklen_t len = sizeof(peer);
    LogCapture cap;
    EXPECT_EQ(W_accept("test", l, reinterpret_cast<sockaddr*>(&peer), &len), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(cap.text(), "");
    close(l);
}

TEST(WAccept, FailurePrintsTheLengthBehindThePointer)
{
    Pipe p;
    sockaddr_in peer{};
    socklen_t len = sizeof(peer);
    LogCapture cap;
    EXPECT_EQ(W_accept("test", p.rd(), reinterpret_cast<sockaddr*>(&peer), &len), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(W_accept("test", p.rd(), nullptr, nullptr), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(cap.text(),
              strf("(ERR)  test: accept(%d, %p, 16) ", p.rd(), (void*)&peer) + err_text(ENOTSOCK) +
                  strf("(ERR)  test: accept(%d, %p, 0) ", p.rd(), (void*)nullptr) + err_text(ENOTSOCK));
}

TEST(WGetaddrinfo, MinusOneIsLoggedWithTheResolversText)
{
    addrinfo hints{};
    hints.ai_flags = 0x7fff0000;  // no such flags
    hints.ai_family = AF_INET;
    addrinfo* res = nullptr;
    LogCapture cap;
    errno = 0;
    const int rc = W_getaddrinfo("test", "127.0.0.1", "80", &hints, &res);
    const int err = errno;
    ASSERT_EQ(rc, -1);  // EAI_BADFLAGS with glibc's negative codes
    EXPECT_EQ(cap.text(), strf("(ERR)  test: getaddrinfo(127.0.0.1, 80, %p, %p): ERROR(-1:%d): %s\n",
                               (void*)&hints, (void*)&res, err, gai_strerror(-1)));
}

TEST(WGetaddrinfo, OtherResolverErrorsAreTheCallers)
{
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_family = AF_INET;
    addrinfo* res = nullptr;
    LogCapture cap;
    const int rc = W_getaddrinfo("test", "not-a-number", "80", &hints, &res);
    EXPECT_EQ(rc, EAI_NONAME);
    EXPECT_EQ(cap.text(), "");
}

TEST(WGetaddrinfo, SuccessIsSilent)
{
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* res = nullptr;
    LogCapture cap;
    ASSERT_EQ(W_getaddrinfo("test", "127.0.0.1", "80", &hints, &res), 0);
    ASSERT_NE(res, nullptr);
    freeaddrinfo(res);
    EXPECT_EQ(cap.text(), "");
}

TEST(WSelect, FailureLine)
{
    timeval tv{0, 0};
    LogCapture cap;
    EXPECT_EQ(W_select("test", -1, nullptr, nullptr, nullptr, &tv), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: select(-1, %p, %p, %p, %p) ", (void*)nullptr, (void*)nullptr,
                               (void*)nullptr, (void*)&tv) +
                              err_text(EINVAL));
}

TEST(WSelect, InterruptionIsSilentBelowDebug)
{
    LogCapture cap(INFO_level);
    timeval tv{5, 0};
    const Interrupted r = under_alarms([&] { return W_select("test", 0, nullptr, nullptr, nullptr, &tv); });
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.err, EINTR);
    EXPECT_EQ(cap.text(), "");
}

TEST(WSelect, InterruptionIsToldWhenTheModuleIsAtDebug)
{
    LogCapture cap(INFO_level);
    g_mod_ll[LLMOD_SYSWRAP] = DEBUG_level;
    timeval tv{5, 0};
    const Interrupted r = under_alarms([&] { return W_select("test", 0, nullptr, nullptr, nullptr, &tv); });
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.err, EINTR);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: select(0, %p, %p, %p, %p) ", (void*)nullptr, (void*)nullptr,
                               (void*)nullptr, (void*)&tv) +
                              err_text(EINTR));
}

TEST(WPoll, TimeOutIsOneWarning)
{
    Pipe p;
    pollfd pfd{p.rd(), POLLIN, 0};
    LogCapture cap;
    errno = EDOM;
    EXPECT_EQ(W_poll("test", &pfd, 1, 10), 0);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(cap.text(), "(WRN)  test: poll() has timed out after 10 ms\n");
}

TEST(WPoll, FailureLine)
{
    rlimit rl{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rl), 0);
    const nfds_t too_many = (nfds_t)rl.rlim_cur + 1;
    LogCapture cap;
    EXPECT_EQ(W_poll("test", nullptr, too_many, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(cap.text(),
              strf("(ERR)  test: poll(%p, %ld, 0) ", (void*)nullptr, (long)too_many) + err_text(EINVAL));
}

TEST(WPoll, ReadyIsSilent)
{
    Pipe p;
    ASSERT_EQ(write(p.wr(), "x", 1), 1);
    pollfd pfd{p.rd(), POLLIN, 0};
    LogCapture cap;
    EXPECT_EQ(W_poll("test", &pfd, 1, 10), 1);
    EXPECT_EQ(cap.text(), "");
}

TEST(WSendto, FailureLine)
{
    Pipe p;
    const char buf[] = "abc";
    sockaddr_in a{};
    LogCapture cap;
    EXPECT_EQ(W_sendto("test", p.wr(), buf, 3, 0, reinterpret_cast<sockaddr*>(&a), sizeof(a)), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    EXPECT_EQ(cap.text(),
              strf("(ERR)  test: sendto(%d, %p, 3, 0, ...) ", p.wr(), (const void*)buf) + err_text(ENOTSOCK));
}

TEST(WSendto, NothingSentCountsAsAFailure)
{
    sockaddr_in where{};
    int s = udp_loopback(&where);
    const char buf[] = "";
    LogCapture cap;
    errno = EDOM;
    EXPECT_EQ(W_sendto("test", s, buf, 0, 0, reinterpret_cast<sockaddr*>(&where), sizeof(where)), 0);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(cap.text(),
              strf("(ERR)  test: sendto(%d, %p, 0, 0, ...) ", s, (const void*)buf) + err_text(EDOM));
    close(s);
}

TEST(WRecvfrom, AnEmptyDatagramCountsAsAFailure)
{
    sockaddr_in where{};
    int s = udp_loopback(&where);
    ASSERT_EQ(sendto(s, "", 0, 0, reinterpret_cast<sockaddr*>(&where), sizeof(where)), 0);
    char buf[16];
    sockaddr_in from{};
    socklen_t len = sizeof(from);
    LogCapture cap;
    errno = EDOM;
    EXPECT_EQ(W_recvfrom("test", s, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &len), 0);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: recvfrom(%d, %p, 16, 0, ...) ", s, (void*)buf) + err_text(EDOM));
    close(s);
}

TEST(WRecvfrom, NothingWaitingIsLogged)
{
    sockaddr_in where{};
    int s = udp_loopback(&where);
    char buf[16];
    LogCapture cap;
    EXPECT_EQ(W_recvfrom("test", s, buf, sizeof(buf), MSG_DONTWAIT, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: recvfrom(%d, %p, 16, %d, ...) ", s, (void*)buf, MSG_DONTWAIT) +
                              err_text(EAGAIN));
    close(s);
}

TEST(WRecvfrom, ADatagramIsReturnedSilently)
{
    sockaddr_in where{};
    int s = udp_loopback(&where);
    ASSERT_EQ(sendto(s, "hello", 5, 0, reinterpret_cast<sockaddr*>(&where), sizeof(where)), 5);
    char buf[16];
    LogCapture cap;
    EXPECT_EQ(W_recvfrom("test", s, buf, sizeof(buf), 0, nullptr, nullptr), 5);
    EXPECT_EQ(std::string(buf, 5), "hello");
    EXPECT_EQ(cap.text(), "");
    close(s);
}

// ---- sendfile ----

namespace {

// A connected pair whose sending side takes little before it would block.
struct SmallPair {
    int out = -1;
    int in = -1;
    SmallPair()
    {
        int sv[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        out = sv[0];
        in = sv[1];
        int sz = 4096;
        setsockopt(out, SOL_SOCKET, SO_SNDBUF, &sz, sizeof(sz));
        setsockopt(in, SOL_SOCKET, SO_RCVBUF, &sz, sizeof(sz));
    }
    ~SmallPair()
    {
        close(out);
        close(in);
    }
    void fill()
    {
        EXPECT_EQ(fcntl(out, F_SETFL, O_NONBLOCK), 0);
        char junk[1024] = {};
        while (send(out, junk, sizeof(junk), 0) > 0) {
        }
        EXPECT_EQ(errno, EAGAIN);
    }
};

}  // namespace

TEST(WSendfile, HeadersFileAndTrailersInOrder)
{
    InputFile f("0123456789");
    const int in = f.fd();
    Pipe p;
    char h1[] = "HE", h2[] = "AD|", t1[] = "|TR";
    iovec hdrs[2] = {{h1, 2}, {h2, 3}};
    iovec trls[1] = {{t1, 3}};
    sf_hdtr_t hdtr{hdrs, 2, trls, 1};
    off_t sbytes = -1;
    LogCapture cap;
    EXPECT_EQ(W_sendfile_f("test", p.wr(), in, 3, 4, &hdtr, &sbytes, 0, 0), 0);
    EXPECT_EQ(sbytes, 5 + 4 + 3);
    p.close_wr();
    EXPECT_EQ(read_all(p.rd()), "HEAD|3456|TR");
    // The file's own offset is left alone.
    EXPECT_EQ(lseek(in, 0, SEEK_CUR), 0);
    EXPECT_EQ(cap.text(), "");
}

TEST(WSendfile, CountZeroSendsUpToTheEnd)
{
    InputFile f("0123456789");
    const int in = f.fd();
    Pipe p;
    off_t sbytes = -1;
    EXPECT_EQ(W_sendfile_f("test", p.wr(), in, 6, 0, nullptr, &sbytes, 0, 0), 0);
    EXPECT_EQ(sbytes, 4);
    EXPECT_EQ(W_sendfile_f("test", p.wr(), in, 0, 2, nullptr, nullptr, 0, 0), 0);
    p.close_wr();
    EXPECT_EQ(read_all(p.rd()), "678901");
}

TEST(WSendfile, WouldBlockWithNothingSentIsSilentWithFlagsZero)
{
    InputFile f(std::string(100, 'x'));
    const int in = f.fd();
    SmallPair sp;
    sp.fill();
    off_t sbytes = -1;
    LogCapture cap;
    EXPECT_EQ(W_sendfile_f("test", sp.out, in, 0, 100, nullptr, &sbytes, 0, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(sbytes, 0);
    EXPECT_EQ(cap.text(), "");
}

TEST(WSendfile, WouldBlockWithNothingSentIsLoggedForAGuiltyPeer)
{
    InputFile f(std::string(100, 'x'));
    const int in = f.fd();
    SmallPair sp;
    sp.fill();
    off_t sbytes = -1;
    LogCapture cap;
    EXPECT_EQ(W_sendfile_f("test", sp.out, in, 7, 100, nullptr, &sbytes, 0x2, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(cap.text(),
              strf("(ERR)  test: BSD sendfile(%d<-%d, 7, 100, %p, 0, 0x2) ", sp.out, in, (void*)nullptr) +
                  err_text(EAGAIN));
}

TEST(WSendfile, APartialNonBlockingSendIsMinusOneWithErrnoZero)
{
    const size_t size = 4 * 1024 * 1024;
    InputFile f(std::string(size, 'y'));
    const int in = f.fd();
    SmallPair sp;
    ASSERT_EQ(fcntl(sp.out, F_SETFL, O_NONBLOCK), 0);
    off_t sbytes = -1;
    LogCapture cap;
    errno = EDOM;
    EXPECT_EQ(W_sendfile_f("test", sp.out, in, 0, size, nullptr, &sbytes, 0, 1), -1);
    EXPECT_EQ(errno, 0);
    EXPECT_GT(sbytes, 0);
    EXPECT_LT(sbytes, (off_t)size);
    EXPECT_EQ(cap.text(), "");
}

TEST(WSendfile, FailureLine)
{
    Pipe p;
    off_t sbytes = -1;
    LogCapture cap;
    EXPECT_EQ(W_sendfile_f("test", p.wr(), -1, 5, 10, nullptr, &sbytes, 0, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(cap.text(),
              strf("(ERR)  test: BSD sendfile(%d<--1, 5, 10, %p, 0, 0x0) ", p.wr(), (void*)nullptr) +
                  err_text(EBADF));
}

// ---- processes and descriptors ----

TEST(WDup2, FailureLine)
{
    LogCapture cap;
    EXPECT_EQ(W_dup2("test", -1, 100), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(cap.text(), "(ERR)  test: dup2(-1, 100) " + err_text(EBADF));
}

TEST(WDup2, SuccessIsSilent)
{
    Pipe p;
    LogCapture cap;
    const int fd = W_dup2("test", p.rd(), 200);
    EXPECT_EQ(fd, 200);
    close(fd);
    EXPECT_EQ(cap.text(), "");
}

TEST(WPipe, FailurePrintsTheEntriesAsTheyStand)
{
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    LogCapture cap;
    int fds[2] = {-7, -8};
    rlimit low = old;
    low.rlim_cur = 3;  // every free descriptor number lies above the limit
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    const int rc = W_pipe("test", fds);
    const int err = errno;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(err, EMFILE);
    EXPECT_EQ(cap.text(), "(ERR)  test: pipe([-7,-8]) " + err_text(EMFILE));
}

TEST(WPipe, SuccessIsSilent)
{
    int fds[2] = {-1, -1};
    LogCapture cap;
    EXPECT_EQ(W_pipe("test", fds), 0);
    EXPECT_GE(fds[0], 0);
    EXPECT_GE(fds[1], 0);
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(cap.text(), "");
}

// A failing fork cannot be provoked cheaply for root (process limits do not
// bind it); only the quiet success is checked.
TEST(WFork, SuccessIsSilent)
{
    LogCapture cap;
    const pid_t pid = W_fork("test");
    if (pid == 0)
        _exit(7);
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(cap.text(), "");
}

TEST(WKill, FailureLine)
{
    const pid_t me = getpid();
    LogCapture cap;
    EXPECT_EQ(W_kill("test", me, 9999), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(cap.text(), strf("(ERR)  test: kill(%ld, 9999) ", (long)me) + err_text(EINVAL));
}

TEST(WKill, SignalZeroIsSilent)
{
    LogCapture cap;
    EXPECT_EQ(W_kill("test", getpid(), 0), 0);
    EXPECT_EQ(cap.text(), "");
}

// ---- the level of this unit ----

TEST(SyswrapLevel, FailuresFollowTheUnitsOwnModule)
{
    LogCapture cap;
    g_mod_ll[LLMOD_SYSWRAP] = CRIT_level;
    g_mod_ll[LLMOD_DEFAULT] = CRIT_level;
    EXPECT_EQ(W_close("test", -1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(cap.text(), "(ERR)  test: close(fd-1) " + err_text(EBADF));
    cap.clear();
    g_mod_ll[LLMOD_SYSWRAP] = PANIC_level;
    g_mod_ll[LLMOD_DEFAULT] = DEBUG_level;
    EXPECT_EQ(W_close("test", -1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(cap.text(), "");
}
