// Source handles for files: URL forms, failures, and the handle's life.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>
#include <string>

#include "logcap.h"
#include "uri.h"
#include "wopen.h"

namespace {

class TempDir {
public:
    TempDir()
    {
        char tmpl[] = "/tmp/kst-wopen-XXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~TempDir() { (void)!system(("rm -rf " + path_).c_str()); }
    const std::string& path() const { return path_; }
    std::string make(const std::string& rel, const std::string& content)
    {
        const std::string p = path_ + "/" + rel;
        int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(write(fd, content.data(), content.size()), (ssize_t)content.size());
        close(fd);
        return p;
    }

private:
    std::string path_;
};

std::string read_all(int fd)
{
    std::string s;
    char buf[256];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0)
        s.append(buf, (size_t)n);
    return s;
}

}  // namespace

TEST(Wopen, AbsoluteFileUrlOpensTheAbsolutePath)
{
    TempDir d;
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
    TempDir d;
    ASSERT_EQ(mkdir((d.path() + "/relative").c_str(), 0755), 0);
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
    TempDir d;
    const std::string p = d.make("a.ts", "Q");
    usock_ctx uc{};
    int fd = usock_open(("file://" + p + "?x=1").c_str(), &uc);
    ASSERT_GE(fd, 0);
    EXPECT_STREQ(uc.url_path, p.c_str());
    usock_close(fd, &uc);
}

TEST(Wopen, PlainPathHasNoKind)
{
    LogCapture cap;
    usock_ctx uc{};
    EXPECT_EQ(usock_open("/tmp/a.ts", &uc), -1);
    EXPECT_EQ(uc.url_kind, URI_BAD);
    EXPECT_EQ(uc.url_path, nullptr);
    EXPECT_EQ(cap.text(), "(ERR)  uri_extract: error parsing URI: [/tmp/a.ts]\n");
}

TEST(Wopen, PathOf128CharactersFailsBeforeAnyOpen)
{
    LogCapture cap;
    const std::string path = "/" + std::string(127, 'a');
    ASSERT_EQ(path.size(), 128u);
    usock_ctx uc{};
    EXPECT_EQ(usock_open(("file://" + path).c_str(), &uc), -1);
    EXPECT_EQ(uc.url_path, nullptr);
    EXPECT_EQ(cap.text(), "(ERR)  extract: uri_get_path ERROR\n(ERR)  uri_extract: error parsing URI: [file://" +
                              path + "]\n");
}

TEST(Wopen, MissingFileLogsTheOpenAndCleansUp)
{
    LogCapture cap;
    usock_ctx uc{};
    EXPECT_EQ(usock_open("file:///nonexistent-dir/x.ts", &uc), -1);
    EXPECT_EQ(uc.url_path, nullptr);
    EXPECT_EQ(cap.text(),
              "(ERR)  usock_open: open('/nonexistent-dir/x.ts', 0, 0x0) ERROR(2): No such file or directory\n"
              "(DBG)  usock_open: fd-1 FILE [/nonexistent-dir/x.ts]\n");
}

TEST(Wopen, PlaylistSchemeParsesButIsRefused)
{
    LogCapture cap;
    usock_ctx uc{};
    EXPECT_EQ(usock_open("m3u://host/list.m3u8", &uc), -1);
    EXPECT_EQ(uc.url_kind, URI_HLS);
    EXPECT_EQ(uc.url_path, nullptr);
    // The line has no line end of its own.
    EXPECT_EQ(cap.text(), "(ERR)  usock_open: unsupported type of URI [m3u://host/list.m3u8]");
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
    TempDir d;
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
    TempDir d;
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
