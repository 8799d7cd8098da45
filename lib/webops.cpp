// The HTTP client of a source: the request in one write, the response head
// read in as few reads as the peer allows.
#include "webops.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "fdio.h"
#include "log.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr size_t HOST_TEXT_SIZE = 128;
constexpr size_t REQUEST_SIZE = 2048;
constexpr size_t REASON_SIZE = 32;

// Offset behind the first end of head in buf[0, len), or -1. A bare "\n\n"
// ends a head as well as "\r\n\r\n"; a mixed "\n\r\n" does not.
ssize_t find_head_end(const char* buf, ssize_t len)
{
    for (ssize_t i = 0; i < len; ++i) {
        if (buf[i] == '\n') {
            if (i + 1 >= len)
                return -1;
            if (buf[i + 1] == '\n')
                return i + 2;
        } else if (buf[i] == '\r') {
            if (len - i - 1 < 3)
                return -1;
            if (memcmp(buf + i + 1, "\n\r\n", 3) == 0)
                return i + 4;
        }
    }
    return -1;
}

}  // namespace

int send_http_request(int sockfd, http_request* r)
{
    static constexpr const char* fn = "send_http_request";
    // On the caller's stack: 2 KiB once per source, and nothing of one
    // request outlives its call.
    char host[HOST_TEXT_SIZE];
    char rq[REQUEST_SIZE];

    if (r->type != RQTYPE_GET) {
        LOG_AT(ERR_level, "%s: only GET requests are currently supported.\n", fn);
        return -1;
    }
    const char* addr = (r->host_addr != nullptr && r->host_addr[0] != '\0') ? r->host_addr : "localhost";
    const char* port = r->host_port;
    const bool with_port = port != nullptr && port[0] != '\0' && strchr("\t\r\n ", port[0]) == nullptr;

    // One byte less than the buffer is offered, so a text of exactly 127
    // characters comes out one short and unremarked; only a longer one is
    // refused.
    int n = with_port ? snprintf(host, sizeof(host) - 1, "%s:%s", addr, port)
                      : snprintf(host, sizeof(host) - 1, "%s", addr);
    if (n >= (int)sizeof(host)) {
        LOG_AT(ERR_level, "%s: host buffer is too small, %d bytes needed\n", fn, n);
        return -1;
    }

    const char* request = r->request != nullptr ? r->request : "";
    n = snprintf(rq, sizeof(rq) - 1,
                 "GET %s%s HTTP/%s\r\nHost: %s\r\nConnection: %s\r\nUser-Agent: %s\r\n"
                 "Accept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
                 "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n",
                 request[0] == '/' ? "" : "/", request, (r->flags & RQFLAG_HTTP10_GET) ? "1.0" : "1.1", host,
                 (r->flags & RQFLAG_KEEPALIVE) ? "keep-alive" : "close", r->server != nullptr ? r->server : "");
    if (n >= (int)sizeof(rq)) {
        LOG_AT(ERR_level, "%s: buffer is too small, %d bytes required.\n", fn, n);
        return -1;
    }
    // A result of exactly 2047 was cut by one: send the text as it stands,
    // never its terminator.
    if (n > (int)sizeof(rq) - 2)
        n = (int)sizeof(rq) - 2;

    // One write only: a request that doesn't go out whole is a failure, the
    // connection is not worth a second attempt.
    const ssize_t sent = nwrite(sockfd, rq, (size_t)n, FDIO_VERBOSE);
    if (sent <= 0) {
        LOG_AT(ERR_level, "%s: error sending HTTP request to fd=%d\n", fn, sockfd);
        return -1;
    }
    if (sent != n) {
        LOG_AT(WARN_level, "%s: only %ld out of %d bytes sent to fd=%d\n", fn, (long)sent, n, sockfd);
        return -1;
    }
    LOG_AT(DEBUG_level, "%s: sent %ld bytes to fd=%d:\n%s", fn, (long)sent, sockfd, rq);
    return 0;
}

ssize_t read_http(int sockfd, char* buf, size_t buflen, ssize_t offset, ssize_t* tail)
{
    static constexpr const char* fn = "read_http";

    const ssize_t rc = nread(sockfd, buf + offset, buflen - (size_t)offset, 0);
    if (rc <= 0) {
        const int err = errno;
        LOG_AT(DEBUG_level, "%s: EOD(%zd) for fd%d\n", fn, rc, sockfd);
        errno = err;  // the caller judges the failure by it
        return rc;
    }

    // The whole buffer is searched again at every read: the end of the head
    // may be split between two reads.
    const ssize_t have = offset + rc;
    const ssize_t end = find_head_end(buf, have);
    if (end >= 0) {
        LOG_AT(DEBUG_level, "%s: HTTP EOD marker found at pos=%ld\n", fn, (long)end);
        if (tail != nullptr)
            *tail = end;
    } else {
        LOG_AT(DEBUG_level, "%s: fd=%d, no HTTP EOD marker found, %ld bytes read.\n", fn, sockfd, (long)have);
    }
    LOG_AT(DEBUG_level, "%s: %zd bytes read from fd%d\n", fn, rc, sockfd);
    return rc;
}

int recv_http_response(int sockfd, char* buf, size_t buflen, http_resp_ctx* resp)
{
    static constexpr const char* fn = "recv_http_response";

    LOG_ASSERT(buf != nullptr);
    LOG_ASSERT(buflen > 0);

    // One byte stays free, so the head is always a terminated text.
    while (resp->total < (ssize_t)buflen - 1) {
        const ssize_t rc = read_http(sockfd, buf, buflen - 1, resp->total, &resp->tail);
        const int err = rc < 0 ? errno : 0;
        if (rc == 0 || err == ECONNABORTED || err == ECONNRESET) {
            LOG_AT(ERR_level, "%s: client [fd=%d] connection broken\n", fn, sockfd);
            return -1;
        }
        if (err == EAGAIN) {
            LOG_AT(DEBUG_level, "%s: expecting more data from fd=%d\n", fn, sockfd);
            return EAGAIN;
        }
        if (rc < 0)
            return -1;

        LOG_AT(DEBUG_level, "%s: read %ld bytes from fd=%d\n", fn, (long)rc, sockfd);
        resp->total += rc;
        if (resp->tail > 0)
            break;
        LOG_AT(DEBUG_level, "%s: reading more from fd%d\n", fn, sockfd);
    }
    if (resp->tail == 0) {
        LOG_AT(WARN_level, "%s: buffer already full, yet no HTTP EOD\n", fn);
        return -1;
    }
    LOG_ASSERT(resp->total < (ssize_t)buflen);

    // The head's last line end gives way to the terminator: from here on the
    // head is one text, of which only the status line is read.
    buf[resp->tail - 1] = '\0';
    LOG_AT(DEBUG_level, "%s: total=%lu, tail=%lu; buf=[%s]\n", fn, (unsigned long)resp->total,
           (unsigned long)resp->tail, buf);

    int major = 0;
    int minor = 0;
    int code = 0;
    char reason[REASON_SIZE] = {};
    const int parsed = sscanf(buf, "HTTP/%1d.%1d %d %31s\r\n", &major, &minor, &code, reason);
    if (parsed < 4) {
        LOG_AT(ERR_level, "%s: parsed %d < 4 elements (expected to be parsed)\n", fn, parsed);
        return -1;
    }
    resp->code = code;
    LOG_AT(DEBUG_level, "%s: fd=%d received: HTTP/%d.%d %d %s\n", fn, sockfd, major, minor, code, reason);
    return 0;
}
