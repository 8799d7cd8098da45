// The HTTP client of a source: one fixed GET out, one response head in. Not
// a general client: only the status line is read, only 200 is accepted by
// the source opener, and nothing is decoded.
#pragma once

#include <sys/types.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "uri.h"

// Request kinds.
constexpr uint32_t RQTYPE_GET = 0;
constexpr uint32_t RQTYPE_HEAD = 1;

// Request flags, also the bits of usock_ctx.http_flags.
constexpr uint32_t RQFLAG_HTTP10_GET = 1;  // ask with HTTP/1.0: no chunked answer
constexpr uint32_t RQFLAG_KEEPALIVE = 2;

// The range of statuses that count as success.
constexpr int HTTP_OK_CODE = 200;
constexpr int HTTP_OK_END = 299;

// One request, built on the stack; every pointer is borrowed.
struct http_request {
    unsigned type : 4;      // RQTYPE_GET or RQTYPE_HEAD
    uint32_t flags;         // RQFLAG_HTTP10_GET, RQFLAG_KEEPALIVE
    const char* request;    // path and query as sent
    const char* server;     // the User-Agent text
    const char* host_addr;  // host of the Host line; null or empty means localhost
    const char* host_port;  // port of the Host line; may be null or empty
};

// The state of reading one response; zeroed by the caller before the first
// call to recv_http_response.
struct http_resp_ctx {
    int code;       // status code, 0 until parsed
    ssize_t total;  // bytes in the buffer so far
    ssize_t tail;   // offset of the first byte behind the head, 0 until found
};

// Send the request in one write: 0, or -1 after a line in the log. Not
// reentrant: the request is formed in static buffers.
int send_http_request(int sockfd, http_request* r);

// Read until the head is complete and parse its status line: 0 when done,
// EAGAIN to be called again with the same buffer and context, -1 on
// failure. The head must fit in buflen - 1 bytes.
int recv_http_response(int sockfd, char* buf, size_t buflen, http_resp_ctx* resp);

// One read at buf + offset, then a search of all the bytes from buf for the
// end of the head; *tail (when tail is not null) gets the offset behind it
// if found. Returns what the read returned, errno intact.
ssize_t read_http(int sockfd, char* buf, size_t buflen, ssize_t offset, ssize_t* tail);

// The server side: a client's request head in, a small response out. GET
// and HEAD only; no request body.

// Results of web_parse_urq beside 0.
constexpr int RC_FAVICON = 1028;
constexpr int RC_PING = 1029;
// ... and its failures beside -1 (a path that does not split or decode).
constexpr int WEB_NOPATH = -ESRCH;      // -3: the request has no path
constexpr int WEB_QUERYBIG = -E2BIG;    // -7: the query is beyond its limit
constexpr int WEB_URIBIG = E2BIG;       // 7: source and query do not fit ulen
// web_parse_url: a path of no or too many characters (34).
constexpr int WEB_BADPATH = ERANGE;

inline constexpr const char* HLS_M3U8_TYPE = "application/x-mpegURL";
inline constexpr const char* HLS_FRA_TYPE = "video/MP2T";
inline constexpr const char* HTTP_FAVICON_RQ = "favicon.ico";
inline constexpr const char* LOCALHOST_ADDR = "localhost";

constexpr size_t HTTP_HOST_MAX = 64;
constexpr size_t HTTP_UA_MAX = 128;
constexpr size_t HTTP_AENC_MAX = 32;
constexpr size_t HTTP_RESP_BUFSZ = 4096;

struct http_header {
    int type;        // RQTYPE_GET or RQTYPE_HEAD
    uri_layout uri;  // the request target, pointing into the request buffer
    char host[HTTP_HOST_MAX];       // empty when absent or too long
    char user_agent[HTTP_UA_MAX];   // percent-encoded
    char accept_enc[HTTP_AENC_MAX];
    bool is_keep_alive;
    bool is_close;
    bool is_http10;
};

struct http_response {
    int code;
    const char* content_type;
    const char* content_encoding;
    long content_length;  // no header when negative
    const char* reason;
    const char* server;
    const char* connection;
    const char* ok_suffix;  // one more header line, with 200 only, without its line end
    const char* location;
    const char* fpath;      // a file whose contents become the body
};

// The canned responses; the service sets `server` before use.
extern http_response g_resp_none, g_resp_ok, g_resp_ok204, g_resp_tmoved, g_resp_bad, g_resp_denied,
    g_resp_nfound, g_resp_unacc, g_resp_timeout, g_resp_err, g_resp_bgw, g_resp_svcun, g_resp_gwtmo;
extern http_response* g_resp;

int parse_http_header(const char* http_rq, size_t rqlen, http_header* hdr, char* urlbuf, size_t urlen);
// A header's value (not terminated) and its length, or null.
const char* find_http_header(const char* title, const char* buf, size_t* hdr_len);
ssize_t extract_num_hdr(const char* title, const char* buf, size_t len);
int mk_full_url(const http_header* hdr, char* buf, size_t buflen);
int extract_http_request_path_query(const char* http_rq, size_t hlen, char* path, size_t plen, char* query,
                                    size_t qlen);
// 0, RC_FAVICON, RC_PING or a failure; writes a terminator into http.
int web_parse_urq(char* http, size_t hlen, char* uri_src, char* uri_dst, size_t ulen, http_header* user_hdr);
int web_parse_url(const char* url, char* uri_src, char* uri_dst, size_t ulen);
bool is_ping_request(const char* path);
// The length of the response in buf, -1, or EINVAL for an unknown version.
ssize_t mk_http_xt_resp(const http_response* r, int version, char* buf, size_t buflen);
int send_http_response(int sockfd, const http_response* r);
http_response* http_code_resp(int http_code);
// Text for markup: the count of pieces written, or -34 when dst is too small.
int web_escape(const char* src, char* dst, size_t dstlen);
