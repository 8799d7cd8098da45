// File and argument utilities, signal installation and the ready-made
// handlers.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <getopt.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "logcap.h"
#include "strf.h"
#include "testfs.h"
#include "testsig.h"
#include "util.h"

namespace {

sig_handler_fn current_handler(int signo)
{
    struct sigaction sa {};
    sigaction(signo, nullptr, &sa);
    return sa.sa_handler;
}

void reset_flags()
{
    g_quit = 0;
    g_hup = 0;
    g_usr1 = 0;
    g_tdbg = 0;
    g_goodbye = 0;
    g_sigctx = 0;
}

// Gives a file this modification time (the access time does not matter
// here) and returns what utimes returns.
int set_mtime(const std::string& path, time_t mtime)
{
    const timeval tv[2] = {{1000, 0}, {mtime, 0}};
    return utimes(path.c_str(), tv);
}

volatile sig_atomic_t g_test_signo = 0;
void record_signo(int signo)
{
    g_test_signo = signo;
}

}  // namespace

// ---- option parsing over the same arguments twice ----

namespace {

std::string parse_all(int argc, char** argv, int stop_after = -1)
{
    static const option longopts[] = {{"verbose", no_argument, nullptr, 'v'},
                                      {"out", required_argument, nullptr, 'o'},
                                      {nullptr, 0, nullptr, 0}};
    std::string seen;
    int c;
    int count = 0;
    opterr = 0;
    while ((c = getopt_long(argc, argv, "vo:", longopts, nullptr)) != -1) {
        seen += (char)c;
        if (optarg != nullptr)
            seen += std::string("=") + optarg;
        seen += ' ';
        if (++count == stop_after)
            break;
    }
    return seen;
}

}  // namespace

TEST(UtilGetopt, ResetLetsTheParserRunAgainOverTheSameArguments)
{
    char a0[] = "kst", a1[] = "-v", a2[] = "--out", a3[] = "x.ts", a4[] = "-o", a5[] = "y";
    char* argv[] = {a0, a1, a2, a3, a4, a5, nullptr};
    reset_getopt_state();
    const std::string first = parse_all(6, argv);
    EXPECT_EQ(first, "v o=x.ts o=y ");
    // Without a reset the parser is at the end already.
    EXPECT_EQ(parse_all(6, argv), "");
    reset_getopt_state();
    EXPECT_EQ(parse_all(6, argv), first);
}

TEST(UtilGetopt, ResetAfterAPartialRunStartsFromTheFirstArgument)
{
    char a0[] = "kst", a1[] = "-vv", a2[] = "-o", a3[] = "z";
    char* argv[] = {a0, a1, a2, a3, nullptr};
    reset_getopt_state();
    // Stops in the middle of a group of short options.
    EXPECT_EQ(parse_all(4, argv, 1), "v ");
    reset_getopt_state();
    EXPECT_EQ(parse_all(4, argv), "v v o=z ");
}

// ---- file information ----

TEST(UtilFiles, FmodeStrNamesEachFileType)
{
    const std::pair<mode_t, const char*> names[] = {
        {S_IFIFO, "FIFO"},
        {S_IFCHR, "CHR"},
        {S_IFDIR, "DIR"},
        {S_IFBLK, "BLK"},
        {S_IFREG, "FILE"},
        {S_IFLNK, "LINK"},
        {S_IFSOCK, "SOCK"},
        {0, "{???}"},
        {0644, "{???}"},
        // Permission bits do not change the type.
        {S_IFREG | 0755, "FILE"},
        {S_IFDIR | 01777, "DIR"},
    };
    for (const auto& [mode, name] : names)
        EXPECT_STREQ(fmode_str(mode), name) << std::oct << mode;
}

TEST(UtilFiles, GetStatModeOfAPipeAndAFile)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    mode_t m = 0;
    get_stat_mode(fds[0], &m);
    EXPECT_TRUE(S_ISFIFO(m));
    EXPECT_STREQ(fmode_str(m), "FIFO");
    close(fds[0]);
    close(fds[1]);

    TempDir d("util");
    const std::string p = d.make("f", "x");
    int fd = open(p.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    get_stat_mode(fd, &m);
    EXPECT_TRUE(S_ISREG(m));
    close(fd);
}

TEST(UtilFilesDeathTest, GetStatModeOfABadDescriptorLogsAndAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string line =
        "\\(ERR\\)  get_stat_mode: FAILED to retrieve mode for fd=-1: " + std::string(strerror(EBADF));
    EXPECT_DEATH(
        {
            LogCapture cap;
            g_log.mirror_fp = stderr;
            mode_t m = 0;
            get_stat_mode(-1, &m);
        },
        line);
}

TEST(UtilFiles, GetFileSize)
{
    TempDir d("util");
    const std::string p = d.make("five", "12345");
    LogCapture cap;
    EXPECT_EQ(get_file_size(p.c_str()), 5);
    EXPECT_EQ(get_file_size(d.make("empty", "").c_str()), 0);
    EXPECT_EQ(cap.text(), "");

    const std::string missing = d.at("missing");
    errno = 0;
    EXPECT_EQ(get_file_size(missing.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(cap.text(), strf("(ERR)  get_file_size: FAILED to retrieve mode for [%s]: %s\n",
                               missing.c_str(), strerror(ENOENT)));
}

TEST(UtilFiles, GetFileMtime)
{
    TempDir d("util");
    const std::string p = d.make("f", "x");
    ASSERT_EQ(set_mtime(p, 1234567890), 0);
    LogCapture cap;
    EXPECT_EQ(get_file_mtime(p.c_str()), 1234567890);
    EXPECT_EQ(cap.text(), "");

    const std::string missing = d.at("missing");
    EXPECT_EQ(get_file_mtime(missing.c_str()), -1);
    EXPECT_EQ(cap.text(), strf("(ERR)  get_file_mtime: FAILED to retrieve mtime for [%s]: %s\n",
                               missing.c_str(), strerror(ENOENT)));
}

// ---- names ----

TEST(UtilNames, GetBaseIsTheTextBehindTheLastSlash)
{
    EXPECT_STREQ(get_base("/a/b/c.ts"), "c.ts");
    EXPECT_STREQ(get_base("b/c"), "c");
    const char* plain = "c.ts";
    EXPECT_EQ(get_base(plain), plain);
    EXPECT_STREQ(get_base("/a/b/"), "");
    EXPECT_STREQ(get_base("/"), "");
    EXPECT_STREQ(get_base(""), "");
}

TEST(UtilNames, ReplaceDirPutsTheBaseNameIntoTheNewDirectory)
{
    LogCapture cap;
    char buf[64];
    EXPECT_EQ(replace_dir("/var/old/clip.ts", "/srv/new", buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "/srv/new/clip.ts");
    EXPECT_EQ(replace_dir("clip.ts", "dir", buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "dir/clip.ts");
    EXPECT_EQ(replace_dir("/var/old/clip.ts", nullptr, buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "clip.ts");
    EXPECT_EQ(replace_dir("/var/old/clip.ts", "", buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "clip.ts");
    // Exactly fitting: 11 characters and the zero in 12 bytes.
    EXPECT_EQ(replace_dir("/x/clip.ts", "d", buf, 12), buf);
    EXPECT_STREQ(buf, "d/clip.ts");
    EXPECT_EQ(cap.text(), "");
}

TEST(UtilNames, ReplaceDirThatDoesNotFitLogsAndReturnsNull)
{
    LogCapture cap;
    char buf[16];
    memset(buf, 'Z', sizeof(buf));
    // "/srv/new/clip.ts" is 16 characters, 8 bytes are given.
    EXPECT_EQ(replace_dir("/var/old/clip.ts", "/srv/new", buf, 8), nullptr);
    EXPECT_EQ(cap.text(), "(ERR)  replace_dir: 16 characters required, 8 afforded\n");
    EXPECT_STREQ(buf, "/srv/ne");
    EXPECT_EQ(buf[8], 'Z');

    cap.clear();
    // One short: the zero has no room.
    EXPECT_EQ(replace_dir("/x/clip.ts", nullptr, buf, 7), nullptr);
    EXPECT_EQ(cap.text(), "(ERR)  replace_dir: 7 characters required, 7 afforded\n");
    EXPECT_STREQ(buf, "clip.t");
}

TEST(UtilNames, TagIndexComparesCaseBlind)
{
    const char* const tags[] = {"alpha", "Beta", "GAMMA", nullptr};
    EXPECT_EQ(tag_index("alpha", tags), 0);
    EXPECT_EQ(tag_index("BETA", tags), 1);
    EXPECT_EQ(tag_index("gamma", tags), 2);
    EXPECT_EQ(tag_index("GaMmA", tags), 2);
    EXPECT_EQ(tag_index("delta", tags), -1);
    EXPECT_EQ(tag_index("alph", tags), -1);
    EXPECT_EQ(tag_index("", tags), -1);
    const char* const none[] = {nullptr};
    EXPECT_EQ(tag_index("alpha", none), -1);
}

TEST(UtilNames, CpyTillStopsAtTheFirstDelimiter)
{
    char buf[16];
    EXPECT_EQ(cpy_till("key=value", "=", buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "key");
    EXPECT_STREQ(cpy_till("a b;c", ";: ", buf, sizeof(buf)), "a");
    EXPECT_STREQ(cpy_till("a;b c", ";: ", buf, sizeof(buf)), "a");
    EXPECT_STREQ(cpy_till("no-delimiter", "=", buf, sizeof(buf)), "no-delimiter");
    EXPECT_STREQ(cpy_till("whole", "", buf, sizeof(buf)), "whole");
    EXPECT_STREQ(cpy_till("=first", "=", buf, sizeof(buf)), "");
    EXPECT_STREQ(cpy_till("", "=", buf, sizeof(buf)), "");
}

TEST(UtilNames, CpyTillCopiesAtMostBuflenMinusOne)
{
    char buf[8];
    memset(buf, 'Z', sizeof(buf));
    EXPECT_STREQ(cpy_till("abcdef=x", "=", buf, 4), "abc");
    EXPECT_EQ(buf[4], 'Z');
    EXPECT_STREQ(cpy_till("abcdef", "=", buf, 1), "");
    memset(buf, 'Z', sizeof(buf));
    EXPECT_EQ(cpy_till("abc", "=", buf, 0), buf);
    EXPECT_EQ(buf[0], 'Z');
    // Fits exactly.
    EXPECT_STREQ(cpy_till("abcdefg", "=", buf, 8), "abcdefg");
}

// ---- directories ----

TEST(UtilDirCheck, RootPassesAndKeepsItsSlash)
{
    LogCapture cap;
    char path[] = "/";
    EXPECT_EQ(dir_check(path, true), 0);
    EXPECT_STREQ(path, "/");
    EXPECT_EQ(dir_check(path, false), 0);
    EXPECT_STREQ(path, "/");
    EXPECT_EQ(cap.text(), "");
}

TEST(UtilDirCheck, TrimCutsOneTrailingSlashInTheCallersBuffer)
{
    LogCapture cap;
    char one[] = "/tmp/";
    EXPECT_EQ(dir_check(one, true), 0);
    EXPECT_STREQ(one, "/tmp");

    char two[] = "/tmp//";
    EXPECT_EQ(dir_check(two, true), 0);
    EXPECT_STREQ(two, "/tmp/");

    char none[] = "/tmp";
    EXPECT_EQ(dir_check(none, true), 0);
    EXPECT_STREQ(none, "/tmp");

    char kept[] = "/tmp/";
    EXPECT_EQ(dir_check(kept, false), 0);
    EXPECT_STREQ(kept, "/tmp/");
    EXPECT_EQ(cap.text(), "");
}

TEST(UtilDirCheck, FailureLogsAndReturnsErrno)
{
    TempDir d("util");
    const std::string missing = d.at("missing");
    std::string buf = missing + "/";
    LogCapture cap;
    EXPECT_EQ(dir_check(buf.data(), true), ENOENT);
    EXPECT_STREQ(buf.c_str(), missing.c_str());
    EXPECT_EQ(cap.text(), strf("(ERR)  dir_check: opendir('%s', ...) ERROR(%d): %s\n", missing.c_str(),
                               ENOENT, strerror(ENOENT)));

    cap.clear();
    std::string file = d.make("plain", "x");
    EXPECT_EQ(dir_check(file.data(), false), ENOTDIR);
    EXPECT_EQ(cap.text(), strf("(ERR)  dir_check: opendir('%s', ...) ERROR(%d): %s\n", file.c_str(),
                               ENOTDIR, strerror(ENOTDIR)));
}

TEST(UtilMkFpathDirs, CreatesTheDirectoriesButNotTheFile)
{
    TempDir d("util");
    LogCapture cap;
    {
        InDir in(d.path());
        EXPECT_EQ(mk_fpath_dirs("a/b/c.txt"), 0);
    }
    EXPECT_TRUE(is_dir(d.at("a")));
    EXPECT_TRUE(is_dir(d.at("a/b")));
    EXPECT_FALSE(exists(d.at("a/b/c.txt")));
    EXPECT_FALSE(exists(d.at("c.txt")));
    EXPECT_EQ(cap.text(), "(DBG)  mk_fpath_dirs: dirs=a/b\n");
    struct stat st {};
    ASSERT_EQ(stat(d.at("a/b").c_str(), &st), 0);
    const mode_t um = umask(0);
    umask(um);
    EXPECT_EQ(st.st_mode & 0777, 0755u & ~um);

    // Directories that exist already are no failure.
    cap.clear();
    {
        InDir in(d.path());
        EXPECT_EQ(mk_fpath_dirs("a/b/other.txt"), 0);
    }
    EXPECT_EQ(cap.text(), "(DBG)  mk_fpath_dirs: dirs=a/b\n");
}

TEST(UtilMkFpathDirs, APlainNameCreatesNothing)
{
    TempDir d("util");
    {
        InDir in(d.path());
        EXPECT_EQ(mk_fpath_dirs("c.txt"), 0);
    }
    EXPECT_TRUE(d.entries().empty());
}

TEST(UtilMkFpathDirs, AbsolutePath)
{
    TempDir d("util");
    const std::string p = d.at("x/y/z/f.ts");
    LogCapture cap;
    EXPECT_EQ(mk_fpath_dirs(p.c_str()), 0);
    EXPECT_TRUE(is_dir(d.at("x/y/z")));
    EXPECT_FALSE(exists(p));
    EXPECT_EQ(cap.text(), strf("(DBG)  mk_fpath_dirs: dirs=%s\n", d.at("x/y/z").c_str()));
}

TEST(UtilMkFpathDirs, FailureLogsTheDirectoryAndKeepsErrno)
{
    TempDir d("util");
    d.make("f", "x");
    LogCapture cap;
    {
        InDir in(d.path());
        errno = 0;
        EXPECT_EQ(mk_fpath_dirs("f/x/y.txt"), -1);
        EXPECT_EQ(errno, ENOTDIR);
    }
    EXPECT_EQ(cap.text(), strf("(DBG)  mk_fpath_dirs: dirs=f/x\n"
                               "(ERR)  mk_fpath_dirs: mkdir(f/x) ERROR(%d): %s\n",
                               ENOTDIR, strerror(ENOTDIR)));
}

// ---- opening and reading files ----

TEST(UtilFopenAny, TriesTheDirectoriesInOrder)
{
    TempDir d("util");
    ASSERT_EQ(mkdir(d.at("one").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(d.at("two").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(d.at("three").c_str(), 0755), 0);
    d.make("two/kst.conf", "second");
    d.make("three/kst.conf", "third");
    const std::string one = d.at("one"), two = d.at("two/"), three = d.at("three");
    const char* const dirs[] = {one.c_str(), two.c_str(), three.c_str()};

    LogCapture cap;
    char path[256];
    FILE* fp = fopen_any("kst.conf", "r", 3, dirs, path, sizeof(path));
    ASSERT_NE(fp, nullptr);
    char content[16] = {};
    EXPECT_EQ(fread(content, 1, sizeof(content) - 1, fp), 6u);
    fclose(fp);
    EXPECT_STREQ(content, "second");
    // A directory that ends in '/' gets no second one.
    const std::string opened = d.at("two/kst.conf");
    EXPECT_STREQ(path, opened.c_str());
    EXPECT_EQ(cap.text(), strf("(DBG)  fopen_any: trying to open [%s/kst.conf]\n"
                               "(DBG)  fopen_any: trying to open [%s]\n"
                               "(DBG)  fopen_any: opened [%s]\n",
                               one.c_str(), opened.c_str(), opened.c_str()));
}

TEST(UtilFopenAny, NoneOpensEmptiesThePath)
{
    TempDir d("util");
    d.make("kst.conf", "x");
    const std::string missing = d.at("missing");
    const std::string here = d.path();
    const char* const dirs[] = {missing.c_str(), here.c_str()};
    LogCapture cap;
    char path[256] = "junk";
    // Only the first directory counts.
    EXPECT_EQ(fopen_any("kst.conf", "r", 1, dirs, path, sizeof(path)), nullptr);
    EXPECT_STREQ(path, "");
    EXPECT_EQ(cap.text(), strf("(DBG)  fopen_any: trying to open [%s/kst.conf]\n", missing.c_str()));

    // No directories at all.
    strcpy(path, "junk");
    EXPECT_EQ(fopen_any("kst.conf", "r", 0, dirs, path, sizeof(path)), nullptr);
    EXPECT_STREQ(path, "");
}

TEST(UtilFopenAny, StopsAtANullEntry)
{
    TempDir d("util");
    d.make("kst.conf", "x");
    const std::string missing = d.at("missing");
    const std::string here = d.path();
    const char* const dirs[] = {missing.c_str(), nullptr, here.c_str()};
    LogCapture cap;
    char path[256];
    EXPECT_EQ(fopen_any("kst.conf", "r", 3, dirs, path, sizeof(path)), nullptr);
    EXPECT_STREQ(path, "");
    EXPECT_EQ(cap.text(), strf("(DBG)  fopen_any: trying to open [%s/kst.conf]\n", missing.c_str()));
}

TEST(UtilFopenAny, ANameThatDoesNotFitIsE2BIG)
{
    TempDir d("util");
    d.make("kst.conf", "x");
    const std::string here = d.path();
    const char* const dirs[] = {here.c_str()};
    LogCapture cap;
    // Room for everything but the terminating zero.
    const size_t need = here.size() + strlen("/kst.conf");
    std::vector<char> path(need);
    errno = 0;
    EXPECT_EQ(fopen_any("kst.conf", "r", 1, dirs, path.data(), path.size()), nullptr);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(cap.text(), "");

    // One more byte and it opens.
    path.resize(need + 1);
    FILE* fp = fopen_any("kst.conf", "r", 1, dirs, path.data(), path.size());
    ASSERT_NE(fp, nullptr);
    fclose(fp);
    EXPECT_EQ(std::string(path.data()), here + "/kst.conf");
}

TEST(UtilPickFirstFile, FirstExistingPathWins)
{
    TempDir d("util");
    const std::string a = d.at("a"), b = d.make("b", "x"), c = d.make("c", "y");
    ASSERT_EQ(mkdir(d.at("dir").c_str(), 0755), 0);
    const std::string dir = d.at("dir");
    const char* const paths[] = {a.c_str(), b.c_str(), c.c_str()};
    EXPECT_EQ(pick_first_file(paths, 3), paths[1]);
    EXPECT_EQ(pick_first_file(paths + 2, 1), paths[2]);
    EXPECT_EQ(pick_first_file(paths, 1), nullptr);
    EXPECT_EQ(pick_first_file(paths, 0), nullptr);
    // Any kind of file counts.
    const char* const with_dir[] = {a.c_str(), dir.c_str(), b.c_str()};
    EXPECT_EQ(pick_first_file(with_dir, 3), with_dir[1]);
}

TEST(UtilReadFileBuf, ReadsTheWholeFile)
{
    TempDir d("util");
    const std::string p = d.make("f", "hello, world");
    LogCapture cap;
    char buf[64];
    memset(buf, 'Z', sizeof(buf));
    EXPECT_EQ(read_file_buf(p.c_str(), buf, sizeof(buf)), 12);
    EXPECT_EQ(std::string(buf, 12), "hello, world");
    // Nothing is added behind the content.
    EXPECT_EQ(buf[12], 'Z');
    // A buffer of just the file's size is enough.
    EXPECT_EQ(read_file_buf(p.c_str(), buf, 12), 12);
    EXPECT_EQ(read_file_buf(d.make("empty", "").c_str(), buf, sizeof(buf)), 0);
    EXPECT_EQ(cap.text(), "");
}

TEST(UtilReadFileBuf, TooBigForTheBufferIsMinusSeven)
{
    TempDir d("util");
    const std::string p = d.make("f", "hello, world");
    LogCapture cap;
    char buf[64];
    memset(buf, 'Z', sizeof(buf));
    EXPECT_EQ(read_file_buf(p.c_str(), buf, 11), RFB_TOOBIG);
    EXPECT_EQ(buf[0], 'Z');
    EXPECT_EQ(cap.text(), "(ERR)  read_file_buf: file size (12 bytes) is too big for buffer (11 bytes)\n");
}

TEST(UtilReadFileBuf, UnderreadIsMinusOne)
{
    // A directory opens read-only and has a size, but a read of it fails.
    TempDir d("util");
    struct stat st {};
    ASSERT_EQ(stat(d.path().c_str(), &st), 0);
    if (st.st_size <= 0)
        GTEST_SKIP() << "directories have no size on this file system";
    std::vector<char> buf((size_t)st.st_size + 16);
    LogCapture cap;
    EXPECT_EQ(read_file_buf(d.path().c_str(), buf.data(), buf.size()), -1);
    EXPECT_EQ(cap.text(), strf("(ERR)  read_file_buf: [%s] underread: -1/%ld\n", d.path().c_str(),
                               (long)st.st_size));
}

TEST(UtilReadFileBuf, MissingFileIsMinusOne)
{
    TempDir d("util");
    const std::string p = d.at("missing");
    LogCapture cap;
    char buf[16];
    errno = 0;
    EXPECT_EQ(read_file_buf(p.c_str(), buf, sizeof(buf)), -1);
    EXPECT_EQ(errno, ENOENT);
    // The open's own line names the path; nothing of read_file_buf follows.
    EXPECT_NE(cap.text().find(p), std::string::npos);
    EXPECT_EQ(cap.text().find("read_file_buf: file size"), std::string::npos);
    EXPECT_EQ(cap.text().find("underread"), std::string::npos);
}

TEST(UtilReadFileBuf, LeavesTheDescriptorOpen)
{
    TempDir d("util");
    const std::string p = d.make("f", "abc");
    char buf[8];
    // The next free descriptor is the one the read will take.
    const int probe = open("/dev/null", O_RDONLY);
    ASSERT_GE(probe, 0);
    close(probe);
    ASSERT_EQ(read_file_buf(p.c_str(), buf, sizeof(buf)), 3);
    EXPECT_NE(fcntl(probe, F_GETFD), -1);
    close(probe);
}

TEST(UtilChkFileUpdated, GrowsOnlyWithANewerTime)
{
    TempDir d("util");
    const std::string p = d.make("f", "x");
    ASSERT_EQ(set_mtime(p, 2000), 0);
    LogCapture cap;
    time_t mt = 0;
    EXPECT_TRUE(chk_file_updated(p.c_str(), &mt));
    EXPECT_EQ(mt, 2000);
    EXPECT_FALSE(chk_file_updated(p.c_str(), &mt));
    EXPECT_EQ(mt, 2000);

    // An older time is stored but is no update.
    ASSERT_EQ(set_mtime(p, 1500), 0);
    EXPECT_FALSE(chk_file_updated(p.c_str(), &mt));
    EXPECT_EQ(mt, 1500);

    ASSERT_EQ(set_mtime(p, 3000), 0);
    EXPECT_TRUE(chk_file_updated(p.c_str(), &mt));
    EXPECT_EQ(mt, 3000);
    EXPECT_EQ(cap.text(), "");
}

TEST(UtilChkFileUpdated, VanishedStoresMinusOneAndReappearingIsAnUpdate)
{
    TempDir d("util");
    const std::string p = d.make("f", "x");
    ASSERT_EQ(set_mtime(p, 2000), 0);
    LogCapture cap;
    time_t mt = 0;
    EXPECT_TRUE(chk_file_updated(p.c_str(), &mt));
    ASSERT_EQ(unlink(p.c_str()), 0);
    EXPECT_FALSE(chk_file_updated(p.c_str(), &mt));
    EXPECT_EQ(mt, -1);
    EXPECT_EQ(cap.text(), strf("(ERR)  get_file_mtime: FAILED to retrieve mtime for [%s]: %s\n",
                               p.c_str(), strerror(ENOENT)));

    // Back with its old time: still newer than "missing".
    d.make("f", "y");
    ASSERT_EQ(set_mtime(p, 2000), 0);
    EXPECT_TRUE(chk_file_updated(p.c_str(), &mt));
    EXPECT_EQ(mt, 2000);
}

// ---- pipes ----

TEST(UtilClosePipe, ClosesBothEnds)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(close_pipe(fds), 0);
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);
    EXPECT_EQ(fcntl(fds[1], F_GETFD), -1);
}

TEST(UtilClosePipe, SkipsNegativeEnds)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const int read_only[2] = {fds[0], -1};
    EXPECT_EQ(close_pipe(read_only), 0);
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);
    EXPECT_NE(fcntl(fds[1], F_GETFD), -1);
    const int write_only[2] = {-1, fds[1]};
    EXPECT_EQ(close_pipe(write_only), 0);
    EXPECT_EQ(fcntl(fds[1], F_GETFD), -1);
    const int neither[2] = {-1, -1};
    EXPECT_EQ(close_pipe(neither), 0);
}

TEST(UtilClosePipe, StopsAtTheFirstFailure)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    errno = 0;
    EXPECT_EQ(close_pipe(fds), -1);
    EXPECT_EQ(errno, EBADF);
    // The second end was not touched.
    EXPECT_NE(fcntl(fds[1], F_GETFD), -1);
    close(fds[1]);
}

// ---- signals ----

TEST(UtilSignals, QuitSignalsInOrder)
{
    ASSERT_EQ(qsigs_LEN, 3);
    EXPECT_EQ(qsigs[0], SIGTERM);
    EXPECT_EQ(qsigs[1], SIGQUIT);
    EXPECT_EQ(qsigs[2], SIGINT);
}

TEST(UtilSignals, HandleQuitSignalsInstallsWithoutRestart)
{
    SavedAction s0(SIGTERM), s1(SIGQUIT), s2(SIGINT);
    LogCapture cap;
    ASSERT_EQ(handle_quit_signals(record_signo), 0);
    for (int signo : qsigs) {
        struct sigaction sa {};
        ASSERT_EQ(sigaction(signo, nullptr, &sa), 0);
        EXPECT_EQ(sa.sa_handler, record_signo) << signo;
        EXPECT_EQ(sa.sa_flags & SA_RESTART, 0) << signo;
        EXPECT_EQ(sa.sa_flags & SA_SIGINFO, 0) << signo;
        EXPECT_EQ(sa.sa_flags & SA_RESETHAND, 0) << signo;
        for (int s = 1; s < 32; ++s)
            EXPECT_EQ(sigismember(&sa.sa_mask, s), 0) << signo << " masks " << s;
    }
    for (int signo : qsigs) {
        g_test_signo = 0;
        raise(signo);
        EXPECT_EQ(g_test_signo, signo);
    }
    EXPECT_EQ(cap.text(), "");
}

TEST(UtilSignals, QuitSignalBreaksABlockingPipeRead)
{
    SavedAction s0(SIGTERM), s1(SIGQUIT), s2(SIGINT);
    ASSERT_EQ(handle_quit_signals(record_signo), 0);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    g_test_signo = 0;

    const pthread_t reader = pthread_self();
    std::atomic<bool> done{false};
    std::thread sender([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        pthread_kill(reader, SIGTERM);
        // Should the read restart, a byte ends it, so the test fails rather
        // than hangs.
        for (int i = 0; i < 300 && !done.load(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (!done.load())
            (void)!write(fds[1], "x", 1);
    });
    char c;
    errno = 0;
    const ssize_t n = read(fds[0], &c, 1);
    const int err = errno;
    done = true;
    sender.join();
    EXPECT_EQ(n, -1);
    EXPECT_EQ(err, EINTR);
    EXPECT_EQ(g_test_signo, SIGTERM);
    close(fds[0]);
    close(fds[1]);
}

TEST(UtilSignals, HandleSigInstallsOneSignal)
{
    SavedAction saved(SIGUSR2);
    LogCapture cap;
    ASSERT_EQ(handle_sig(SIGUSR2, record_signo), 0);
    struct sigaction sa {};
    ASSERT_EQ(sigaction(SIGUSR2, nullptr, &sa), 0);
    EXPECT_EQ(sa.sa_handler, record_signo);
    EXPECT_EQ(sa.sa_flags & SA_RESTART, 0);
    g_test_signo = 0;
    raise(SIGUSR2);
    EXPECT_EQ(g_test_signo, SIGUSR2);
    EXPECT_EQ(cap.text(), "");
}

TEST(UtilSignals, HandleSigFailureLogs)
{
    LogCapture cap;
    errno = 0;
    EXPECT_EQ(handle_sig(SIGKILL, record_signo), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(cap.text(), strf("(ERR)  handle_sig: sigaction (signo=%d) ERROR(%d): %s\n", SIGKILL, EINVAL,
                               strerror(EINVAL)));
}

TEST(UtilSignals, IgnoreSigpipeTurnsAWriteToAClosedPipeIntoEPIPE)
{
    SavedAction saved(SIGPIPE);
    LogCapture cap;
    ASSERT_EQ(ignore_sigpipe(), 0);
    EXPECT_EQ(current_handler(SIGPIPE), SIG_IGN);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    errno = 0;
    EXPECT_EQ(write(fds[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(fds[1]);
    EXPECT_EQ(cap.text(), "");
}

// Each test starts from a core limit of 0 under an infinite hard one. The
// process's own limit comes back afterwards: an unlimited core here would
// let every death test leave a core file behind.
class UtilCoreLimit : public ::testing::Test {
protected:
    void SetUp() override
    {
        getrlimit(RLIMIT_CORE, &saved_);
        if (saved_.rlim_max != RLIM_INFINITY)
            GTEST_SKIP() << "the hard core limit is not infinite";
        const rlimit small{0, RLIM_INFINITY};
        ASSERT_EQ(setrlimit(RLIMIT_CORE, &small), 0);
    }
    void TearDown() override { setrlimit(RLIMIT_CORE, &saved_); }

private:
    rlimit saved_{};
};

TEST_F(UtilCoreLimit, RaisesALimitedCoreToInfinity)
{
    LogCapture cap;
    rlimit old{};
    EXPECT_EQ(set_unlimited_core(&old), 0);
    EXPECT_EQ(old.rlim_cur, 0u);
    EXPECT_EQ(old.rlim_max, RLIM_INFINITY);
    // An infinite hard limit reads -1 here, the largest signed value on
    // platforms whose RLIM_INFINITY is that.
    EXPECT_EQ(cap.text(), strf("(DBG)  set_unlimited_core: current=0/%ld\n"
                               "(DBG)  set_unlimited_core: OK\n",
                               (long)RLIM_INFINITY));
    rlimit now{};
    ASSERT_EQ(getrlimit(RLIMIT_CORE, &now), 0);
    EXPECT_EQ(now.rlim_cur, RLIM_INFINITY);
    EXPECT_EQ(now.rlim_max, RLIM_INFINITY);

    cap.clear();
    EXPECT_EQ(set_unlimited_core(nullptr), 0);
    EXPECT_EQ(cap.text(), "(DBG)  set_unlimited_core: already set\n");

    cap.clear();
    EXPECT_EQ(set_unlimited_core(&old), 0);
    EXPECT_EQ(old.rlim_cur, RLIM_INFINITY);
    EXPECT_EQ(cap.text(), "(DBG)  set_unlimited_core: already set\n");
}

TEST_F(UtilCoreLimit, SilentAboveDebug)
{
    LogCapture cap(INFO_level);
    EXPECT_EQ(set_unlimited_core(nullptr), 0);
    EXPECT_EQ(cap.text(), "");
}

namespace {

// Runs in the death test's child: a process without privilege may not raise
// a hard limit of 0.
[[noreturn]] void raise_core_as_nobody()
{
    LogCapture cap;
    g_log.mirror_fp = stderr;
    const rlimit none{0, 0};
    if (setrlimit(RLIMIT_CORE, &none) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
        _exit(2);
    const int rc = set_unlimited_core(nullptr);
    _exit(rc == -1 && errno == EPERM ? 0 : 1);
}

}  // namespace

TEST(UtilCoreLimitDeathTest, AnUnprivilegedRaiseFailsWithALine)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "dropping to another user needs root";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string line = "\\(DBG\\)  set_unlimited_core: current=0/0\n"
                             "\\(ERR\\)  set_unlimited_core: setrlimit ERROR\\(" +
                             std::to_string(EPERM) + "\\): " + strerror(EPERM) + "\n";
    EXPECT_EXIT(raise_core_as_nobody(), testing::ExitedWithCode(0), line);
}

namespace {

// Installs a ready-made handler, raises its signal once, and checks that the
// handler set its own flag alone and logged the one line.
void expect_flag_and_line(int signo, sig_handler_fn handler, const volatile sig_atomic_t& flag, int level,
                          const std::string& line)
{
    reset_flags();
    SavedAction saved(signo);
    LogCapture cap(level);
    ASSERT_EQ(handle_sig(signo, handler), 0);
    raise(signo);
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(g_sigctx, 0);
    EXPECT_EQ(g_hup + g_usr1 + g_tdbg + g_quit + g_goodbye - flag, 0);
    EXPECT_EQ(cap.text(), line);
    reset_flags();
}

}  // namespace

TEST(UtilHandlers, OnSighupSetsItsFlagAndLogs)
{
    expect_flag_and_line(SIGHUP, on_sighup, g_hup, NORM_level, "(NRM)  SIGHUP(1)\n");
}

TEST(UtilHandlers, OnSigusr1SetsItsFlagAndLogs)
{
    expect_flag_and_line(SIGUSR1, on_sigusr1, g_usr1, DEBUG_level, strf("(NRM)  SIGUSR1(%d)\n", SIGUSR1));
}

TEST(UtilHandlers, OnTdbgSetsItsFlagAndLogs)
{
    expect_flag_and_line(SIGUSR2, on_tdbg, g_tdbg, DEBUG_level, strf("(NRM)  T-DBG SIG(%d)\n", SIGUSR2));
}

TEST(UtilHandlers, HandlerLinesAreHeldBelowNorm)
{
    reset_flags();
    LogCapture cap(WARN_level);
    on_sighup(SIGHUP);
    on_sigusr1(SIGUSR1);
    on_tdbg(SIGUSR2);
    EXPECT_EQ(g_hup + g_usr1 + g_tdbg, 3);
    EXPECT_EQ(cap.text(), "");
    reset_flags();
}

TEST(UtilHandlers, OnSigquitSetsQuitAndIgnoresTheRest)
{
    reset_flags();
    SavedAction chld(SIGCHLD), hup(SIGHUP), usr1(SIGUSR1);
    LogCapture cap;
    on_sigquit(SIGQUIT);
    EXPECT_EQ(g_quit, 1);
    EXPECT_EQ(g_goodbye, 0);
    EXPECT_EQ(g_sigctx, 0);
    EXPECT_EQ(cap.text(), strf("(NRM)  QUIT-SIG(%d)\n", SIGQUIT));
    EXPECT_EQ(current_handler(SIGCHLD), SIG_IGN);
    EXPECT_EQ(current_handler(SIGHUP), SIG_IGN);
    EXPECT_EQ(current_handler(SIGUSR1), SIG_IGN);
    reset_flags();
}

TEST(UtilHandlers, OnSigquitSaysGoodbyeForIntAndTerm)
{
    SavedAction chld(SIGCHLD), hup(SIGHUP), usr1(SIGUSR1), term(SIGTERM), intr(SIGINT);
    for (int signo : {SIGINT, SIGTERM}) {
        reset_flags();
        LogCapture cap;
        ASSERT_EQ(handle_sig(signo, on_sigquit), 0);
        raise(signo);
        EXPECT_EQ(g_quit, 1) << signo;
        EXPECT_EQ(g_goodbye, 1) << signo;
        EXPECT_EQ(g_sigctx, 0);
        EXPECT_EQ(cap.text(), strf("(NRM)  QUIT-SIG(%d)\n", signo));
    }
    reset_flags();
}
