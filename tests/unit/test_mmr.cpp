// The ring: written through one view, read through the other, across the wrap.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "childrun.h"
#include "logcap.h"
#include "mmr.h"
// The ring's private record: these tests check its invariants (head, size,
// both views) field by field, which no public call shows.
#include "mmr_ring.h"
#include "dstream.h"

namespace {

const size_t kPage = (size_t)sysconf(_SC_PAGESIZE);

// By default the ring's stream is already known, as after its first chunk,
// so tests can put any bytes; detection itself is tested on its own.
struct Ring {
    mmr_t h = nullptr;
    explicit Ring(size_t sz, bool known = true)
    {
        EXPECT_EQ(mmr_create(&h, sz), 0);
        if (known && h) {
            r()->pld_pos = 0;
            r()->stype = STY_MPEGTS;
            r()->ts_len = 188;
        }
    }
    ~Ring()
    {
        if (h)
            mmr_destroy(h);
    }
    mm_ring* r() const { return static_cast<mm_ring*>(h); }
};

// Puts n bytes of a pattern in at the write position; returns the pattern.
std::vector<uint8_t> put(mmr_t h, size_t n, uint8_t seed)
{
    mm_point pt{};
    uint8_t* p = mmr_iget(h, &pt);
    EXPECT_NE(p, nullptr);
    EXPECT_GE(pt.len, n);
    std::vector<uint8_t> data(n);
    for (size_t i = 0; i < n; ++i)
        data[i] = (uint8_t)(seed + i * 7);
    memcpy(p, data.data(), n);
    pt.len = n;
    EXPECT_EQ(mmr_iput(h, &pt), 0);
    return data;
}

void drop(mmr_t h, size_t n)
{
    iovec iov{nullptr, n};
    mmr_oput(h, &iov, 1);
}

}  // namespace

TEST(Mmr, CreateLaysOutTwoViewsAndADeadZone)
{
    LogCapture cap;
    Ring ring(4 * kPage, false);
    mm_ring* mr = ring.r();
    EXPECT_TRUE(mr->is_ready);
    EXPECT_EQ(mr->buflen, 4 * kPage);
    EXPECT_EQ(mr->mm_len, 8 * kPage + kPage);
    EXPECT_EQ(mr->ext, mr->buf + mr->buflen);
    EXPECT_EQ(mr->ddz, mr->buf + 2 * mr->buflen);
    EXPECT_EQ(mr->ddz_len, kPage);
    EXPECT_EQ(mr->pld_pos, -1);
    EXPECT_EQ(mr->pld_size, 0u);
    struct stat st;
    ASSERT_EQ(fstat(mr->sfd, &st), 0);
    EXPECT_EQ((size_t)st.st_size, 2 * mr->buflen + kPage);
    EXPECT_EQ((st.st_mode & 0777), 0600u);
    EXPECT_EQ(cap.text(), std::string("(DBG)  mmr_create: ") + mr->sname + " OK\n");
}

TEST(Mmr, ObjectLivesExactlyAsLongAsTheRing)
{
    mmr_t h = nullptr;
    ASSERT_EQ(mmr_create(&h, kPage), 0);
    const std::string name = static_cast<mm_ring*>(h)->sname;
    EXPECT_EQ(name, "/mmr." + std::to_string(getpid()) + "." + std::to_string(g_mmr_count));
    EXPECT_EQ(access(("/dev/shm" + name).c_str(), F_OK), 0);
    mmr_destroy(h);
    EXPECT_EQ(access(("/dev/shm" + name).c_str(), F_OK), -1);
}

TEST(Mmr, TwoRingsHaveDifferentNames)
{
    Ring a(kPage), b(kPage);
    EXPECT_STRNE(a.r()->sname, b.r()->sname);
}

// The failed create keeps its context (the process ends on such a failure),
// so it runs in a child that leaves without a leak check.
TEST(Mmr, ARingAfterAFailedOneSkipsANumber)
{
    EXPECT_EXIT(
        {
            LogCapture cap(DEBUG_level);
            const int next = g_mmr_count + 1;
            const std::string taken = "/mmr." + std::to_string(getpid()) + "." + std::to_string(next);
            int fd = shm_open(taken.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
            if (fd < 0)
                _exit(10);
            mmr_t h = nullptr;
            int rc = mmr_create(&h, kPage);
            shm_unlink(taken.c_str());
            if (rc != 22 || h != nullptr)
                _exit(11);
            if (cap.text() != "(ERR)  mmr_create: shm_open(" + taken + ") ERROR(17): File exists\n")
                _exit(12);
            if (mmr_create(&h, kPage) != 0)
                _exit(13);
            const std::string want = "/mmr." + std::to_string(getpid()) + "." + std::to_string(next + 1);
            const bool ok = want == static_cast<mm_ring*>(h)->sname;
            mmr_destroy(h);
            _exit(ok ? 0 : 14);
        },
        testing::ExitedWithCode(0), "");
}

TEST(MmrDeathTest, SizeNotAPageMultipleStopsTheProcess)
{
    EXPECT_DEATH(
        {
            mmr_t h = nullptr;
            g_log.fp = stderr;
            g_log.time_format = f_NO_TIME;
            mmr_create(&h, 1024);
        },
        "\\(PNC\\)  ASSERT at:\n==\nAssertion failed: \\(0\\), function mmr_create, file lib/mmr.cpp");
}

TEST(MmrDeathTest, SizeBelow1024StopsTheProcess)
{
    EXPECT_DEATH(
        {
            mmr_t h = nullptr;
            mmr_create(&h, 512);
        },
        "Assertion failed: \\(0\\), function mmr_create, file lib/mmr.cpp");
}

TEST(Mmr, ByteWrittenInOneViewShowsInTheOther)
{
    Ring ring(2 * kPage);
    mm_ring* mr = ring.r();
    for (size_t x : {(size_t)0, (size_t)1, kPage, mr->buflen - 1}) {
        mr->buf[x] = (uint8_t)(x ^ 0x5a);
        EXPECT_EQ(mr->buf[mr->buflen + x], (uint8_t)(x ^ 0x5a));
        mr->buf[mr->buflen + x] = (uint8_t)(x ^ 0xa5);
        EXPECT_EQ(mr->buf[x], (uint8_t)(x ^ 0xa5));
    }
}

TEST(MmrDeathTest, ReadingTheDeadZoneFaults)
{
    Ring ring(kPage);
    volatile uint8_t* dz = ring.r()->buf + 2 * ring.r()->buflen;
    EXPECT_DEATH({ (void)*dz; }, "");
}

TEST(MmrDeathTest, WritingTheDeadZoneFaults)
{
    Ring ring(kPage);
    volatile uint8_t* dz = ring.r()->buf + 2 * ring.r()->buflen;
    EXPECT_DEATH({ *dz = 1; }, "");
}

TEST(Mmr, WriteFromTheLastByteRunsThroughTheOverlay)
{
    Ring ring(2 * kPage);
    mm_ring* mr = ring.r();
    const size_t n = mr->buflen;
    put(ring.h, n - 1, 1);
    drop(ring.h, n - 1);
    ASSERT_EQ(mr->pld_pos, (off_t)(n - 1));
    ASSERT_EQ(mr->pld_size, 0u);

    mm_point pt{};
    uint8_t* p = mmr_iget(ring.h, &pt);
    ASSERT_EQ(p, mr->buf + n - 1);
    ASSERT_EQ(pt.len, n);
    std::vector<uint8_t> data(n);
    for (size_t i = 0; i < n; ++i)
        data[i] = (uint8_t)(i * 13 + 3);
    memcpy(p, data.data(), n);  // one plain copy across the wrap
    pt.len = n;
    ASSERT_EQ(mmr_iput(ring.h, &pt), 0);

    EXPECT_EQ(memcmp(mr->buf + n - 1, data.data(), n), 0);
    EXPECT_EQ(mr->buf[n - 1], data[0]);
    EXPECT_EQ(memcmp(mr->buf, data.data() + 1, n - 1), 0);
}

TEST(Mmr, IgetOnAFullRingGivesNullAndLeavesThePoint)
{
    Ring ring(kPage);
    put(ring.h, kPage, 9);
    mm_point pt{123, 456};
    EXPECT_EQ(mmr_iget(ring.h, &pt), nullptr);
    EXPECT_EQ(pt.pos, 123);
    EXPECT_EQ(pt.len, 456u);
}

TEST(Mmr, IgetOnAnEmptyRingStartsAtZero)
{
    Ring ring(kPage);
    mm_point pt{};
    EXPECT_EQ(mmr_iget(ring.h, &pt), ring.r()->buf);
    EXPECT_EQ(pt.pos, 0);
    EXPECT_EQ(pt.len, kPage);
}

TEST(Mmr, IgetWithOneByteFreeAtTheEnd)
{
    Ring ring(kPage);
    put(ring.h, kPage - 1, 2);
    mm_point pt{};
    EXPECT_EQ(mmr_iget(ring.h, &pt), ring.r()->buf + kPage - 1);
    EXPECT_EQ(pt.pos, (off_t)(kPage - 1));
    EXPECT_EQ(pt.len, 1u);
}

TEST(Mmr, IgetWrapsWhenTheTailReachesTheEnd)
{
    Ring ring(kPage);
    put(ring.h, kPage, 2);
    drop(ring.h, 100);  // head at 100, tail at buflen + 100 - 100
    mm_point pt{};
    // Now pld_pos + pld_size == buflen: the tail is at offset 0.
    ASSERT_EQ(ring.r()->pld_pos + (off_t)ring.r()->pld_size, (off_t)kPage);
    EXPECT_EQ(mmr_iget(ring.h, &pt), ring.r()->buf);
    EXPECT_EQ(pt.pos, 0);
    EXPECT_EQ(pt.len, 100u);
}

TEST(Mmr, HeadAtExactlyBuflenStaysThereAndStillWorks)
{
    Ring ring(kPage);
    mm_ring* mr = ring.r();
    put(ring.h, kPage - 10, 1);
    drop(ring.h, kPage - 10);
    auto data = put(ring.h, 50, 77);  // 10 bytes before the end, 40 behind it
    drop(ring.h, 10);
    ASSERT_EQ(mr->pld_pos, (off_t)kPage);
    ASSERT_EQ(mr->pld_size, 40u);

    mm_point pt{};
    EXPECT_EQ(mmr_iget(ring.h, &pt), mr->buf + 40);
    EXPECT_EQ(pt.len, kPage - 40);

    int p[2];
    ASSERT_EQ(pipe(p), 0);
    EXPECT_EQ(mmr_snapshot(ring.h, p[1]), 40);
    uint8_t got[40];
    ASSERT_EQ(read(p[0], got, sizeof(got)), 40);
    EXPECT_EQ(memcmp(got, data.data() + 10, 40), 0);
    close(p[0]);
    close(p[1]);
}

TEST(Mmr, OputPastTheEndWrapsOnce)
{
    Ring ring(kPage);
    mm_ring* mr = ring.r();
    put(ring.h, kPage - 10, 1);
    drop(ring.h, kPage - 10);
    put(ring.h, 50, 1);
    LogCapture cap;
    mmr_set_verbosity(MMR_OPUT_VERBOSE);
    iovec iov[2] = {{nullptr, 5}, {nullptr, 15}};
    EXPECT_EQ(mmr_oput(ring.h, iov, 2), 30);
    mmr_set_verbosity(0);
    EXPECT_EQ(mr->pld_pos, 10);
    EXPECT_EQ(cap.text(), "(DBG)  mmr_oput: 2/20 datagrams/bytes out\n");
}

TEST(Mmr, SnapshotOfAWrappedRingIsOneWriteOfThePayloadOldestFirst)
{
    const size_t n = 16 * kPage;
    Ring ring(n);
    put(ring.h, n, 1);
    drop(ring.h, n / 2 + 3);
    auto fresh = put(ring.h, n / 4, 200);  // crosses the wrap
    mm_ring* mr = ring.r();
    const size_t want = mr->pld_size;
    ASSERT_EQ(want, n - (n / 2 + 3) + n / 4);

    std::vector<uint8_t> expect(mr->buf + mr->pld_pos, mr->buf + mr->pld_pos + want);
    ASSERT_EQ(memcmp(expect.data() + want - fresh.size(), fresh.data(), fresh.size()), 0);

    char path[] = "/tmp/kst-snap-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    // The whole payload comes back from one write call.
    EXPECT_EQ(mmr_snapshot(ring.h, fd), (ssize_t)want);
    std::vector<uint8_t> got(want);
    ASSERT_EQ(pread(fd, got.data(), want, 0), (ssize_t)want);
    EXPECT_EQ(got, expect);
    close(fd);
    unlink(path);
    EXPECT_EQ(mr->pld_size, want);  // a snapshot changes nothing
}

TEST(Mmr, SnapshotWithoutPayloadWarnsAndWritesNothing)
{
    Ring ring(kPage);
    LogCapture cap;
    EXPECT_EQ(mmr_snapshot(ring.h, 1), 0);
    EXPECT_EQ(cap.text(), "(WRN)  mmr_snapshot: no payload, nothing to write\n");
}

TEST(Mmr, InfoCopiesTheState)
{
    Ring ring(kPage);
    put(ring.h, 100, 1);
    mmr_add_pkts(ring.h, 3);
    mm_info info;
    memset(&info, 0xff, sizeof(info));
    EXPECT_EQ(mmr_get_info(ring.h, &info), 0);
    EXPECT_EQ(info.pld_size, 100u);
    EXPECT_EQ(info.ts_len, 188u);
    EXPECT_EQ(info.stype.num, STY_MPEGTS.num);
    EXPECT_EQ(info.first_pktnum, 0u);
    EXPECT_EQ(info.last_pktnum, 3u);
}

TEST(Mmr, AddingNoPacketsStillTurnsNumberingOn)
{
    Ring ring(kPage);
    EXPECT_FALSE(ring.r()->using_pktnums);
    mmr_add_pkts(ring.h, 0);
    EXPECT_TRUE(ring.r()->using_pktnums);
    EXPECT_EQ(ring.r()->last_pktnum, 0);
}

TEST(Mmr, AdjustKeepsTheSpanOfNumbers)
{
    Ring ring(kPage);
    ring.r()->first_pktnum = 100;
    ring.r()->last_pktnum = 150;
    LogCapture cap;
    EXPECT_EQ(mmr_adjust_pktnum(ring.h, 1), 51u);
    EXPECT_EQ(ring.r()->first_pktnum, 1);
    EXPECT_EQ(ring.r()->last_pktnum, 51);
    EXPECT_EQ(cap.text(), "(INF)  mmr_adjust_pktnum: 100/150 -> 1/51\n");
}

TEST(MmrDeathTest, PacketNumbersOutOfOrderStopTheProcess)
{
    Ring ring(kPage);
    EXPECT_DEATH(
        {
            ring.r()->first_pktnum = 5;
            ring.r()->last_pktnum = 4;
            mmr_add_pkts(ring.h, 0);
        },
        "Assertion failed: \\(mr->first_pktnum >= 0 && mr->first_pktnum <= mr->last_pktnum\\), function "
        "mmr_add_pkts");
}

TEST(MmrDeathTest, PuttingMoreThanTheFreeSpaceStopsTheProcess)
{
    Ring ring(kPage);
    EXPECT_DEATH(
        {
            mm_point pt{};
            pt.len = kPage + 1;
            mmr_iput(ring.h, &pt);
        },
        "Assertion failed: \\(0\\), function mmr_iput_ex, file lib/mmr.cpp");
}

TEST(MmrDeathTest, ReleasingMoreThanThePayloadStopsTheProcess)
{
    Ring ring(kPage);
    put(ring.h, 10, 1);
    EXPECT_DEATH({ drop(ring.h, 11); }, "Assertion failed: \\(0\\), function mmr_oput, file lib/mmr.cpp");
}

TEST(Mmr, OptionsCopyInAndOut)
{
    Ring ring(kPage);
    mm_opt opt{};
    mmr_get_opt(ring.h, &opt);
    EXPECT_FALSE(opt.no_mtu_pack);
    opt.no_mtu_pack = true;
    mmr_set_opt(ring.h, &opt);
    mm_opt back{};
    mmr_get_opt(ring.h, &back);
    EXPECT_TRUE(back.no_mtu_pack);
}

namespace {

std::vector<uint8_t> ts_stream(size_t npkts)
{
    std::vector<uint8_t> v(npkts * 188, 0x55);
    for (size_t i = 0; i < npkts; ++i)
        v[i * 188] = MPEG_TS_SYNC;
    return v;
}

int put_bytes(mmr_t h, const std::vector<uint8_t>& bytes)
{
    mm_point pt{};
    uint8_t* p = mmr_iget(h, &pt);
    memcpy(p, bytes.data(), bytes.size());
    pt.len = bytes.size();
    return mmr_iput(h, &pt);
}

}  // namespace

TEST(Mmr, FirstChunkFixesStreamTypeAndPacketLength)
{
    Ring ring(kPage, false);
    LogCapture cap;
    ASSERT_EQ(put_bytes(ring.h, ts_stream(3)), 0);
    EXPECT_EQ(ring.r()->pld_pos, 0);
    EXPECT_EQ(ring.r()->pld_size, 564u);
    EXPECT_EQ(ring.r()->stype.num, STY_MPEGTS.num);
    EXPECT_EQ(ring.r()->ts_len, 188u);
    const std::string log = cap.text();
    EXPECT_NE(log.find("(INF)  mmr_iput_ex: TS stream detected\n(INF)  mmr_iput_ex: [" +
                       std::string(ring.r()->sname) + "] TS pkt_len=188\n"),
              std::string::npos)
        << log;
    // Later chunks are not looked at.
    std::vector<uint8_t> noise(300, 0x00);
    cap.clear();
    EXPECT_EQ(put_bytes(ring.h, noise), 0);
    EXPECT_EQ(cap.text(), "");
}

TEST(Mmr, JunkBeforeTheFirstPacketIsKeptAndWarnedOf)
{
    Ring ring(kPage, false);
    std::vector<uint8_t> chunk = {1, 2, 3, 4, 5};
    auto ts = ts_stream(3);
    chunk.insert(chunk.end(), ts.begin(), ts.end());
    LogCapture cap;
    ASSERT_EQ(put_bytes(ring.h, chunk), 0);
    EXPECT_EQ(ring.r()->pld_pos, 0);
    EXPECT_EQ(ring.r()->pld_size, chunk.size());
    EXPECT_NE(cap.text().find("(WRN)  mmr_iput_ex: UNALIGNED data: TS starts at byte 5, orig/adj_len: 569/564 bytes\n"),
              std::string::npos)
        << cap.text();
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(mmr_snapshot(ring.h, p[1]), (ssize_t)chunk.size());
    std::vector<uint8_t> got(chunk.size());
    ASSERT_EQ(read(p[0], got.data(), got.size()), (ssize_t)got.size());
    EXPECT_EQ(got, chunk);  // the snapshot starts with the junk
    close(p[0]);
    close(p[1]);
}

TEST(Mmr, AFirstChunkOfNoiseIsRefused)
{
    Ring ring(kPage, false);
    std::vector<uint8_t> noise(300);
    for (size_t i = 0; i < noise.size(); ++i)
        noise[i] = (uint8_t)(i * 37 + 1) == MPEG_TS_SYNC ? 0 : (uint8_t)(i * 37 + 1);
    LogCapture cap(ERR_level);
    EXPECT_EQ(put_bytes(ring.h, noise), MMR_NOTTS);
    EXPECT_EQ(cap.text(), "(ERR)  mmr_iput_ex: no header (buflen=300); non-TS/RTP stream?\n");
    EXPECT_EQ(ring.r()->pld_size, 300u);
    EXPECT_EQ(ring.r()->pld_pos, -1);
    mm_info info{};
    mmr_get_info(ring.h, &info);
    EXPECT_EQ(info.ts_len, 0u);
    LogCapture warn;
    EXPECT_EQ(mmr_snapshot(ring.h, 1), 0);
    EXPECT_EQ(warn.text(), "(WRN)  mmr_snapshot: no payload, nothing to write\n");
}

TEST(Mmr, AFirstDatagramOfRtpGivesTheWholePacketLength)
{
    Ring ring(kPage, false);
    std::vector<uint8_t> dgram = {0x80, 33, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1};
    auto ts = ts_stream(7);
    dgram.insert(dgram.end(), ts.begin(), ts.end());
    mm_point pt{};
    uint8_t* p = mmr_iget(ring.h, &pt);
    memcpy(p, dgram.data(), dgram.size());
    pt.len = dgram.size();
    ASSERT_EQ(mmr_iput_ex(ring.h, &pt, true), 0);
    EXPECT_EQ(ring.r()->stype.num, STY_RTP.num);
    EXPECT_EQ(ring.r()->ts_len, 1328u);
}

TEST(Mmr, ManyWrapsKeepTheNewestBytes)
{
    Ring ring(kPage);
    mm_ring* mr = ring.r();
    std::vector<uint8_t> all;
    for (int round = 0; round < 50; ++round) {
        auto d = put(ring.h, 1000, (uint8_t)round);
        all.insert(all.end(), d.begin(), d.end());
        if (mr->pld_size > kPage - 1000)
            drop(ring.h, mr->pld_size - (kPage - 1000));
    }
    std::vector<uint8_t> held(mr->buf + mr->pld_pos, mr->buf + mr->pld_pos + mr->pld_size);
    EXPECT_TRUE(std::equal(held.begin(), held.end(), all.end() - (long)held.size()));
}

namespace {

void no_restart_handler(int) {}

// A payload of pages pages in a known ring, from offset 0.
std::vector<uint8_t> fill_known(mmr_t h, size_t n)
{
    return put(h, n, 9);
}

}  // namespace

TEST(Mmr, ASnapshotCutShortByASignalGoesOnToTheWholePayload)
{
    const size_t n = 16 * kPage;
    Ring ring(n);
    const auto want = fill_known(ring.h, n);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_GE(fcntl(p[1], F_SETPIPE_SZ, (int)kPage), (int)kPage);
    struct sigaction sa = {}, old = {};
    sa.sa_handler = no_restart_handler;  // no SA_RESTART: the write returns what it wrote
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);

    const pthread_t writer = pthread_self();
    std::vector<uint8_t> got;
    bool interrupted = false;
    std::thread reader([&] {
        // The pipe is full while the write still holds most of the payload:
        // the writer waits inside its one write, and the signal cuts it short.
        int queued = 0;
        for (int i = 0; i < 5000 && queued < (int)kPage; ++i) {
            (void)ioctl(p[0], FIONREAD, &queued);
            if (queued < (int)kPage)
                usleep(1000);
        }
        interrupted = (queued == (int)kPage);
        pthread_kill(writer, SIGUSR1);
        uint8_t buf[4096];
        ssize_t r;
        while ((r = read(p[0], buf, sizeof(buf))) > 0)
            got.insert(got.end(), buf, buf + r);
    });
    LogCapture cap;
    const ssize_t nwr = mmr_snapshot(ring.h, p[1]);
    close(p[1]);
    reader.join();
    close(p[0]);
    sigaction(SIGUSR1, &old, nullptr);
    ASSERT_TRUE(interrupted) << "the pipe never filled";
    EXPECT_EQ(nwr, (ssize_t)n);
    EXPECT_EQ(got, want);
    EXPECT_EQ(cap.text(), "");
}

TEST(Mmr, ASnapshotThatCannotBeFinishedSaysHowMuchLandedAndFails)
{
    const size_t n = 3 * kPage;
    const size_t limit = 10000;
    run_in_child([] { return std::string(); },
                 [&] {
                     Ring ring(n);
                     const auto want = fill_known(ring.h, n);
                     const rlimit rl{limit, limit};
                     ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &rl), 0);
                     signal(SIGXFSZ, SIG_IGN);
                     char path[] = "/tmp/kst-snap-XXXXXX";
                     const int fd = mkstemp(path);
                     ASSERT_GE(fd, 0);
                     LogCapture cap;
                     EXPECT_EQ(mmr_snapshot(ring.h, fd), -1);
                     EXPECT_THAT(cap.text(),
                                 ::testing::MatchesRegex(
                                     "\\(ERR\\)  mmr_snapshot: write\\([0-9]+, 0x[0-9a-f]+, " +
                                     std::to_string(n - limit) + "\\) ERROR\\(" + std::to_string(EFBIG) +
                                     "\\): [^\n]*\n"
                                     "\\(ERR\\)  mmr_snapshot: \\[/mmr\\.[0-9]+\\.[0-9]+\\] " +
                                     std::to_string(limit) + " of " + std::to_string(n) + " bytes written\n"));
                     // The file keeps what landed.
                     std::vector<uint8_t> got(n);
                     EXPECT_EQ(pread(fd, got.data(), n, 0), (ssize_t)limit);
                     got.resize(limit);
                     EXPECT_EQ(got, std::vector<uint8_t>(want.begin(), want.begin() + limit));
                     close(fd);
                     unlink(path);
                 },
                 "the size-limited writer");
}
