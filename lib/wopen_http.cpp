// The exchange that turns a connected socket into a stream of body bytes:
// one GET out, the response head read and checked, the tail kept.
#include "wopen_http.h"

#include "netops.h"

#include <fcntl.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "log.h"
#include "timeop.h"
#include "uri.h"
#include "webops.h"
#include "wopen.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr size_t HOST_MAX = 1025;
constexpr size_t PORT_MAX = 32;
constexpr size_t GET_QUERY_SIZE = 128;
constexpr size_t RESPONSE_BUF_SIZE = 1024;

}  // namespace

int fwd_http_rq(int sockfd, const char* uri, uint32_t flags)
{
    static constexpr const char* fn = "fwd_http_rq";
    char path[URI_PATH_MAX] = {};
    char query[URI_QUERY_MAX] = {};
    char host[HOST_MAX] = {};
    char port[PORT_MAX] = {};

    if (uri_extract(uri, nullptr, nullptr, path, query) == URI_BAD)
        return -1;
    // The port stays empty when the URL has none, even though the connection
    // went to 80: the Host line then names no port.
    const char* request = uri_path_addrport(path, URI_PATH_MAX, host, sizeof(host), port, sizeof(port));
    if (request == nullptr) {
        LOG_AT(ERR_level, "%s: URI has no path tail: %s\n", fn, uri);
        return -1;
    }

    // An overlong query is sent cut rather than refused. One byte less than
    // the buffer is offered, so exactly 127 characters come out one short
    // with no line in the log.
    char get_query[GET_QUERY_SIZE];
    if (query[0] != '\0') {
        const int n = snprintf(get_query, sizeof(get_query) - 1, "%s?%s", request, query);
        if (n >= (int)sizeof(get_query))
            LOG_AT(WARN_level, "%s: GET query is too long [%d bytes], max=%ld bytes.\n", fn, n,
                   (long)(sizeof(get_query) - 1));
        request = get_query;
    }

    // The process-wide switch is only reported: the version asked for comes
    // from the handle's own flags.
    if (g_usock_flags.use_http10_get)
        LOG_AT(DEBUG_level, "%s: Using HTTP/1.0 request\n", fn);

    http_request rq{};
    rq.type = RQTYPE_GET;
    rq.flags = flags;
    rq.request = request;
    rq.server = g_apptag;
    rq.host_addr = host;
    rq.host_port = port;
    return send_http_request(sockfd, &rq);
}

int get_http_response(int sockfd, char* tail, size_t tail_cap, size_t* tail_size)
{
    static constexpr const char* fn = "get_http_response";
    // The clock that timed_out reads is the event loop's. Without an event
    // loop it stays at zero and the time-out never bites: a silent server
    // holds a blocking read until a signal asks the program to quit.
    static constexpr timespec http_tmout{5, 0};

    http_resp_ctx resp{};
    char buf[RESPONSE_BUF_SIZE] = {};
    LOG_AT(DEBUG_level, "%s: reading HTTP response from fd=%d\n", fn, sockfd);

    timespec last_io_tm{};
    set_clk_now(&last_io_tm, CLOCK_MONOTONIC);
    const int non_blocking = is_non_blocking(sockfd);

    int rc = 0;
    bool head_done = false;
    if (timed_out(&last_io_tm, &http_tmout)) {
        head_done = true;
    } else {
        for (;;) {
            rc = recv_http_response(sockfd, buf, sizeof(buf), &resp);
            if (rc == 0) {
                head_done = true;
                break;
            }
            if (rc != EAGAIN)
                break;
            LOG_AT(DEBUG_level, "%s: expecting more data from fd%d\n", fn, sockfd);
            // Nobody would call again: the source is opened once.
            if (non_blocking != 0)
                return rc;
            set_clk_now(&last_io_tm, CLOCK_MONOTONIC);
            if (timed_out(&last_io_tm, &http_tmout))
                break;
        }
    }

    if (head_done && resp.code != HTTP_OK_CODE) {
        LOG_AT(ERR_level, "%s: expected HTTP %d, got HTTP %d\n", fn, HTTP_OK_CODE, resp.code);
        rc = -1;
    }

    // The bytes behind the head have left the socket already and are the
    // first of the stream: they must reach the caller or be reported lost.
    if (resp.tail > 0 && (size_t)resp.tail < tail_cap) {
        const ssize_t t = resp.total - resp.tail;
        if (tail != nullptr) {
            if ((size_t)t > tail_cap) {
                LOG_AT(ERR_level, "%s: tail for fd%d is too big: %ld bytes, skipping\n", fn, sockfd, (long)t);
                if (tail_size != nullptr)
                    *tail_size = 0;
                return rc;
            }
            memcpy(tail, buf + resp.tail, (size_t)t);
            if (tail_size != nullptr)
                *tail_size = (size_t)t;
        }
        if (t > 0)
            LOG_AT(DEBUG_level, "%s: response for fd%d has a tail of %lu bytes\n", fn, sockfd, (unsigned long)t);
    }
    return rc;
}
