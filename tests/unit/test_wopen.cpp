// Source handles for files: URL forms, failures, and the handle's life.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <string>

#include "logcap.h"
#include "testfs.h"
#include "uri.h"
#include "wopen.h"

namespace {

// What opening a URL that must be refused leaves: the handle, which must own
// no path, and the log.
struct Refused {
    usock_ctx uc;
    std::string log;
};

Refused open_refused(const char* url)
{
    LogCapture cap;
    Refused r{};
    EXPECT_EQ(usock_open(url, &r.uc), -1);
    EXPECT_EQ(r.uc.url_path, nullptr);
    r.log = cap.text();
    return r;
}

}  // namespace

TEST(Wopen, AbsoluteFileUrlOpensTheAbsolutePath)
{
    TempDir d("wopen");
    const std::string p = d.make("abs.ts", "ABS");
    LogCapture cap;
    usock_ctx uc{};
    int fd = usock_open(("file://" + p).c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(uc.url_kind, URI_FILE);
    EXPECT_STREQ(uc.url_path, p.c_str());
    EXPECT_EQ(read_all(fd), "ABS");
    EXPECT_EQ(cap.text(), "(DBG)  usock_open: fd" + std::to_string(fd) + " FILE [" + p + "]\n");
    usock_close(fd, &uc);
    EXPECT_EQ(uc.url_path, nullptr);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST(Wopen, RelativeFileUrlOpensTheRelativePath)
{
    TempDir d("wopen");
    ASSERT_EQ(mkdir(d.at("relative").c_str(), 0755), 0);
    d.make("relative/name.ts", "REL");
    char old[4096];
    ASSERT_NE(getcwd(old, sizeof(old)), nullptr);
    ASSERT_EQ(chdir(d.path().c_str()), 0);
    usock_ctx uc{};
    int fd = usock_open("file://relative/name.ts", &uc);
    EXPECT_EQ(chdir(old), 0);
    ASSERT_GE(fd, 0);
    EXPECT_STREQ(uc.url_path, "relative/name.ts");
    EXPECT_EQ(read_all(fd), "REL");
    usock_close(fd, &uc);
}

TEST(Wopen, QueryOfAFileUrlIsDropped)
{
    TempDir d("wopen");
    const std::string p = d.make("a.ts", "Q");
    usock_ctx uc{};
    int fd = usock_open(("file://" + p + "?x=1").c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_STREQ(uc.url_path, p.c_str());
    usock_close(fd, &uc);
}

TEST(Wopen, PlainPathHasNoKind)
{
    const Refused r = open_refused("/tmp/a.ts");
    EXPECT_EQ(r.uc.url_kind, URI_BAD);
    EXPECT_EQ(r.log, "(ERR)  uri_extract: error parsing URI: [/tmp/a.ts]\n");
}

TEST(Wopen, PathOf128CharactersFailsBeforeAnyOpen)
{
    const std::string path = "/" + std::string(127, 'a');
    ASSERT_EQ(path.size(), 128u);
    const Refused r = open_refused(("file://" + path).c_str());
    EXPECT_EQ(r.log, "(ERR)  extract: uri_get_path ERROR\n(ERR)  uri_extract: error parsing URI: [file://" + path +
                         "]\n");
}

TEST(Wopen, MissingFileLogsTheOpenAndCleansUp)
{
    const Refused r = open_refused("file:///nonexistent-dir/x.ts");
    EXPECT_EQ(r.log,
              "(ERR)  usock_open: open('/nonexistent-dir/x.ts', 0, 0x0) ERROR(2): No such file or directory\n"
              "(DBG)  usock_open: fd-1 FILE [/nonexistent-dir/x.ts]\n");
}

TEST(Wopen, PlaylistSchemeParsesButIsRefused)
{
    const Refused r = open_refused("m3u://host/list.m3u8");
    EXPECT_EQ(r.uc.url_kind, URI_HLS);
    // The line has no line end of its own.
    EXPECT_EQ(r.log, "(ERR)  usock_open: unsupported type of URI [m3u://host/list.m3u8]");
}

TEST(Wopen, ALentBufferStaysTheCallersOnFailure)
{
    char lent[2048];
    usock_ctx uc{};
    uc.buf = lent;
    uc.bufcap = sizeof(lent);
    EXPECT_EQ(usock_open("file:///nonexistent-dir/y.ts", &uc), -1);
    EXPECT_EQ(uc.buf, lent);
    EXPECT_EQ(uc.bufcap, sizeof(lent));
}

TEST(Wopen, CloseOfNothingDoesNothing)
{
    LogCapture cap;
    usock_close(-1, nullptr);
    EXPECT_EQ(cap.text(), "");
}

TEST(Wopen, AHandleCanBeOpenedAgainAfterClose)
{
    TempDir d("wopen");
    const std::string p = d.make("again.ts", "x");
    usock_ctx uc{};
    for (int i = 0; i < 2; ++i) {
        int fd = usock_open(("file://" + p).c_str(), &uc);
        ASSERT_GE(fd, 0);
        usock_close(fd, &uc);
    }
}

TEST(WopenDeathTest, SecondOpenWithoutCloseStopsTheProcess)
{
    TempDir d("wopen");
    const std::string p = d.make("twice.ts", "x");
    const std::string url = "file://" + p;
    EXPECT_DEATH(
        {
            usock_ctx uc{};
            usock_open(url.c_str(), &uc);
            usock_open(url.c_str(), &uc);
        },
        "Assertion failed: \\(NULL == uc->url_path\\), function usock_open");
}

TEST(Wopen, AppTagIsCutTo127)
{
    const std::string tag(200, 't');
    usock_set_apptag(tag.c_str());
    EXPECT_EQ(std::string(g_apptag), tag.substr(0, 127));
    usock_set_apptag("kst");
    EXPECT_STREQ(g_apptag, "kst");
}

TEST(WopenDeathTest, NullAppTagStopsTheProcess)
{
    EXPECT_DEATH(usock_set_apptag(nullptr), "Assertion failed: \\(apptag\\), function usock_set_apptag");
}

TEST(Wopen, ASocketWhoseJoinFailedIsClosedWithoutALeave)
{
    // What a failed open of a multicast group leaves in the handle: the
    // multicast mark, no descriptor, no group address, no interface record.
    LogCapture cap;
    usock_ctx uc{};
    uc.sspec.multicast = 1;
    uc.url_path = static_cast<char*>(malloc(8));
    usock_close(-1, &uc);
    EXPECT_EQ(uc.url_path, nullptr);
    EXPECT_EQ(cap.text().find("MCAST_LEAVE"), std::string::npos) << cap.text();
}
