// The server side of HTTP: request heads, the loose header look-up, the
// split of a request path, the canned responses byte for byte, and text
// escaped for markup.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include "logcap.h"
#include "strf.h"
#include "testfs.h"
#include "webops.h"

namespace {

struct Urq {
    int rc;
    std::string src;
    std::string dst;
    http_header hdr;
};

Urq urq(const std::string& head, size_t ulen = 256)
{
    std::string buf = head;
    char src[512] = "(unset)";
    char dst[512] = "(unset)";
    Urq out{};
    out.rc = web_parse_urq(buf.data(), buf.size(), src, dst, ulen, &out.hdr);
    out.src = src;
    out.dst = dst;
    return out;
}

std::string response(const http_response& r, int version = 11)
{
    char buf[4096];
    const ssize_t n = mk_http_xt_resp(&r, version, buf, sizeof(buf));
    return n < 0 ? "(-1)" : std::string(buf, (size_t)n);
}

}  // namespace

TEST(HttpServer, PingRequests)
{
    EXPECT_EQ(urq("GET /ping HTTP/1.1\r\n\r\n").rc, RC_PING);
    EXPECT_EQ(urq("GET /PING/ HTTP/1.1\r\n\r\n").rc, RC_PING);
    // Anything more goes on to the split of the path.
    const Urq more = urq("GET /ping/x HTTP/1.1\r\n\r\n");
    EXPECT_EQ(more.rc, -1);
    EXPECT_TRUE(is_ping_request("/ping"));
    EXPECT_TRUE(is_ping_request("Ping/"));
    EXPECT_FALSE(is_ping_request("//ping"));
    EXPECT_FALSE(is_ping_request("/ping//"));
}

TEST(HttpServer, TheFaviconIsAnsweredBeforeAnySplit)
{
    LogCapture cap;
    EXPECT_EQ(urq("GET /favicon.ico HTTP/1.1\r\nHost: h\r\n\r\n").rc, RC_FAVICON);
    EXPECT_THAT(cap.text(), testing::HasSubstr("(DBG)  web_parse_urq: favicon request received.\n"));
    EXPECT_EQ(urq("HEAD /FAVICON.ICO HTTP/1.0\r\n\r\n").rc, RC_FAVICON);
}

TEST(HttpServer, ASourceAndDestinationFromThePathAndTheQueryBehindTheSource)
{
    Urq u = urq("GET /udp/239.1.1.1:5000/?x=1 HTTP/1.1\r\nHost: example:8080\r\n\r\n");
    EXPECT_EQ(u.rc, 0);
    EXPECT_EQ(u.src, "udp://239.1.1.1:5000?x=1");
    EXPECT_EQ(u.dst, "");
    EXPECT_STREQ(u.hdr.host, "example:8080");
    EXPECT_EQ(u.hdr.type, (int)RQTYPE_GET);
    u = urq("GET /src/udp/239.1.1.1:5000/dst/out%41 HTTP/1.1\r\n\r\n");
    EXPECT_EQ(u.rc, 0);
    EXPECT_EQ(u.src, "udp/239.1.1.1:5000");
    EXPECT_EQ(u.dst, "outA");
    // No room for the query behind the source.
    LogCapture cap(ERR_level);
    u = urq("GET /udp/239.1.1.1:5000/?abcdefghij HTTP/1.1\r\n\r\n", 28);
    EXPECT_EQ(u.rc, WEB_URIBIG);
    EXPECT_EQ(cap.text(), "(ERR)  web_parse_urq: URI query is too long (10 bytes), max allowed=6 bytes, "
                          "discarding request\n");
}

TEST(HttpServer, RefusedRequests)
{
    LogCapture cap(ERR_level);
    EXPECT_EQ(urq("POST /x HTTP/1.1\r\n\r\n").rc, EINVAL);
    EXPECT_EQ(cap.text(), "(ERR)  HTTP [POST] is NOT supported\n");
    cap.clear();
    EXPECT_EQ(urq("GE /x HTTP/1.1\r\n\r\n").rc, -1);
    // The width of %7s is a least one: the whole head is shown.
    EXPECT_EQ(cap.text(), "(ERR)  parse_http_header: failed to get HTTP method from GE /x HTTP/1.1\r\n\r\n\n");
    cap.clear();
    EXPECT_EQ(urq("GET /x FTP/1.1\r\n\r\n").rc, -1);
    EXPECT_EQ(cap.text(), "(ERR)  parse_http_header: expected [HTTP/1.] to follow the URI path, got [FTP/1.1\r\n\r\n]\n");
    cap.clear();
    const std::string q256 = "GET /x?" + std::string(256, 'q') + " HTTP/1.1\r\n\r\n";
    EXPECT_EQ(urq(q256).rc, WEB_QUERYBIG);
    EXPECT_EQ(cap.text(), "(ERR)  web_parse_urq: URI query length (256 bytes) is beyond the limit: 256\n");
    cap.clear();
    EXPECT_EQ(urq("GET /what/ever HTTP/1.1\r\n\r\n").rc, -1);
    EXPECT_EQ(cap.text(), "(ERR)  web_parse_urq: error(-14) parsing request data [what/ever]\n");
    cap.clear();
    EXPECT_EQ(urq("GET /udp/1.2.3.4:5%4 HTTP/1.1\r\n\r\n").rc, -1);
    EXPECT_EQ(cap.text(), "(ERR)  web_parse_urq: error URI-decoding\n");
}

TEST(HttpServer, ARequestLineAloneIsTakenWithAWarning)
{
    LogCapture cap(WARN_level);
    http_header hdr;
    const std::string rq = "GET /x";
    EXPECT_EQ(parse_http_header(rq.c_str(), rq.size(), &hdr, nullptr, 0), 0);
    EXPECT_EQ(cap.text(), "(WRN)  parse_http_header: no header sections found\n");
    cap.clear();
    const std::string rq10 = "HEAD /x HTTP/1.0\r\n";
    EXPECT_EQ(parse_http_header(rq10.c_str(), rq10.size(), &hdr, nullptr, 0), 0);
    EXPECT_TRUE(hdr.is_http10);
    EXPECT_EQ(hdr.type, (int)RQTYPE_HEAD);
}

TEST(HttpServer, TheHeadersAServiceNeeds)
{
    const std::string rq = "GET /a/b?c=d HTTP/1.1\r\nHost: " + std::string(64, 'h') +
                           "\r\nUser-Agent: curl 8 /x\r\nConnection: Keep-Alive\r\nAccept-Encoding: " +
                           std::string(40, 'e') + "\r\n\r\n";
    http_header hdr;
    char url[64];
    LogCapture cap(WARN_level);
    ASSERT_EQ(parse_http_header(rq.c_str(), rq.size(), &hdr, url, sizeof(url)), 0);
    EXPECT_STREQ(url, "/a/b?c=d");
    EXPECT_STREQ(hdr.host, "");
    EXPECT_STREQ(hdr.user_agent, "curl%208%20%2Fx");
    EXPECT_TRUE(hdr.is_keep_alive);
    EXPECT_FALSE(hdr.is_close);
    EXPECT_EQ(std::string(hdr.accept_enc), std::string(31, 'e'));
    EXPECT_EQ(cap.text(), "(ERR)  parse_http_header: Host length is too long: 64\n"
                          "(WRN)  parse_http_header: [Accept-Encoding:] text has been trimmed from 40 to 31 chars\n");
    // The whole value is compared: both words together set neither flag.
    const std::string both = "GET /x HTTP/1.1\r\nConnection: keep-alive, close\r\n\r\n";
    ASSERT_EQ(parse_http_header(both.c_str(), both.size(), &hdr, nullptr, 0), 0);
    EXPECT_FALSE(hdr.is_keep_alive);
    EXPECT_FALSE(hdr.is_close);
    char full[128];
    const std::string hosted = "GET /x/y HTTP/1.1\r\nHost: h:1\r\nConnection: close\r\n\r\n";
    ASSERT_EQ(parse_http_header(hosted.c_str(), hosted.size(), &hdr, nullptr, 0), 0);
    EXPECT_TRUE(hdr.is_close);
    EXPECT_EQ(mk_full_url(&hdr, full, sizeof(full)), 0);
    EXPECT_STREQ(full, "h:1/x/y");
    hdr.host[0] = '\0';
    EXPECT_EQ(mk_full_url(&hdr, full, sizeof(full)), EINVAL);
}

TEST(HttpServer, HeaderLookUpIsLoose)
{
    // A title inside another header's value wins over the real one below.
    const char* buf = "X-Note: see Host: fake\r\nHost: real\r\n";
    size_t len = 0;
    const char* v = find_http_header("Host:", buf, &len);
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(std::string(v, len), "fake");
    // With or without the colon, in any case of letters.
    v = find_http_header("content-length", "Content-Length: 42\r\n", &len);
    EXPECT_EQ(std::string(v, len), "42");
    // An empty value takes the next line for its own.
    v = find_http_header("A:", "A:\r\nB: 2\r\n", &len);
    EXPECT_EQ(std::string(v, len), "B: 2");
    // No white space behind the title, or no line end behind the value: none.
    EXPECT_EQ(find_http_header("A:", "A:x\r\n", &len), nullptr);
    EXPECT_EQ(find_http_header("A:", "A: x", &len), nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(extract_num_hdr("Content-Length:", "Content-Length: 1234\r\n", 0), 1234);
    EXPECT_EQ(extract_num_hdr("Content-Length:", "Other: 1\r\n", 0), -1);
    LogCapture cap(WARN_level);
    const std::string big = "N: " + std::string(40, '7') + "\r\n";
    EXPECT_EQ(extract_num_hdr("N:", big.c_str(), 0), atol(std::string(31, '7').c_str()));
    EXPECT_EQ(cap.text(), "(WRN)  extract_num_hdr: header [N:] value length is too big: 40 bytes\n");
}

TEST(HttpServer, ThePathAndQueryOfARequestWithTheirDifferentBounds)
{
    const std::string rq = "GET /abc?12345 HTTP/1.1\r\n\r\n";
    char path[8], query[8];
    EXPECT_EQ(extract_http_request_path_query(rq.c_str(), rq.size(), path, 4, query, 5), 0);
    EXPECT_STREQ(path, "abc");
    EXPECT_STREQ(query, "12345");
    LogCapture cap(ERR_level);
    EXPECT_EQ(extract_http_request_path_query(rq.c_str(), rq.size(), path, 3, query, 5), -1);
    EXPECT_THAT(cap.text(), testing::StartsWith("(ERR)  extract_http_request_path_query: path is too long [3 chars, "
                                                "allowed: 2]: "));
    cap.clear();
    EXPECT_EQ(extract_http_request_path_query(rq.c_str(), rq.size(), path, 4, query, 4), -1);
    EXPECT_THAT(cap.text(), testing::StartsWith("(ERR)  extract_http_request_path_query: query is too long [5 chars, "
                                                "allowed: 4]: "));
}

TEST(HttpServer, AUrlOutsideARequest)
{
    char src[128], dst[128];
    EXPECT_EQ(web_parse_url("/udp/239.1.1.1:5000", src, dst, sizeof(src)), 0);
    EXPECT_STREQ(src, "udp://239.1.1.1:5000");
    // With a scheme the grammar's path begins at the host.
    LogCapture cap(ERR_level);
    EXPECT_EQ(web_parse_url("http://h/udp/239.1.1.1:5000", src, dst, sizeof(src)), URI_EP_UNKNOWN);
    EXPECT_EQ(cap.text(), "(ERR)  web_parse_url: error(-14) parsing path [h/udp/239.1.1.1:5000]\n");
    cap.clear();
    EXPECT_EQ(web_parse_url("http://h", src, dst, sizeof(src)), URI_EP_NOSLASH);
    EXPECT_EQ(cap.text(), "(ERR)  web_parse_url: error(3) parsing path [h]\n");
    cap.clear();
    const std::string longer = "http://h/" + std::string(130, 'p');
    EXPECT_EQ(web_parse_url(longer.c_str(), src, dst, sizeof(src)), WEB_BADPATH);
    EXPECT_EQ(cap.text(), "(ERR)  web_parse_url: invalid path size: 132\n");
}

TEST(HttpServer, TheCannedResponsesByteForByte)
{
    struct {
        http_response* r;
        const char* head;
    } table[] = {
        {&g_resp_ok, "HTTP/1.1 200 OK\r\nServer: kst-test\r\n\r\n"},
        {&g_resp_ok204, "HTTP/1.1 204 No Content\r\nServer: kst-test\r\n\r\n"},
        {&g_resp_tmoved, "HTTP/1.1 302 Moved Temporarily\r\nServer: kst-test\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"},
        {&g_resp_bad, "HTTP/1.1 400 Bad request\r\nServer: kst-test\r\nContent-Length: 0\r\n\r\n"},
        {&g_resp_denied, "HTTP/1.1 403 Forbidden\r\nServer: kst-test\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"},
        {&g_resp_nfound, "HTTP/1.1 404 Not Found\r\nServer: kst-test\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"},
        {&g_resp_unacc,
         "HTTP/1.1 406 Not Acceptable\r\nServer: kst-test\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"},
        {&g_resp_timeout,
         "HTTP/1.1 408 Request Timeout\r\nServer: kst-test\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"},
        {&g_resp_err, "HTTP/1.1 500 Service error\r\nServer: kst-test\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"},
        {&g_resp_bgw, "HTTP/1.1 502 Bad Gateway\r\nServer: kst-test\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"},
        {&g_resp_svcun,
         "HTTP/1.1 503 Service Unavailable\r\nServer: kst-test\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"},
        {&g_resp_gwtmo,
         "HTTP/1.1 504 Gateway Timeout\r\nServer: kst-test\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"},
    };
    for (const auto& t : table) {
        http_response r = *t.r;
        r.server = "kst-test";
        EXPECT_EQ(response(r), t.head) << r.code;
    }
    http_response r = g_resp_ok;
    r.server = "kst-test";
    EXPECT_EQ(response(r, 10), "HTTP/1.0 200 OK\r\nServer: kst-test\r\n\r\n");
}

TEST(HttpServer, ABuiltResponseWithEveryField)
{
    TempDir dir("web");
    http_response r = g_resp_ok;
    r.server = "kst-web/1";
    r.content_type = HLS_M3U8_TYPE;
    r.content_encoding = "identity";
    r.content_length = 5;
    r.connection = "keep-alive";
    r.location = "http://h/x";
    r.ok_suffix = "Cache-Control: no-cache";
    r.fpath = nullptr;
    const std::string path = dir.make("body", "hello");
    r.fpath = path.c_str();
    EXPECT_EQ(response(r), "HTTP/1.1 200 OK\r\nServer: kst-web/1\r\nContent-Type: application/x-mpegURL\r\n"
                           "Content-Encoding: identity\r\nContent-Length: 5\r\nConnection: keep-alive\r\n"
                           "Location: http://h/x\r\nCache-Control: no-cache\r\n\r\nhello");
    // The suffix goes with 200 only; a line too long for its field is left out.
    r.code = 206;
    r.fpath = nullptr;
    const std::string long_type(130, 't');
    r.content_type = long_type.c_str();
    EXPECT_EQ(response(r), "HTTP/1.1 206 OK\r\nServer: kst-web/1\r\nContent-Encoding: identity\r\n"
                           "Content-Length: 5\r\nConnection: keep-alive\r\nLocation: http://h/x\r\n\r\n");
    // No room: -1.
    char small[40];
    EXPECT_EQ(mk_http_xt_resp(&r, 11, small, sizeof(small)), -1);
    LogCapture cap(ERR_level);
    EXPECT_EQ(mk_http_xt_resp(&r, 20, small, sizeof(small)), EINVAL);
    EXPECT_EQ(cap.text(), "(ERR)  mk_http_xt_resp: HTTP/2.0 not supported\n");
}

TEST(HttpServer, CodesWithoutACannedResponse)
{
    EXPECT_EQ(http_code_resp(404), &g_resp_nfound);
    LogCapture cap(WARN_level);
    EXPECT_EQ(http_code_resp(299), &g_resp_ok);
    EXPECT_EQ(http_code_resp(301), &g_resp_err);
    EXPECT_EQ(cap.text(), "(WRN)  http_code_resp: no response for HTTP299 defined, please update the lib!\n"
                          "(WRN)  http_code_resp: no response for HTTP301 defined, please update the lib!\n");
    http_response r = *http_code_resp(204);
    r.server = "s";
    EXPECT_EQ(response(r).find("Content-Length"), std::string::npos);
}

TEST(HttpServer, AResponseGoesOutInOneWrite)
{
    int sp[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sp), 0);
    http_response r = g_resp_nfound;
    r.server = "kst-test";
    EXPECT_EQ(send_http_response(sp[0], &r), 0);
    char buf[256];
    const ssize_t n = read(sp[1], buf, sizeof(buf));
    EXPECT_EQ(std::string(buf, (size_t)n), response(r));
    close(sp[1]);
    signal(SIGPIPE, SIG_IGN);
    LogCapture cap(ERR_level);
    EXPECT_EQ(send_http_response(sp[0], &r), -1);
    EXPECT_THAT(cap.text(), testing::EndsWith(strf("(ERR)  send_http_response: error sending HTTP response to fd=%d\n"
                                                   "(ERR)  send_http_response: error compiling HTTP response for fd=%d\n",
                                                   sp[0], sp[0])));
    close(sp[0]);
}

TEST(HttpServer, TextEscapedForMarkup)
{
    char dst[64] = {};
    EXPECT_EQ(web_escape("a<b>&'c\"d", dst, sizeof(dst)), 6);
    EXPECT_STREQ(dst, "a&lt;b&gt;&amp;&apos;c&quot;d");
    char untouched[8] = "keep";
    EXPECT_EQ(web_escape("plain", untouched, sizeof(untouched)), 0);
    EXPECT_STREQ(untouched, "keep");
    EXPECT_EQ(web_escape("", untouched, sizeof(untouched)), 0);
    EXPECT_EQ(web_escape("x&y", nullptr, 0), 2);
    char tiny[6] = {};
    EXPECT_EQ(web_escape("a&b", tiny, sizeof(tiny)), -34);
    // Text behind the last special character gets no terminator of its own.
    char marked[16];
    memset(marked, '#', sizeof(marked));
    EXPECT_EQ(web_escape("&ab", marked, sizeof(marked)), 2);
    EXPECT_EQ(std::string(marked, 8), "&amp;ab#");
}
