// Transfers between descriptors: one step at a time through the shared
// buffer, mapped memory or sendfile; descriptors passed between processes;
// the waits; and the difference a verbose transfer makes for a client that
// went away.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "fdio.h"
#include "psensor.h"
#include "logcap.h"
#include "strf.h"
#include "testfs.h"

namespace {

std::string pattern(size_t n)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i)
        s[i] = (char)('a' + i % 23);
    return s;
}

std::string drain(int fd)
{
    std::string out;
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0)
        out.append(buf, (size_t)n);
    return out;
}

class Transfer : public testing::Test {
protected:
    void SetUp() override
    {
        old_pipe_ = signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(fdio_init(MIN_TRF_BUFSIZE), 0);
    }
    void TearDown() override
    {
        fdio_destroy();
        signal(SIGPIPE, old_pipe_);
    }
    TempDir dir_{"fdio"};
    void (*old_pipe_)(int) = nullptr;
};

}  // namespace

TEST_F(Transfer, TheBufferIsAtLeastSixtyFourKibibytes)
{
    LogCapture cap;
    EXPECT_EQ(set_trf_bufsize(65535), -1);
    EXPECT_EQ(get_trf_bufsize(), 65536u);
    EXPECT_EQ(set_trf_bufsize(65536), 0);
    EXPECT_EQ(set_trf_bufsize(131072), 0);
    EXPECT_EQ(get_trf_bufsize(), 131072u);
    EXPECT_EQ(cap.text(), "(ERR)  set_trf_bufsize: transfer buffer size cannot be less than 65536 bytes.\n"
                          "(DBG)  set_trf_bufsize: transfer buffer size remains 65536 bytes.\n"
                          "(DBG)  set_trf_bufsize: FDIO internal buffer size = 131072 bytes.\n");
    fdio_destroy();
    EXPECT_EQ(fdio_init(0), 0);
    EXPECT_EQ(get_trf_bufsize(), 0u);
    EXPECT_EQ(fdio_init(-1), 0);
    EXPECT_EQ(get_trf_bufsize(), DEFAULT_TRF_BUFSIZE);
}

TEST_F(Transfer, ACountOfZeroMovesWhatTheBufferHoldsAndTheOffsetFollows)
{
    const std::string data = pattern(200000);
    const int in = open_src_file(dir_.make("src", data).c_str());
    ASSERT_GE(in, 0);
    const int out = open_dst_file(dir_.at("dst").c_str(), 0);
    ASSERT_GE(out, 0);
    off_t offset = 0;
    uint32_t flags = FDIO_TRF_RWEQ;
    transfer_spec* tsp = new_transfer_spec(in, out, &offset, &flags, nullptr, 0);
    ssize_t moved = 0;
    EXPECT_EQ(transfer(tsp, 0, &moved), 0);
    EXPECT_EQ(moved, 65536);
    EXPECT_EQ(offset, 65536);
    // Step by step to the end of the stream.
    while (!(flags & FDIO_EOF))
        ASSERT_EQ(transfer(tsp, 0, &moved), 0);
    EXPECT_EQ(moved, 0);
    EXPECT_EQ(offset, 200000);
    EXPECT_EQ(slurp(dir_.at("dst")), data);
    free(tsp);
    close(in);
    close(out);
}

TEST_F(Transfer, AnExistingDestinationIsNeverOpened)
{
    const std::string there = dir_.make("there", "x");
    LogCapture cap;
    EXPECT_EQ(open_dst_file(there.c_str(), 0), -1);
    EXPECT_NE(cap.text().find(strf("ERROR(%d)", EEXIST)), std::string::npos) << cap.text();
    // Unlinked at once: it lives by its descriptor.
    const int fd = open_dst_file(dir_.at("ghost").c_str(), FDIO_UNLINK_DST);
    ASSERT_GE(fd, 0);
    struct stat st;
    EXPECT_NE(stat(dir_.at("ghost").c_str(), &st), 0);
    EXPECT_EQ(write(fd, "abc", 3), 3);
    close(fd);
}

TEST_F(Transfer, OutOfMemoryAtItsEndWarnsAndWritesNothing)
{
    char mem[100];
    memset(mem, 'm', sizeof(mem));
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    off_t offset = 100;
    uint32_t flags = 0;
    transfer_spec* tsp = new_transfer_spec(-1, p[1], &offset, &flags, nullptr, 0);
    tsp->mmem = mem;
    tsp->mmlen = sizeof(mem);
    tsp->mmem_out = 1;
    LogCapture cap(WARN_level);
    ssize_t moved = -1;
    EXPECT_EQ(transfer(tsp, 10, &moved), 0);
    EXPECT_EQ(moved, 0);
    EXPECT_EQ(cap.text(), strf("(WRN)  mm_out: attempt to reach over the end of buffer: buf=%p, len=100, offset=100, "
                               "count=10 - new_count=0\n",
                               (void*)mem));
    EXPECT_TRUE(flags & FDIO_EOF);
    // Cut to what remains.
    offset = 95;
    flags = 0;
    cap.clear();
    EXPECT_EQ(transfer(tsp, 10, &moved), 0);
    EXPECT_EQ(moved, 5);
    EXPECT_EQ(offset, 100);
    EXPECT_NE(cap.text().find("count=10 - new_count=5\n"), std::string::npos);
    close(p[1]);
    EXPECT_EQ(drain(p[0]), "mmmmm");
    close(p[0]);
    free(tsp);
}

namespace {
int shorten(char*, ssize_t len, ssize_t* out_len)
{
    *out_len = len - 1;
    return 0;
}
}  // namespace

TEST_F(Transfer, IntoMemoryAndThroughTheCallersProcessing)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(write(p[1], "hello", 5), 5);
    char mem[16] = {};
    off_t offset = 2;
    uint32_t flags = 0;
    transfer_spec* tsp = new_transfer_spec(p[0], -1, &offset, &flags, nullptr, 0);
    tsp->mmem = mem;
    tsp->mmlen = sizeof(mem);
    ssize_t moved = 0;
    EXPECT_EQ(transfer(tsp, 100, &moved), 0);
    EXPECT_EQ(moved, 5);
    EXPECT_EQ(std::string(mem + 2, 5), "hello");
    EXPECT_EQ(offset, 7);
    free(tsp);
    close(p[0]);
    close(p[1]);

    // What must be written whole and was not: the mismatch is told.
    int q[2];
    ASSERT_EQ(pipe(q), 0);
    const int in = open_src_file(dir_.make("src", "abcdef").c_str());
    flags = FDIO_TRF_RWEQ;
    transfer_spec* t2 = new_transfer_spec(in, q[1], nullptr, &flags, nullptr, 0);
    t2->inproc = shorten;
    LogCapture cap(ERR_level);
    EXPECT_EQ(transfer(t2, 0, &moved), 0);
    EXPECT_EQ(moved, 5);
    EXPECT_EQ(cap.text(), strf("(ERR)  transfer: fd in/out=[%d/%d] mismatch: read/write=[6/5]\n", in, q[1]));
    close(q[1]);
    EXPECT_EQ(drain(q[0]), "abcde");
    close(q[0]);
    close(in);
    free(t2);
}

TEST_F(Transfer, AClientThatWentAwayFailsQuietlyOrEndsWellWhenVerbose)
{
    const int in = open_src_file(dir_.make("src", pattern(1000)).c_str());
    for (const bool verbose : {false, true}) {
        int sp[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sp), 0);
        close(sp[1]);
        off_t offset = 0;
        uint32_t flags = verbose ? FDIO_VERBOSE : 0;
        transfer_spec* tsp = new_transfer_spec(in, sp[0], &offset, &flags, nullptr, 0);
        LogCapture cap(ERR_level);
        errno = 0;
        EXPECT_EQ(transfer(tsp, 0, nullptr), verbose ? 0 : -1);
        EXPECT_TRUE(flags & FDIO_ERR_WRITE);
        if (verbose) {
            EXPECT_THAT(cap.text(), testing::HasSubstr(strf("(ERR)  transfer (%d->%d, 65536 bytes) write ERROR(%d): ",
                                                            in, sp[0], EPIPE)));
        } else {
            EXPECT_EQ(errno, EPIPE);
            EXPECT_EQ(cap.text(), "");
        }
        free(tsp);
        close(sp[0]);
    }
    close(in);
}

TEST_F(Transfer, ByStreamSocketTheFileGoesBySendfile)
{
    const std::string data = pattern(300000);
    const std::string path = dir_.make("movie.ts", data);
    int sp[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sp), 0);
    struct stat src, dst;
    ASSERT_EQ(stat(path.c_str(), &src), 0);
    ASSERT_EQ(fstat(sp[0], &dst), 0);
    uint32_t flags = 0;
    EXPECT_EQ(check_can_sendfile(dst.st_mode, dst.st_mode, SOCK_STREAM, &flags), SF_SRC_NOTREG);
    EXPECT_EQ(check_can_sendfile(src.st_mode, src.st_mode, SOCK_STREAM, &flags), SF_DST_NOTSOCK);
    EXPECT_EQ(check_can_sendfile(src.st_mode, dst.st_mode, SOCK_DGRAM, &flags), SF_DST_NOTSTREAM);
    EXPECT_EQ(flags, 0u);
    EXPECT_EQ(check_can_sendfile(src.st_mode, dst.st_mode, SOCK_STREAM, &flags), 0);
    EXPECT_EQ(flags, FDIO_SENDFILE);
    int bsd = 0;
    EXPECT_EQ(use_sendfile(flags, &bsd), 1);
    EXPECT_EQ(bsd, 2);

    const int in = open_src_file(path.c_str());
    off_t offset = 0;
    LogCapture cap(INFO_level);
    transfer_spec* tsp = new_transfer_spec(in, sp[0], &offset, &flags, nullptr, 0);
    EXPECT_EQ(cap.text(), strf("(INF)  new_transfer_spec(%p): SENDFILE on for fd%d<-fd%d\n", (void*)tsp, sp[0], in));
    std::string got;
    std::thread reader([&] { got = drain(sp[1]); });
    while (!(flags & FDIO_EOF))
        ASSERT_EQ(transfer(tsp, 0, nullptr), 0);
    close(sp[0]);
    reader.join();
    EXPECT_EQ(offset, 300000);
    EXPECT_EQ(got, data);
    close(sp[1]);
    close(in);
    free(tsp);
}

TEST_F(Transfer, ToADatagramAddressBySendto)
{
    const int rx = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(rx, (sockaddr*)&at, sizeof(at)), 0);
    socklen_t len = sizeof(at);
    getsockname(rx, (sockaddr*)&at, &len);
    const int tx = socket(AF_INET, SOCK_DGRAM, 0);
    const int in = open_src_file(dir_.make("src", "datagram!").c_str());
    uint32_t flags = FDIO_SENDTO;
    transfer_spec* tsp = new_transfer_spec(in, tx, nullptr, &flags, &at, sizeof(at));
    ssize_t moved = 0;
    EXPECT_EQ(transfer(tsp, 0, &moved), 0);
    EXPECT_EQ(moved, 9);
    char buf[64];
    EXPECT_EQ(recv(rx, buf, sizeof(buf), 0), 9);
    EXPECT_EQ(std::string(buf, 9), "datagram!");
    close(rx);
    close(tx);
    close(in);
    free(tsp);
}

TEST_F(Transfer, ADescriptorPassesToAnotherProcessAndIsReadThroughThere)
{
    const std::string path = dir_.make("secret", "passed along");
    int sp[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sp), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(sp[0]);
        const int fd = open(path.c_str(), O_RDONLY);
        char tag[] = "fd";
        _exit(send_fd(sp[1], tag, 2, fd) == 2 ? 0 : 1);
    }
    close(sp[1]);
    char tag[8] = {};
    int got = -1;
    EXPECT_EQ(recv_fd(sp[0], tag, sizeof(tag), &got, 0), 2);
    EXPECT_STREQ(tag, "fd");
    ASSERT_GE(got, 0);
    EXPECT_EQ(drain(got), "passed along");
    close(got);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    // The peer is gone: the end of the connection is told.
    LogCapture cap;
    EXPECT_EQ(recv_fd(sp[0], tag, sizeof(tag), &got, 0), 0);
    EXPECT_THAT(cap.text(), testing::MatchesRegex("\\(ERR\\)  recv_fd: recvmsg\\([0-9]+, 0x[0-9a-f]+, 0\\) "
                                                  "ERROR\\(0\\): connection has been closed by peer\n"));
    close(sp[0]);
}

TEST_F(Transfer, PlainDataThroughRecvFdCountsAndGivesNoDescriptor)
{
    int sp[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sp), 0);
    ASSERT_EQ(write(sp[1], "plain", 5), 5);
    char buf[16] = {};
    int got = 42;
    LogCapture cap;
    EXPECT_EQ(recv_fd(sp[0], buf, sizeof(buf), &got, 0), 5);
    EXPECT_EQ(got, -1);
    EXPECT_STREQ(buf, "plain");
    EXPECT_EQ(cap.text(), "");
    ASSERT_EQ(write(sp[1], "again", 5), 5);
    EXPECT_EQ(recv_fd(sp[0], buf, sizeof(buf), &got, FDIO_VERBOSE), 5);
    EXPECT_THAT(cap.text(), testing::MatchesRegex("\\(ERR\\)  recv_fd: invalid control message structure: "
                                                  "cmsg=\\(nil\\), clen=0\n"));
    // Nothing there on a non-blocking socket: quiet unless verbose.
    fcntl(sp[0], F_SETFL, O_NONBLOCK);
    cap.clear();
    EXPECT_EQ(recv_fd(sp[0], buf, sizeof(buf), &got, 0), -1);
    EXPECT_EQ(cap.text(), "");
    close(sp[0]);
    close(sp[1]);
}

TEST_F(Transfer, TheWaitsSayReadyNotYetOrInvalid)
{
    int sp[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sp), 0);
    EXPECT_EQ(wait_to_read(sp[0], 10), 1);
    EXPECT_EQ(wait_to_write(sp[0], 10), 0);
    ASSERT_EQ(write(sp[1], "x", 1), 1);
    EXPECT_EQ(wait_to_read(sp[0], 10), 0);
    EXPECT_EQ(poll_on_socket(sp[0], POLLIN | POLLOUT, 10), POLLIN | POLLOUT);
    LogCapture cap;
    EXPECT_EQ(test_read_fd(sp[0], 10), 0);
    EXPECT_EQ(cap.text(), strf("(DBG)  test_read_fd: fd=%d is readable [1 bytes]\n", sp[0]));
    EXPECT_EQ(test_read_fd(sp[0], 10), 1);
    close(sp[1]);
    cap.clear();
    EXPECT_EQ(test_read_fd(sp[0], 10), -1);
    EXPECT_EQ(cap.text(), strf("(ERR)  test_read_fd: cannot read from fd=%d, nrd=0\n", sp[0]));
    close(sp[0]);
    EXPECT_EQ(wait_to_read(sp[0], 10), -1);
}

TEST_F(Transfer, APositionedReadThatFailsReadsNothing)
{
    char buf[8];
    EXPECT_EQ(npread(-1, buf, sizeof(buf), 0, 0), 0);
    EXPECT_EQ(npread(-1, buf, 0, 0, 0), 0);
    const int in = open_src_file(dir_.make("src", "0123456789").c_str());
    EXPECT_EQ(npread(in, buf, 4, 3, 0), 4);
    EXPECT_EQ(std::string(buf, 4), "3456");
    close(in);
    off_t off = 0;
    EXPECT_EQ(nsendfile(1, in, &off, 0, 0, 0), 0);
}

TEST(TransferDeathTest, AnEmptyWriteOrASendfileWithoutOffsetStopsTheProcess)
{
    uint32_t flags = 0;
    transfer_spec tsp{};
    tsp.flags = &flags;
    EXPECT_DEATH(transfer_out(&tsp, "x", 0), "Assertion failed: \\(0\\), function transfer_out");
    EXPECT_DEATH(nsendfile(1, 0, nullptr, 10, 0, 0), "Assertion failed: \\(0\\), function nsendfile");
}

TEST_F(Transfer, TheDataSensorsCountAStepWhenTheyAreOn)
{
    ASSERT_EQ(psensors_init(nullptr, 1), 0);
    const int in = open_src_file(dir_.make("src", pattern(1000)).c_str());
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    off_t offset = 0;
    uint32_t flags = 0;
    transfer_spec* tsp = new_transfer_spec(in, p[1], &offset, &flags, nullptr, 0);
    EXPECT_EQ(transfer(tsp, 0, nullptr), 0);
    for (int s : {PRF_DATAIN, PRF_DATAOUT}) {
        const timespec& t = g_psensor[s].sensor.accum.tm;
        EXPECT_TRUE(t.tv_sec != 0 || t.tv_nsec != 0) << g_psensor[s].nametag;
    }
    EXPECT_EQ(wait_to_read(p[0], 10), 0);
    const timespec& idle = g_psensor[PRF_EVIDLE].sensor.accum.tm;
    EXPECT_TRUE(idle.tv_sec != 0 || idle.tv_nsec != 0);
    psensors_destroy();
    for (auto& s : g_psensor)
        s.enabled = 0;
    free(tsp);
    close(in);
    close(p[0]);
    close(p[1]);
}
