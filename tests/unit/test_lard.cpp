// The flight recorder: written through the writer's views, read through a
// reader's read-only mapping, across the wrap; crash detection; bad objects.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstring>
#include <string>

#include "errcap.h"
#include "lard.h"

namespace {

const size_t kPage = (size_t)sysconf(_SC_PAGESIZE);

std::string ring_name(const char* what)
{
    return "kst_test_lard." + std::to_string(getpid()) + "." + what;
}

bool shm_exists(const std::string& oname)
{
    struct stat st;
    return stat(("/dev/shm/" + oname).c_str(), &st) == 0;
}

off_t shm_size(const std::string& oname)
{
    struct stat st;
    return stat(("/dev/shm/" + oname).c_str(), &st) == 0 ? st.st_size : -1;
}

// Removes both objects of a name whatever a test left.
struct Cleanup {
    std::string name;
    explicit Cleanup(std::string n) : name(std::move(n)) {}
    ~Cleanup()
    {
        shm_unlink(("/" + name + ".meta").c_str());
        shm_unlink(("/" + name + ".dat").c_str());
    }
};

std::string text_of(const char* p, size_t n)
{
    return std::string(p, n);
}

// What a descriptor received: the snapshot's bytes.
std::string snapshot_of(lard_t lh, ssize_t* rc)
{
    FILE* tmp = tmpfile();
    *rc = lard_snapshot(lh, fileno(tmp));
    std::string out;
    char buf[4096];
    off_t off = 0;
    ssize_t n;
    while ((n = pread(fileno(tmp), buf, sizeof(buf), off)) > 0) {
        out.append(buf, (size_t)n);
        off += n;
    }
    fclose(tmp);
    return out;
}

// A child that makes a ring and then ends as told; waits for it.
void child_ring(const std::string& name, bool close_first)
{
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        lard_t lh = lard_create(name.c_str(), 1);
        if (lh == nullptr)
            _exit(2);
        lard_puts(lh, "last words\n");
        if (close_first)
            lard_close(lh);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace

TEST(Lard, CreateMakesBothObjectsAndDestroyRemovesThem)
{
    const std::string name = ring_name("objects");
    Cleanup c(name);
    lard_t lh = lard_create(name.c_str(), 2);
    ASSERT_NE(lh, nullptr);
    EXPECT_EQ(shm_size(name + ".meta"), (off_t)sizeof(lard_meta));
    EXPECT_EQ(shm_size(name + ".dat"), (off_t)(kPage + 2 * 2 * kPage));
    EXPECT_EQ(lard_capacity(lh), 2 * kPage);
    const lard_meta* m = lard_get_meta(lh);
    EXPECT_EQ(m->seg_pages, 2u);
    EXPECT_EQ(m->owner_pid, getpid());
    EXPECT_EQ(lard_owner_pid(lh), getpid());
    EXPECT_FALSE(m->is_closed);
    EXPECT_EQ(m->pld_len, 0u);
    lard_destroy(lh);
    EXPECT_FALSE(shm_exists(name + ".meta"));
    EXPECT_FALSE(shm_exists(name + ".dat"));
}

TEST(Lard, CloseLeavesTheObjectsMarkedClosed)
{
    const std::string name = ring_name("close");
    Cleanup c(name);
    lard_t lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    lard_close(lh);
    ASSERT_TRUE(shm_exists(name + ".meta"));
    ASSERT_TRUE(shm_exists(name + ".dat"));
    lard_t rd = lard_open(name.c_str());
    ASSERT_NE(rd, nullptr);
    EXPECT_TRUE(lard_get_meta(rd)->is_closed);
    lard_close(rd);
    EXPECT_TRUE(shm_exists(name + ".meta"));
}

TEST(Lard, WriterWritesReaderReadsTheSameBytes)
{
    const std::string name = ring_name("rw");
    Cleanup c(name);
    lard_t lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    EXPECT_EQ(lard_puts(lh, "first line\n"), 11);
    EXPECT_EQ(lard_printf(lh, "%s %d\n", "second", 2), 9);
    lard_t rd = lard_open(name.c_str());
    ASSERT_NE(rd, nullptr);
    EXPECT_EQ(lard_capacity(rd), kPage);
    EXPECT_EQ(text_of(lard_data(rd), 20), "first line\nsecond 2\n");
    EXPECT_EQ(lard_data(rd)[20], '\0');  // the terminator lands at the tail
    EXPECT_EQ(lard_get_meta(rd)->pld_len, 20u);
    EXPECT_EQ(lard_get_meta(rd)->pld_start, 0u);
    const timespec tm = lard_get_meta(rd)->write_tm;
    EXPECT_TRUE(tm.tv_sec != 0 || tm.tv_nsec != 0);
    // A reader is never counted and never writes.
    EXPECT_EQ(lard_puts(rd, "x"), -7);
    EXPECT_EQ(lard_get_meta(lh)->pld_len, 20u);
    ssize_t rc = 0;
    EXPECT_EQ(snapshot_of(rd, &rc), "first line\nsecond 2\n");
    EXPECT_EQ(rc, 20);
    lard_close(rd);
    lard_destroy(lh);
}

TEST(Lard, LongestStringGoesInLongerIsRefused)
{
    const std::string name = ring_name("limit");
    Cleanup c(name);
    lard_t lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    const size_t buflen = lard_capacity(lh);
    const std::string too_long(buflen - 1, 'y');
    EXPECT_EQ(lard_puts(lh, too_long.c_str()), -7);
    EXPECT_EQ(lard_get_meta(lh)->pld_len, 0u);
    EXPECT_EQ(lard_puts(lh, std::string(buflen, 'y').c_str()), -7);
    EXPECT_EQ(lard_puts(lh, ""), -7);
    EXPECT_EQ(lard_get_meta(lh)->pld_len, 0u);
    const std::string longest(buflen - 2, 'x');
    EXPECT_EQ(lard_puts(lh, longest.c_str()), (int)(buflen - 2));
    EXPECT_EQ(lard_get_meta(lh)->pld_len, buflen - 2);
    // printf's limit is the whole capacity.
    lard_destroy(lh);
    lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    EXPECT_EQ(lard_printf(lh, "%s", too_long.c_str()), (int)(buflen - 1));
    EXPECT_EQ(lard_printf(lh, "%s", std::string(buflen, 'z').c_str()), -7);
    EXPECT_EQ(lard_get_meta(lh)->pld_len, buflen - 1);
    lard_destroy(lh);
}

TEST(Lard, FillingExactlyThenOneMoreLine)
{
    const std::string name = ring_name("fill");
    Cleanup c(name);
    lard_t lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    const size_t buflen = lard_capacity(lh);
    const std::string quarter(buflen / 4, 'q');
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(lard_puts(lh, quarter.c_str()), (int)(buflen / 4));
    EXPECT_EQ(lard_get_meta(lh)->pld_len, buflen);
    EXPECT_EQ(lard_get_meta(lh)->pld_start, 0u);
    EXPECT_EQ(lard_puts(lh, "123456789\n"), 10);
    EXPECT_EQ(lard_get_meta(lh)->pld_len, buflen);
    EXPECT_EQ(lard_get_meta(lh)->pld_start, 10u);
    lard_destroy(lh);
}

TEST(Lard, ALineCrossesTheEndThroughTheOverlay)
{
    const std::string name = ring_name("cross");
    Cleanup c(name);
    lard_t lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    const size_t buflen = lard_capacity(lh);
    ASSERT_EQ(lard_puts(lh, std::string(buflen - 4, '.').c_str()), (int)(buflen - 4));
    ASSERT_EQ(lard_puts(lh, "ABCDEFGHI\n"), 10);
    EXPECT_EQ(lard_get_meta(lh)->pld_len, buflen);
    EXPECT_EQ(lard_get_meta(lh)->pld_start, 6u);
    // Written in one piece at the end of the data view: the last six bytes
    // went through the overlay, and the reader's one view has them at 0.
    const char* w = lard_data(lh);
    EXPECT_EQ(text_of(w + buflen - 4, 10), "ABCDEFGHI\n");
    lard_t rd = lard_open(name.c_str());
    ASSERT_NE(rd, nullptr);
    const char* r = lard_data(rd);
    EXPECT_EQ(text_of(r + buflen - 4, 4), "ABCD");
    EXPECT_EQ(text_of(r, 7), std::string("EFGHI\n\0", 7));
    EXPECT_EQ(text_of(w, 6), "EFGHI\n");
    lard_close(rd);
    lard_destroy(lh);
}

TEST(Lard, SnapshotOfAWrappedRingInTwoPiecesSameForWriterAndReader)
{
    const std::string name = ring_name("snap");
    Cleanup c(name);
    lard_t lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    const size_t buflen = lard_capacity(lh);
    int line = 0;
    char text[64];
    while (lard_get_meta(lh)->pld_start < 100 || lard_get_meta(lh)->pld_len < buflen) {
        snprintf(text, sizeof(text), "line %05d of the ring\n", line++);
        ASSERT_GT(lard_puts(lh, text), 0);
    }
    const size_t p = lard_get_meta(lh)->pld_start;
    const char* d = lard_data(lh);
    ASSERT_EQ(d[p], '\0');
    // Two pieces: buflen - p bytes from p + 1, the first being one byte longer
    // than the span to the end (the overlay's byte 0), then p - 1 bytes from 0.
    const std::string expect = text_of(d + p + 1, buflen - p - 1) + d[0] + text_of(d, p - 1);
    ssize_t rc = 0;
    const std::string by_writer = snapshot_of(lh, &rc);
    EXPECT_EQ(rc, (ssize_t)(buflen - 1));
    EXPECT_EQ(by_writer, expect);
    lard_t rd = lard_open(name.c_str());
    ASSERT_NE(rd, nullptr);
    EXPECT_EQ(snapshot_of(rd, &rc), expect);
    EXPECT_EQ(rc, (ssize_t)(buflen - 1));
    // The newest complete line lies just before the cut-off last byte.
    snprintf(text, sizeof(text), "line %05d of the ring", line - 1);
    EXPECT_EQ(by_writer.substr(by_writer.size() - strlen(text)), text);
    lard_close(rd);
    lard_destroy(lh);
}

TEST(Lard, TemperatureIsAMovingSum)
{
    const std::string name = ring_name("temp");
    Cleanup c(name);
    lard_t lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    for (int i = 0; i < 64; ++i)
        lard_set_temp(lh, 3);
    EXPECT_EQ(lard_get_ctemp(lh), 192);
    EXPECT_EQ(lard_get_meta(lh)->sns.idx, 0u);
    for (int i = 0; i < 63; ++i)
        lard_puts(lh, "calm\n");
    EXPECT_EQ(lard_get_ctemp(lh), 3);
    lard_puts(lh, "calm\n");
    EXPECT_EQ(lard_get_ctemp(lh), 0);
    // A storm of errors fills every other slot.
    for (int i = 0; i < 40; ++i) {
        lard_puts(lh, "error\n");
        lard_set_temp(lh, 3);
    }
    EXPECT_EQ(lard_get_ctemp(lh), 96);
    lard_destroy(lh);
}

TEST(Lard, ActiveWhileTheOwnerLivesAndHasNotClosed)
{
    const std::string name = ring_name("active");
    Cleanup c(name);
    lard_t lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    lard_t rd = lard_open(name.c_str());
    ASSERT_NE(rd, nullptr);
    bool crashed = true;
    EXPECT_TRUE(lard_is_active(rd, &crashed));
    EXPECT_FALSE(crashed);
    EXPECT_TRUE(lard_is_active(rd, nullptr));
    lard_close(lh);  // closed in order by a living owner
    crashed = true;
    EXPECT_FALSE(lard_is_active(rd, &crashed));
    EXPECT_FALSE(crashed);
    lard_close(rd);
}

TEST(Lard, AnOwnerThatDiedWithoutClosingCrashed)
{
    const std::string name = ring_name("crash");
    Cleanup c(name);
    child_ring(name, false);
    lard_t rd = lard_open(name.c_str());
    ASSERT_NE(rd, nullptr);
    bool crashed = false;
    EXPECT_FALSE(lard_is_active(rd, &crashed));
    EXPECT_TRUE(crashed);
    ssize_t rc = 0;
    EXPECT_EQ(snapshot_of(rd, &rc), "last words\n");
    lard_close(rd);
}

TEST(Lard, AnOwnerThatClosedAndDiedDidNotCrash)
{
    const std::string name = ring_name("closed");
    Cleanup c(name);
    child_ring(name, true);
    lard_t rd = lard_open(name.c_str());
    ASSERT_NE(rd, nullptr);
    bool crashed = true;
    EXPECT_FALSE(lard_is_active(rd, &crashed));
    EXPECT_FALSE(crashed);
    lard_close(rd);
}

TEST(Lard, NoOwnerIsNeverActiveAndCrashedStays)
{
    const std::string name = ring_name("noowner");
    Cleanup c(name);
    lard_t lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    const_cast<lard_meta*>(lard_get_meta(lh))->owner_pid = 0;
    bool crashed = true;
    EXPECT_FALSE(lard_is_active(lh, &crashed));
    EXPECT_TRUE(crashed);
    lard_destroy(lh);
}

TEST(Lard, ANewCreateReplacesACrashedRing)
{
    const std::string name = ring_name("replace");
    Cleanup c(name);
    child_ring(name, false);
    lard_t lh = lard_create(name.c_str(), 2);
    ASSERT_NE(lh, nullptr);
    EXPECT_EQ(lard_owner_pid(lh), getpid());
    EXPECT_EQ(lard_get_meta(lh)->pld_len, 0u);
    EXPECT_EQ(shm_size(name + ".dat"), (off_t)(kPage + 4 * kPage));
    lard_destroy(lh);
}

TEST(Lard, OpenOfAMissingRingSaysSoAndGivesNull)
{
    const std::string name = ring_name("missing");
    StderrCapture err;
    EXPECT_EQ(lard_open(name.c_str()), nullptr);
    EXPECT_EQ(err.text(), "open_meta: shm_open(/" + name + ".meta) ERROR(" + std::to_string(ENOENT) + "): " +
                              strerror(ENOENT) + "\n");
}

TEST(Lard, OpenOfTruncatedObjectsSaysSoAndGivesNull)
{
    const std::string name = ring_name("trunc");
    Cleanup c(name);
    // A meta object shorter than the layout.
    int fd = shm_open(("/" + name + ".meta").c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 10), 0);
    {
        StderrCapture err;
        EXPECT_EQ(lard_open(name.c_str()), nullptr);
        EXPECT_EQ(err.text(), "open_meta: /" + name + ".meta holds 10 bytes, " +
                                  std::to_string(sizeof(lard_meta)) + " expected\n");
    }
    // A whole meta object, and a data object shorter than its pages.
    ASSERT_EQ(ftruncate(fd, sizeof(lard_meta)), 0);
    lard_meta m{};
    m.seg_pages = 4;
    ASSERT_EQ(pwrite(fd, &m, sizeof(m), 0), (ssize_t)sizeof(m));
    close(fd);
    fd = shm_open(("/" + name + ".dat").c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, (off_t)kPage), 0);
    close(fd);
    {
        StderrCapture err;
        EXPECT_EQ(lard_open(name.c_str()), nullptr);
        EXPECT_EQ(err.text(), "open_data: /" + name + ".dat holds " + std::to_string(kPage) + " bytes, " +
                                  std::to_string(4 * kPage) + " expected\n");
    }
    // The reader left both objects as they were.
    EXPECT_TRUE(shm_exists(name + ".meta"));
    EXPECT_TRUE(shm_exists(name + ".dat"));
}

TEST(Lard, NamesThatLeaveNoRoomForTheSuffixAreRefused)
{
    // "/" + name + ".meta" must fit in 254 characters.
    for (size_t len : {254u, 255u}) {
        const std::string name(len, 'n');
        StderrCapture err;
        EXPECT_EQ(lard_create(name.c_str(), 1), nullptr);
        EXPECT_EQ(err.text(), "lard_create: fprintf out of bounds: 260\n") << len;
        EXPECT_EQ(lard_open(name.c_str()), nullptr);
        EXPECT_EQ(err.text(), "lard_create: fprintf out of bounds: 260\nlard_open: fprintf out of bounds: 260\n");
        EXPECT_FALSE(shm_exists(name.substr(0, 254) + ".meta"));
        EXPECT_FALSE(shm_exists(name.substr(0, 254) + ".dat"));
    }
    const std::string ok_name(248, 'k');
    Cleanup c(ok_name);
    lard_t lh = lard_create(ok_name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    EXPECT_TRUE(shm_exists(ok_name + ".meta"));
    lard_destroy(lh);
    StderrCapture err;
    EXPECT_EQ(lard_create(std::string(249, 'k').c_str(), 1), nullptr);
    EXPECT_EQ(err.text(), "lard_create: fprintf out of bounds: 255\n");
}

TEST(LardDeathTest, AMetaObjectWithoutPagesStopsTheReader)
{
    const std::string name = ring_name("nopages");
    Cleanup c(name);
    int fd = shm_open(("/" + name + ".meta").c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, sizeof(lard_meta)), 0);
    close(fd);
    EXPECT_DEATH(lard_open(name.c_str()),
                 "Assertion failed: \\(npages > 0\\), function lard_open, file lib/lard.cpp, line");
}

namespace {

void on_fault(int)
{
    static const char msg[] = "fault on a read-only mapping\n";
    (void)!write(STDERR_FILENO, msg, sizeof(msg) - 1);
    _exit(42);
}

}  // namespace

TEST(LardDeathTest, AReadersMappingIsReadOnly)
{
    const std::string name = ring_name("rdonly");
    Cleanup c(name);
    lard_t lh = lard_create(name.c_str(), 1);
    ASSERT_NE(lh, nullptr);
    lard_puts(lh, "keep\n");
    lard_t rd = lard_open(name.c_str());
    ASSERT_NE(rd, nullptr);
    volatile char* p = const_cast<char*>(lard_data(rd));
    EXPECT_EXIT(
        {
            struct sigaction sa{};
            sa.sa_handler = on_fault;
            sigaction(SIGSEGV, &sa, nullptr);
            p[0] = 'X';
        },
        ::testing::ExitedWithCode(42), "fault on a read-only mapping");
    // The same write through the writer's view goes in.
    const_cast<char*>(lard_data(lh))[0] = 'K';
    EXPECT_EQ(p[0], 'K');
    lard_close(rd);
    lard_destroy(lh);
}
