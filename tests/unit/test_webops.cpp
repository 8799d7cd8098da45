// The HTTP client of a source: the request's bytes, the search for the end of
// the response head, the status line, and the tail handed to the opener.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "logcap.h"
#include "strf.h"
#include "testsig.h"
#include "util.h"
#include "webops.h"
#include "wopen.h"
// The source handle's private HTTP exchange, tested on its own socket.
#include "wopen_http.h"

namespace {

// A connected pair of stream sockets: the code under test uses a(), the test
// plays the server on b().
class SockPair {
public:
    SockPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd_), 0); }
    ~SockPair()
    {
        close_a();
        close_b();
    }
    SockPair(const SockPair&) = delete;
    SockPair& operator=(const SockPair&) = delete;

    int a() const { return fd_[0]; }
    int b() const { return fd_[1]; }
    void close_a()
    {
        if (fd_[0] >= 0)
            close(fd_[0]);
        fd_[0] = -1;
    }
    void close_b()
    {
        if (fd_[1] >= 0)
            close(fd_[1]);
        fd_[1] = -1;
    }
    void nonblock_a() { EXPECT_EQ(fcntl(fd_[0], F_SETFL, fcntl(fd_[0], F_GETFL) | O_NONBLOCK), 0); }

private:
    int fd_[2] = {-1, -1};
};

void put(int fd, const std::string& s)
{
    ASSERT_EQ(write(fd, s.data(), s.size()), (ssize_t)s.size());
}

// Whatever is waiting on fd now, without blocking.
std::string drain(int fd)
{
    std::string out;
    char buf[4096];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (n <= 0)
            break;
        out.append(buf, (size_t)n);
    }
    return out;
}

std::string request_text(const std::string& target, const char* version, const std::string& host,
                         const char* connection, const std::string& agent)
{
    return "GET " + target + " HTTP/" + version + "\r\nHost: " + host + "\r\nConnection: " + connection +
           "\r\nUser-Agent: " + agent +
           "\r\nAccept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
           "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n";
}

std::string sent_line(int fd, const std::string& rq)
{
    return strf("(DBG)  send_http_request: sent %zu bytes to fd=%d:\n", rq.size(), fd) + rq;
}

// The process-wide tag and flags of the source unit, as the tool sets them,
// put back afterwards.
class HttpRequest : public ::testing::Test {
protected:
    void SetUp() override
    {
        memcpy(saved_tag_, g_apptag, sizeof(saved_tag_));
        saved_flags_ = g_usock_flags;
        usock_set_apptag("kst");
        g_usock_flags.use_http10_get = false;
    }
    void TearDown() override
    {
        memcpy(g_apptag, saved_tag_, sizeof(saved_tag_));
        g_usock_flags = saved_flags_;
    }

    // The request that fwd_http_rq sends for url, or "" when it fails.
    std::string sent_for(const char* url, uint32_t flags = 0)
    {
        SockPair sp;
        if (fwd_http_rq(sp.a(), url, flags) != 0)
            return "";
        return drain(sp.b());
    }

private:
    char saved_tag_[sizeof(g_apptag)];
    usock_flags saved_flags_;
};

http_request get_rq(const char* request, const char* addr, const char* port)
{
    http_request r{};
    r.type = RQTYPE_GET;
    r.request = request;
    r.server = "kst";
    r.host_addr = addr;
    r.host_port = port;
    return r;
}

}  // namespace

// ---- The request ----

TEST_F(HttpRequest, ExampleUrlGivesTheNineLines)
{
    SockPair sp;
    LogCapture cap;
    ASSERT_EQ(fwd_http_rq(sp.a(), "http://10.0.0.1:8080/live/a.ts?id=7", 0), 0);
    const std::string expected =
        "GET /live/a.ts?id=7 HTTP/1.1\r\n"
        "Host: 10.0.0.1:8080\r\n"
        "Connection: close\r\n"
        "User-Agent: kst\r\n"
        "Accept: text/html,video/*, application/*\r\n"
        "Accept-Language: en-US,en,ru\r\n"
        "Accept-Charset: ISO-8859-1,UTF-8\r\n"
        "Cache-Control: no-cache\r\n"
        "\r\n";
    EXPECT_EQ(drain(sp.b()), expected);
    EXPECT_EQ(cap.text(), sent_line(sp.a(), expected));
}

TEST_F(HttpRequest, Http10FlagAsksWithHttp10)
{
    EXPECT_EQ(sent_for("http://10.0.0.1:8080/live/a.ts", RQFLAG_HTTP10_GET),
              request_text("/live/a.ts", "1.0", "10.0.0.1:8080", "close", "kst"));
}

TEST_F(HttpRequest, KeepAliveFlagKeepsTheConnection)
{
    EXPECT_EQ(sent_for("http://10.0.0.1:8080/live/a.ts", RQFLAG_KEEPALIVE),
              request_text("/live/a.ts", "1.1", "10.0.0.1:8080", "keep-alive", "kst"));
    EXPECT_EQ(sent_for("http://10.0.0.1:8080/live/a.ts", RQFLAG_HTTP10_GET | RQFLAG_KEEPALIVE),
              request_text("/live/a.ts", "1.0", "10.0.0.1:8080", "keep-alive", "kst"));
}

TEST_F(HttpRequest, ProcessWideHttp10SwitchOnlyLogs)
{
    g_usock_flags.use_http10_get = true;
    SockPair sp;
    LogCapture cap;
    ASSERT_EQ(fwd_http_rq(sp.a(), "http://10.0.0.1:8080/live/a.ts", 0), 0);
    const std::string rq = request_text("/live/a.ts", "1.1", "10.0.0.1:8080", "close", "kst");
    EXPECT_EQ(drain(sp.b()), rq);
    EXPECT_EQ(cap.text(), "(DBG)  fwd_http_rq: Using HTTP/1.0 request\n" + sent_line(sp.a(), rq));
}

TEST_F(HttpRequest, UrlWithoutPortSendsHostWithoutPort)
{
    EXPECT_EQ(sent_for("http://10.0.0.1/live/a.ts"), request_text("/live/a.ts", "1.1", "10.0.0.1", "close", "kst"));
    EXPECT_EQ(sent_for("http://src.example/a.ts?x=1"),
              request_text("/a.ts?x=1", "1.1", "src.example", "close", "kst"));
}

TEST_F(HttpRequest, UrlWithoutPathAsksForTheRoot)
{
    EXPECT_EQ(sent_for("http://10.0.0.1:8080"), request_text("/", "1.1", "10.0.0.1:8080", "close", "kst"));
    EXPECT_EQ(sent_for("http://10.0.0.1:8080?x=1"), request_text("/?x=1", "1.1", "10.0.0.1:8080", "close", "kst"));
}

TEST_F(HttpRequest, Ipv6HostWithPortGoesWithoutBrackets)
{
    EXPECT_EQ(sent_for("http://[fe80::1]:8080/a.ts"), request_text("/a.ts", "1.1", "fe80::1:8080", "close", "kst"));
}

TEST_F(HttpRequest, UnsetTagSendsAnEmptyUserAgent)
{
    g_apptag[0] = '\0';
    const std::string rq = sent_for("http://10.0.0.1:8080/a.ts");
    EXPECT_EQ(rq, request_text("/a.ts", "1.1", "10.0.0.1:8080", "close", ""));
    EXPECT_NE(rq.find("\r\nUser-Agent: \r\n"), std::string::npos);
}

TEST_F(HttpRequest, RequestOf127CharactersIsCutOneShortWithoutALine)
{
    // "/live/a.ts?id=" is 14 characters.
    const std::string target = "/live/a.ts?id=" + std::string(113, 'q');
    ASSERT_EQ(target.size(), 127u);
    const std::string url = "http://10.0.0.1:8080" + target;
    SockPair sp;
    LogCapture cap;
    ASSERT_EQ(fwd_http_rq(sp.a(), url.c_str(), 0), 0);
    const std::string rq = request_text(target.substr(0, 126), "1.1", "10.0.0.1:8080", "close", "kst");
    EXPECT_EQ(drain(sp.b()), rq);
    EXPECT_EQ(cap.text(), sent_line(sp.a(), rq));
}

TEST_F(HttpRequest, RequestOf126CharactersGoesWhole)
{
    const std::string target = "/live/a.ts?id=" + std::string(112, 'q');
    const std::string url = "http://10.0.0.1:8080" + target;
    EXPECT_EQ(sent_for(url.c_str()), request_text(target, "1.1", "10.0.0.1:8080", "close", "kst"));
}

TEST_F(HttpRequest, LongerRequestIsCutWithAWarning)
{
    for (size_t qlen : {114u, 200u}) {
        const std::string target = "/live/a.ts?id=" + std::string(qlen, 'q');
        const std::string url = "http://10.0.0.1:8080" + target;
        SockPair sp;
        LogCapture cap;
        ASSERT_EQ(fwd_http_rq(sp.a(), url.c_str(), 0), 0);
        const std::string rq = request_text(target.substr(0, 126), "1.1", "10.0.0.1:8080", "close", "kst");
        EXPECT_EQ(drain(sp.b()), rq);
        EXPECT_EQ(cap.text(),
                  strf("(WRN)  fwd_http_rq: GET query is too long [%zu bytes], max=127 bytes.\n", target.size()) +
                      sent_line(sp.a(), rq));
    }
}

TEST_F(HttpRequest, PathThatCantBeSplitSendsNothing)
{
    SockPair sp;
    LogCapture cap;
    EXPECT_EQ(fwd_http_rq(sp.a(), "http://[::1/x", 0), -1);
    EXPECT_EQ(drain(sp.b()), "");
    EXPECT_EQ(cap.text(),
              "(ERR)  uri_path_addrport: ERROR parsing path=[[::1/x]\n"
              "(ERR)  fwd_http_rq: URI has no path tail: http://[::1/x\n");
}

TEST_F(HttpRequest, UrlThatDoesntParseSendsNothing)
{
    SockPair sp;
    LogCapture cap;
    EXPECT_EQ(fwd_http_rq(sp.a(), "http://", 0), -1);
    EXPECT_EQ(drain(sp.b()), "");
    EXPECT_EQ(cap.text().find("fwd_http_rq"), std::string::npos);
    EXPECT_NE(cap.text().find("(ERR)  uri_extract: error parsing URI: [http://]\n"), std::string::npos);
}

TEST(SendHttpRequest, OnlyGetIsSupported)
{
    SockPair sp;
    http_request r = get_rq("/a.ts", "h", "80");
    r.type = RQTYPE_HEAD;
    LogCapture cap;
    EXPECT_EQ(send_http_request(sp.a(), &r), -1);
    EXPECT_EQ(cap.text(), "(ERR)  send_http_request: only GET requests are currently supported.\n");
    EXPECT_EQ(drain(sp.b()), "");
}

TEST(SendHttpRequest, TypeIsAFourBitField)
{
    http_request r{};
    r.type = 15;
    EXPECT_EQ(r.type, 15u);
    r.type = RQTYPE_HEAD;
    EXPECT_EQ(r.type, RQTYPE_HEAD);
}

TEST(SendHttpRequest, NoHostMeansLocalhost)
{
    for (const char* addr : {(const char*)nullptr, ""}) {
        SockPair sp;
        http_request r = get_rq("/a.ts", addr, "8080");
        ASSERT_EQ(send_http_request(sp.a(), &r), 0);
        EXPECT_EQ(drain(sp.b()), request_text("/a.ts", "1.1", "localhost:8080", "close", "kst"));
    }
}

TEST(SendHttpRequest, PortThatIsAbsentOrBeginsWithABlankIsLeftOut)
{
    for (const char* port : {(const char*)nullptr, "", " 80", "\t80", "\r80", "\n80"}) {
        SockPair sp;
        http_request r = get_rq("a.ts", "10.0.0.1", port);
        ASSERT_EQ(send_http_request(sp.a(), &r), 0);
        EXPECT_EQ(drain(sp.b()), request_text("/a.ts", "1.1", "10.0.0.1", "close", "kst"));
    }
}

TEST(SendHttpRequest, HostTextTooLongIsRefused)
{
    SockPair sp;
    const std::string addr(200, 'h');
    http_request r = get_rq("/a.ts", addr.c_str(), "80");
    LogCapture cap;
    EXPECT_EQ(send_http_request(sp.a(), &r), -1);
    EXPECT_EQ(cap.text(), "(ERR)  send_http_request: host buffer is too small, 203 bytes needed\n");
    EXPECT_EQ(drain(sp.b()), "");

    // Exactly 128 characters: the first length refused.
    const std::string addr128(128, 'h');
    r = get_rq("/a.ts", addr128.c_str(), nullptr);
    cap.clear();
    EXPECT_EQ(send_http_request(sp.a(), &r), -1);
    EXPECT_EQ(cap.text(), "(ERR)  send_http_request: host buffer is too small, 128 bytes needed\n");
}

TEST(SendHttpRequest, HostTextOf127CharactersIsCutOneShort)
{
    SockPair sp;
    const std::string addr(124, 'h');
    http_request r = get_rq("/a.ts", addr.c_str(), "80");
    ASSERT_EQ(send_http_request(sp.a(), &r), 0);
    EXPECT_EQ(drain(sp.b()), request_text("/a.ts", "1.1", addr + ":8", "close", "kst"));
}

TEST(SendHttpRequest, RequestTooLongIsRefused)
{
    SockPair sp;
    const std::string target = "/" + std::string(1900, 'r');
    http_request r = get_rq(target.c_str(), "10.0.0.1", "80");
    const size_t need = request_text(target, "1.1", "10.0.0.1:80", "close", "kst").size();
    ASSERT_GE(need, 2048u);
    LogCapture cap;
    EXPECT_EQ(send_http_request(sp.a(), &r), -1);
    EXPECT_EQ(cap.text(), strf("(ERR)  send_http_request: buffer is too small, %zu bytes required.\n", need));
    EXPECT_EQ(drain(sp.b()), "");
}

TEST(SendHttpRequest, RequestOf2047BytesGoesOutCutWithoutItsTerminator)
{
    const size_t base = request_text("/", "1.1", "10.0.0.1:80", "close", "kst").size();
    const std::string target = "/" + std::string(2047 - base, 'r');
    const std::string full = request_text(target, "1.1", "10.0.0.1:80", "close", "kst");
    ASSERT_EQ(full.size(), 2047u);
    SockPair sp;
    http_request r = get_rq(target.c_str(), "10.0.0.1", "80");
    ASSERT_EQ(send_http_request(sp.a(), &r), 0);
    EXPECT_EQ(drain(sp.b()), full.substr(0, 2046));
}

TEST(SendHttpRequest, ShortWriteIsAFailure)
{
    // A file size limit makes the one write stop 100 bytes short of it.
    constexpr rlim_t kLimit = 1 << 20;
    FILE* f = tmpfile();
    ASSERT_NE(f, nullptr);
    const int fd = fileno(f);
    ASSERT_EQ(lseek(fd, (off_t)kLimit - 100, SEEK_SET), (off_t)kLimit - 100);
    http_request r = get_rq("/live/a.ts", "10.0.0.1", "8080");
    const size_t n = request_text("/live/a.ts", "1.1", "10.0.0.1:8080", "close", "kst").size();

    SignalGuard no_xfsz(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    rlimit lim = saved;
    lim.rlim_cur = kLimit;
    LogCapture cap;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lim), 0);
    const int rc = send_http_request(fd, &r);
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(cap.text(), strf("(WRN)  send_http_request: only 100 out of %zu bytes sent to fd=%d\n", n, fd));
    fclose(f);
}

TEST(SendHttpRequest, WriteFailureIsLoggedByTheWriteAndTheSender)
{
    SignalGuard no_pipe(SIGPIPE, SIG_IGN);
    SockPair sp;
    sp.close_b();
    http_request r = get_rq("/live/a.ts", "10.0.0.1", "8080");
    const size_t n = request_text("/live/a.ts", "1.1", "10.0.0.1:8080", "close", "kst").size();
    LogCapture cap;
    EXPECT_EQ(send_http_request(sp.a(), &r), -1);
    const std::string log = cap.text();
    const size_t eol = log.find('\n');
    ASSERT_NE(eol, std::string::npos);
    const std::string write_line = log.substr(0, eol + 1);
    // The buffer's address stands in the middle of the write's line.
    EXPECT_EQ(write_line.rfind(strf("(ERR)  nwrite: write(%d, 0x", sp.a()), 0), 0u) << write_line;
    const std::string tail = strf(", %zu) ERROR(%d): %s\n", n, EPIPE, strerror(EPIPE));
    ASSERT_GE(write_line.size(), tail.size());
    EXPECT_EQ(write_line.substr(write_line.size() - tail.size()), tail);
    EXPECT_EQ(log.substr(eol + 1), strf("(ERR)  send_http_request: error sending HTTP request to fd=%d\n", sp.a()));
}

// ---- The end of the head ----

TEST(ReadHttp, CrLfCrLfEndsTheHead)
{
    SockPair sp;
    const std::string head = "HTTP/1.1 200 OK\r\nServer: s\r\n\r\n";
    put(sp.b(), head + "XY");
    char buf[1024] = {};
    ssize_t tail = 0;
    LogCapture cap;
    EXPECT_EQ(read_http(sp.a(), buf, 1023, 0, &tail), (ssize_t)head.size() + 2);
    EXPECT_EQ(tail, (ssize_t)head.size());
    EXPECT_EQ(cap.text(), strf("(DBG)  read_http: HTTP EOD marker found at pos=%zu\n"
                               "(DBG)  read_http: %zu bytes read from fd%d\n",
                               head.size(), head.size() + 2, sp.a()));
}

// A head followed by two body bytes, read at once: the head ends where it should.
void expect_head_end(const std::string& head)
{
    SockPair sp;
    put(sp.b(), head + "XY");
    char buf[1024] = {};
    ssize_t tail = 0;
    EXPECT_EQ(read_http(sp.a(), buf, 1023, 0, &tail), (ssize_t)head.size() + 2);
    EXPECT_EQ(tail, (ssize_t)head.size());
}

TEST(ReadHttp, BareLfLfEndsTheHead)
{
    expect_head_end("HTTP/1.1 200 OK\nServer: s\n\n");
}

TEST(ReadHttp, CrLfLfEndsTheHeadAtItsBareLfLf)
{
    expect_head_end("HTTP/1.1 200 OK\r\n\n");
}

TEST(ReadHttp, LfCrLfIsNoEnd)
{
    SockPair sp;
    const std::string data = "HTTP/1.1 200 OK\n\r\nXYZW";
    put(sp.b(), data);
    char buf[1024] = {};
    ssize_t tail = 0;
    LogCapture cap;
    EXPECT_EQ(read_http(sp.a(), buf, 1023, 0, &tail), (ssize_t)data.size());
    EXPECT_EQ(tail, 0);
    EXPECT_EQ(cap.text(), strf("(DBG)  read_http: fd=%d, no HTTP EOD marker found, %zu bytes read.\n"
                               "(DBG)  read_http: %zu bytes read from fd%d\n",
                               sp.a(), data.size(), data.size(), sp.a()));
}

TEST(ReadHttp, EndSplitOverTwoReadsIsFound)
{
    SockPair sp;
    char buf[1024] = {};
    ssize_t tail = 0;
    put(sp.b(), "HTTP/1.1 200 OK\r\n\r");
    ASSERT_EQ(read_http(sp.a(), buf, 1023, 0, &tail), 18);
    EXPECT_EQ(tail, 0);
    put(sp.b(), "\nAB");
    LogCapture cap;
    ASSERT_EQ(read_http(sp.a(), buf, 1023, 18, &tail), 3);
    EXPECT_EQ(tail, 19);
    EXPECT_EQ(std::string(buf, 21), "HTTP/1.1 200 OK\r\n\r\nAB");
    EXPECT_EQ(cap.text(), strf("(DBG)  read_http: HTTP EOD marker found at pos=19\n"
                               "(DBG)  read_http: 3 bytes read from fd%d\n",
                               sp.a()));
}

TEST(ReadHttp, HeadFedOneByteAtATimeEndsAtItsLastByte)
{
    for (const std::string head : {"HTTP/1.0 200 OK\r\nA: b\r\n\r\n", "HTTP/1.0 200 OK\nA: b\n\n"}) {
        const std::string data = head + "Z";
        SockPair sp;
        char buf[1024] = {};
        ssize_t tail = 0;
        for (size_t i = 0; i < data.size(); ++i) {
            put(sp.b(), data.substr(i, 1));
            ASSERT_EQ(read_http(sp.a(), buf, 1023, (ssize_t)i, &tail), 1);
            if (i + 1 < head.size())
                ASSERT_EQ(tail, 0) << "byte " << i;
            else
                ASSERT_EQ(tail, (ssize_t)head.size()) << "byte " << i;
        }
    }
}

TEST(ReadHttp, NullTailIsAllowed)
{
    SockPair sp;
    put(sp.b(), "HTTP/1.1 200 OK\r\n\r\n");
    char buf[64] = {};
    EXPECT_EQ(read_http(sp.a(), buf, 63, 0, nullptr), 19);
}

TEST(ReadHttp, EndOfDataIsReturnedAsItIs)
{
    SockPair sp;
    sp.close_b();
    char buf[64] = {};
    ssize_t tail = 0;
    LogCapture cap;
    EXPECT_EQ(read_http(sp.a(), buf, 63, 0, &tail), 0);
    EXPECT_EQ(cap.text(), strf("(DBG)  read_http: EOD(0) for fd%d\n", sp.a()));
}

TEST(ReadHttp, FailureKeepsItsErrno)
{
    SockPair sp;
    sp.nonblock_a();
    char buf[64] = {};
    ssize_t tail = 0;
    errno = 0;
    EXPECT_EQ(read_http(sp.a(), buf, 63, 0, &tail), -1);
    EXPECT_EQ(errno, EAGAIN);
}

// ---- The response head ----

TEST(RecvHttpResponse, CompleteHeadIsParsed)
{
    SockPair sp;
    const std::string head = "HTTP/1.1 200 OK\r\nServer: s\r\n\r\n";
    put(sp.b(), head + "BODY");
    char buf[1024];
    http_resp_ctx resp{};
    LogCapture cap;
    ASSERT_EQ(recv_http_response(sp.a(), buf, sizeof(buf), &resp), 0);
    EXPECT_EQ(resp.code, 200);
    EXPECT_EQ(resp.total, (ssize_t)head.size() + 4);
    EXPECT_EQ(resp.tail, (ssize_t)head.size());
    EXPECT_EQ(std::string(buf + resp.tail, 4), "BODY");
    const int fd = sp.a();
    // The head's last line end became the terminator.
    ASSERT_EQ(head.size(), 30u);
    EXPECT_EQ(cap.text(), strf("(DBG)  read_http: HTTP EOD marker found at pos=30\n"
                               "(DBG)  read_http: 34 bytes read from fd%d\n"
                               "(DBG)  recv_http_response: read 34 bytes from fd=%d\n"
                               "(DBG)  recv_http_response: total=34, tail=30; buf=[HTTP/1.1 200 OK\r\nServer: s\r\n\r]\n"
                               "(DBG)  recv_http_response: fd=%d received: HTTP/1.1 200 OK\n",
                               fd, fd, fd));
}

TEST(RecvHttpResponse, ConnectionClosedBeforeTheHeadEnds)
{
    SockPair sp;
    put(sp.b(), "HTTP/1.1 200 OK\r\n");
    sp.close_b();
    char buf[1024];
    http_resp_ctx resp{};
    LogCapture cap;
    EXPECT_EQ(recv_http_response(sp.a(), buf, sizeof(buf), &resp), -1);
    const int fd = sp.a();
    EXPECT_EQ(cap.text(), strf("(DBG)  read_http: fd=%d, no HTTP EOD marker found, 17 bytes read.\n"
                               "(DBG)  read_http: 17 bytes read from fd%d\n"
                               "(DBG)  recv_http_response: read 17 bytes from fd=%d\n"
                               "(DBG)  recv_http_response: reading more from fd%d\n"
                               "(DBG)  read_http: EOD(0) for fd%d\n"
                               "(ERR)  recv_http_response: client [fd=%d] connection broken\n",
                               fd, fd, fd, fd, fd, fd));
}

TEST(RecvHttpResponse, ConnectionResetIsBrokenToo)
{
    SockPair sp;
    // A peer that goes away with our bytes unread resets the connection.
    put(sp.a(), "GET");
    sp.close_b();
    char buf[1024];
    http_resp_ctx resp{};
    LogCapture cap;
    EXPECT_EQ(recv_http_response(sp.a(), buf, sizeof(buf), &resp), -1);
    EXPECT_EQ(cap.text(), strf("(DBG)  read_http: EOD(-1) for fd%d\n"
                               "(ERR)  recv_http_response: client [fd=%d] connection broken\n",
                               sp.a(), sp.a()));
}

TEST(RecvHttpResponse, OtherReadFailureHasNoLineOfItsOwn)
{
    char buf[1024];
    http_resp_ctx resp{};
    LogCapture cap;
    EXPECT_EQ(recv_http_response(-1, buf, sizeof(buf), &resp), -1);
    EXPECT_EQ(cap.text(), strf("(ERR)  nread: read(-1, %p, 1023) ERROR(%d): %s\n", (void*)buf, EBADF, strerror(EBADF)) +
                              "(DBG)  read_http: EOD(-1) for fd-1\n");
}

TEST(RecvHttpResponse, EmptyNonBlockingSocketAsksToBeCalledAgain)
{
    SockPair sp;
    sp.nonblock_a();
    char buf[1024];
    http_resp_ctx resp{};
    LogCapture cap;
    EXPECT_EQ(recv_http_response(sp.a(), buf, sizeof(buf), &resp), EAGAIN);
    EXPECT_EQ(resp.total, 0);
    EXPECT_EQ(cap.text(), strf("(DBG)  read_http: EOD(-1) for fd%d\n"
                               "(DBG)  recv_http_response: expecting more data from fd=%d\n",
                               sp.a(), sp.a()));
}

TEST(RecvHttpResponse, CallsAgainGoOnWhereTheLastStopped)
{
    SockPair sp;
    sp.nonblock_a();
    const std::string head = "HTTP/1.0 302 Found\r\nLocation: x\r\n\r\n";
    const std::string data = head + "T";
    char buf[1024];
    http_resp_ctx resp{};
    int rc = EAGAIN;
    size_t fed = 0;
    while (rc == EAGAIN && fed < data.size()) {
        put(sp.b(), data.substr(fed, 1));
        ++fed;
        rc = recv_http_response(sp.a(), buf, sizeof(buf), &resp);
    }
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(fed, head.size());
    EXPECT_EQ(resp.tail, (ssize_t)head.size());
    EXPECT_EQ(resp.total, (ssize_t)head.size());
    EXPECT_EQ(resp.code, 302);
}

TEST(RecvHttpResponse, HeadOfExactly1023BytesLeavesNoTail)
{
    const std::string start = "HTTP/1.1 200 OK\r\nX-Pad: ";
    const std::string head = start + std::string(1023 - start.size() - 4, 'p') + "\r\n\r\n";
    ASSERT_EQ(head.size(), 1023u);
    SockPair sp;
    put(sp.b(), head);
    char buf[1024];
    http_resp_ctx resp{};
    ASSERT_EQ(recv_http_response(sp.a(), buf, sizeof(buf), &resp), 0);
    EXPECT_EQ(resp.total, 1023);
    EXPECT_EQ(resp.tail, 1023);
    EXPECT_EQ(resp.code, 200);
}

TEST(RecvHttpResponse, FullBufferWithoutAnEndIsRefused)
{
    SockPair sp;
    put(sp.b(), "HTTP/1.1 200 OK\r\nX-Pad: " + std::string(1100, 'p'));
    char buf[1024];
    http_resp_ctx resp{};
    LogCapture cap;
    EXPECT_EQ(recv_http_response(sp.a(), buf, sizeof(buf), &resp), -1);
    EXPECT_EQ(resp.total, 1023);
    const int fd = sp.a();
    EXPECT_EQ(cap.text(), strf("(DBG)  read_http: fd=%d, no HTTP EOD marker found, 1023 bytes read.\n"
                               "(DBG)  read_http: 1023 bytes read from fd%d\n"
                               "(DBG)  recv_http_response: read 1023 bytes from fd=%d\n"
                               "(DBG)  recv_http_response: reading more from fd%d\n"
                               "(WRN)  recv_http_response: buffer already full, yet no HTTP EOD\n",
                               fd, fd, fd, fd));
}

namespace {

// The status line's fate: recv_http_response's result and its last log line.
struct Parsed {
    int rc;
    int code;
    std::string last;
};

Parsed parse_head(const std::string& head)
{
    SockPair sp;
    put(sp.b(), head);
    char buf[1024];
    http_resp_ctx resp{};
    LogCapture cap;
    Parsed p{};
    p.rc = recv_http_response(sp.a(), buf, sizeof(buf), &resp);
    p.code = resp.code;
    std::string log = cap.text();
    if (!log.empty())
        log.pop_back();
    p.last = log.substr(log.rfind('\n') + 1) + "\n";
    return p;
}

}  // namespace

TEST(RecvHttpResponse, StatusLineWithoutReasonIsRefused)
{
    const Parsed p = parse_head("HTTP/1.1 200\r\n\r\n");
    EXPECT_EQ(p.rc, -1);
    EXPECT_EQ(p.code, 0);
    EXPECT_EQ(p.last, "(ERR)  recv_http_response: parsed 3 < 4 elements (expected to be parsed)\n");
}

TEST(RecvHttpResponse, StatusLineWithoutReasonTakesAWordOfTheNextLine)
{
    // The blank of the format skips line ends as well.
    const Parsed p = parse_head("HTTP/1.1 200\r\nServer: s\r\n\r\n");
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.code, 200);
    EXPECT_NE(p.last.find("received: HTTP/1.1 200 Server:\n"), std::string::npos) << p.last;
}

TEST(RecvHttpResponse, HeadNotBeginningWithHttpIsRefused)
{
    const Parsed p = parse_head("ICY 200 OK\r\n\r\n");
    EXPECT_EQ(p.rc, -1);
    EXPECT_EQ(p.last, "(ERR)  recv_http_response: parsed 0 < 4 elements (expected to be parsed)\n");
    EXPECT_EQ(parse_head("http/1.1 200 OK\r\n\r\n").rc, -1);
}

TEST(RecvHttpResponse, TwoDigitVersionIsRefused)
{
    const Parsed p = parse_head("HTTP/11.1 200 OK\r\n\r\n");
    EXPECT_EQ(p.rc, -1);
    EXPECT_EQ(p.last, "(ERR)  recv_http_response: parsed 1 < 4 elements (expected to be parsed)\n");
}

TEST(RecvHttpResponse, OnlyTheReasonsFirstWordUpTo31CharactersIsRead)
{
    Parsed p = parse_head("HTTP/1.1 200 Very OK\r\n\r\n");
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.last.substr(p.last.find("received:")), "received: HTTP/1.1 200 Very\n");
    const std::string reason(40, 'R');
    p = parse_head("HTTP/1.1 404 " + reason + "\r\n\r\n");
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.code, 404);
    EXPECT_EQ(p.last.substr(p.last.find("received:")), "received: HTTP/1.1 404 " + reason.substr(0, 31) + "\n");
}

TEST(RecvHttpResponse, BareLfHeadIsAccepted)
{
    const Parsed p = parse_head("HTTP/1.0 200 OK\nServer: s\n\n");
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.code, 200);
}

TEST(RecvHttpResponseDeathTest, NullBufferOrNoLengthIsAnAssertion)
{
    http_resp_ctx resp{};
    char buf[8];
    EXPECT_DEATH(recv_http_response(0, nullptr, 8, &resp), "Assertion failed");
    EXPECT_DEATH(recv_http_response(0, buf, 0, &resp), "Assertion failed");
}

// ---- The exchange's read side, as the source opener runs it ----

TEST(GetHttpResponse, Status200HandsTheTailOver)
{
    SockPair sp;
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: video/mp2t\r\n\r\n";
    const std::string body(100, 'G');
    put(sp.b(), head + body);
    char tail[2048];
    size_t tail_size = 12345;
    LogCapture cap;
    ASSERT_EQ(get_http_response(sp.a(), tail, sizeof(tail), &tail_size), 0);
    EXPECT_EQ(tail_size, body.size());
    EXPECT_EQ(std::string(tail, tail_size), body);
    const int fd = sp.a();
    const size_t total = head.size() + body.size();
    EXPECT_EQ(cap.text(),
              strf("(DBG)  get_http_response: reading HTTP response from fd=%d\n"
                   "(DBG)  read_http: HTTP EOD marker found at pos=%zu\n"
                   "(DBG)  read_http: %zu bytes read from fd%d\n"
                   "(DBG)  recv_http_response: read %zu bytes from fd=%d\n"
                   "(DBG)  recv_http_response: total=%zu, tail=%zu; buf=[",
                   fd, head.size(), total, fd, total, fd, total, head.size()) +
                  head.substr(0, head.size() - 1) +
                  strf("]\n"
                       "(DBG)  recv_http_response: fd=%d received: HTTP/1.1 200 OK\n"
                       "(DBG)  get_http_response: response for fd%d has a tail of %zu bytes\n",
                       fd, fd, body.size()));
}

TEST(GetHttpResponse, OtherStatusIsRefused)
{
    for (int code : {204, 301, 404}) {
        SockPair sp;
        put(sp.b(), strf("HTTP/1.1 %d Whatever\r\n\r\n", code));
        char tail[2048];
        size_t tail_size = 7;
        LogCapture cap;
        EXPECT_NE(get_http_response(sp.a(), tail, sizeof(tail), &tail_size), 0);
        const std::string line = strf("(ERR)  get_http_response: expected HTTP 200, got HTTP %d\n", code);
        const std::string log = cap.text();
        ASSERT_GE(log.size(), line.size());
        EXPECT_EQ(log.substr(log.size() - line.size()), line);
        EXPECT_EQ(tail_size, 0u);
    }
}

TEST(GetHttpResponse, TailBiggerThanTheCapacityIsDropped)
{
    SockPair sp;
    const std::string head = "HTTP/1.1 200 OK\r\n\r\n";
    put(sp.b(), head + std::string(100, 'B'));
    char tail[64];
    memset(tail, '.', sizeof(tail));
    size_t tail_size = 12345;
    LogCapture cap;
    // The open goes on without the bytes.
    EXPECT_EQ(get_http_response(sp.a(), tail, sizeof(tail), &tail_size), 0);
    EXPECT_EQ(tail_size, 0u);
    EXPECT_EQ(tail[0], '.');
    const std::string line = strf("(ERR)  get_http_response: tail for fd%d is too big: 100 bytes, skipping\n", sp.a());
    const std::string log = cap.text();
    ASSERT_GE(log.size(), line.size());
    EXPECT_EQ(log.substr(log.size() - line.size()), line);
}

TEST(GetHttpResponse, TailOfExactlyTheCapacityFits)
{
    SockPair sp;
    const std::string head = "HTTP/1.1 200 OK\r\n\r\n";
    put(sp.b(), head + std::string(64, 'B'));
    char tail[64];
    size_t tail_size = 0;
    EXPECT_EQ(get_http_response(sp.a(), tail, sizeof(tail), &tail_size), 0);
    EXPECT_EQ(tail_size, 64u);
    EXPECT_EQ(std::string(tail, 64), std::string(64, 'B'));
}

TEST(GetHttpResponse, TailGoesOverOnlyWhenTheHeadEndsBelowTheCapacity)
{
    // The head's length, not the tail's, is held against the capacity first.
    SockPair sp;
    const std::string head = "HTTP/1.1 200 OK\r\nServer: s\r\n\r\n";
    put(sp.b(), head + "AB");
    char tail[16] = {};
    size_t tail_size = 77;
    LogCapture cap;
    EXPECT_EQ(get_http_response(sp.a(), tail, sizeof(tail), &tail_size), 0);
    EXPECT_EQ(tail_size, 77u);
    EXPECT_EQ(tail[0], '\0');
    EXPECT_EQ(cap.text().find("get_http_response: response for"), std::string::npos);
}

TEST(GetHttpResponse, NullTailOnlyLogsTheTail)
{
    SockPair sp;
    put(sp.b(), "HTTP/1.1 200 OK\r\n\r\nXYZ");
    LogCapture cap;
    EXPECT_EQ(get_http_response(sp.a(), nullptr, 2048, nullptr), 0);
    const std::string line = strf("(DBG)  get_http_response: response for fd%d has a tail of 3 bytes\n", sp.a());
    const std::string log = cap.text();
    ASSERT_GE(log.size(), line.size());
    EXPECT_EQ(log.substr(log.size() - line.size()), line);
}

TEST(GetHttpResponse, HeadOfExactly1023BytesGivesAnEmptyTail)
{
    const std::string start = "HTTP/1.1 200 OK\r\nX-Pad: ";
    const std::string head = start + std::string(1023 - start.size() - 2, 'p') + "\n\n";
    ASSERT_EQ(head.size(), 1023u);
    SockPair sp;
    put(sp.b(), head);
    char tail[2048];
    size_t tail_size = 99;
    LogCapture cap;
    EXPECT_EQ(get_http_response(sp.a(), tail, sizeof(tail), &tail_size), 0);
    EXPECT_EQ(tail_size, 0u);
    EXPECT_EQ(cap.text().find("has a tail"), std::string::npos);
}

TEST(GetHttpResponse, NonBlockingSocketWithoutDataFailsAtOnce)
{
    SockPair sp;
    sp.nonblock_a();
    char tail[2048];
    size_t tail_size = 5;
    LogCapture cap;
    EXPECT_EQ(get_http_response(sp.a(), tail, sizeof(tail), &tail_size), EAGAIN);
    EXPECT_EQ(tail_size, 5u);
    const int fd = sp.a();
    EXPECT_EQ(cap.text(), strf("(DBG)  get_http_response: reading HTTP response from fd=%d\n"
                               "(DBG)  read_http: EOD(-1) for fd%d\n"
                               "(DBG)  recv_http_response: expecting more data from fd=%d\n"
                               "(DBG)  get_http_response: expecting more data from fd%d\n",
                               fd, fd, fd, fd));
}

TEST(GetHttpResponse, ConnectionClosedBeforeTheHeadEndsFails)
{
    SockPair sp;
    put(sp.b(), "HTTP/1.1 200");
    sp.close_b();
    char tail[2048];
    size_t tail_size = 5;
    LogCapture cap;
    EXPECT_EQ(get_http_response(sp.a(), tail, sizeof(tail), &tail_size), -1);
    EXPECT_EQ(tail_size, 5u);
    EXPECT_NE(cap.text().find(strf("(ERR)  recv_http_response: client [fd=%d] connection broken\n", sp.a())),
              std::string::npos);
    EXPECT_EQ(cap.text().find("expected HTTP"), std::string::npos);
}

TEST(GetHttpResponse, HeadInManySmallPiecesIsFound)
{
    const std::string head = "HTTP/1.1 200 OK\r\nServer: s\r\nContent-Type: video/mp2t\r\n\r\n";
    const std::string body = "0123456789abcdef";
    SockPair sp;
    // The peer writes in pieces of three bytes with pauses, then hangs up;
    // whatever the reads gather, tail plus the rest must be the body.
    std::thread peer([&sp, data = head + body] {
        for (size_t i = 0; i < data.size(); i += 3) {
            const std::string piece = data.substr(i, 3);
            if (write(sp.b(), piece.data(), piece.size()) != (ssize_t)piece.size())
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        shutdown(sp.b(), SHUT_WR);
    });
    char tail[2048];
    size_t tail_size = 0;
    const int rc = get_http_response(sp.a(), tail, sizeof(tail), &tail_size);
    peer.join();
    ASSERT_EQ(rc, 0);
    std::string rest;
    char buf[256];
    ssize_t n;
    while ((n = read(sp.a(), buf, sizeof(buf))) > 0)
        rest.append(buf, (size_t)n);
    EXPECT_EQ(std::string(tail, tail_size) + rest, body);
}

namespace {

void quit_on_alarm(int)
{
    g_quit = 1;
}

}  // namespace

TEST(GetHttpResponse, QuitSignalEndsTheWaitForASilentServer)
{
    SockPair sp;
    char tail[2048];
    size_t tail_size = 5;
    LogCapture cap;
    int rc;
    {
        AlarmTicker ticker(quit_on_alarm);
        rc = get_http_response(sp.a(), tail, sizeof(tail), &tail_size);
    }
    g_quit = 0;
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(tail_size, 5u);
    EXPECT_EQ(cap.text(), strf("(DBG)  get_http_response: reading HTTP response from fd=%d\n"
                               "(DBG)  read_http: EOD(-1) for fd%d\n",
                               sp.a(), sp.a()));
}
