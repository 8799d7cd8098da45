// The HTTP client of a source: one fixed GET out, one response head in. Not
// a general client: only the status line is read, only 200 is accepted by
// the source opener, and nothing is decoded.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>

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
