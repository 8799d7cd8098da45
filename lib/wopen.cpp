// Source handles: the one place that knows which kinds of source URL exist.
#include "wopen.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "netops.h"
#include "syswrap.h"
#include "uri.h"
#include "vrassert.h"
#include "wopen_http.h"

LOG_UNIT(LLMOD_DEFAULT);

char g_apptag[128];
usock_flags g_usock_flags;

namespace {

constexpr size_t HTTP_TAILBUF_SIZE = 2048;
constexpr size_t HOST_MAX = 1025;
constexpr size_t PORT_MAX = 32;

// A stream source may leave bytes behind a protocol head: it gets a buffer
// for them unless the caller lent one.
bool ensure_tail_buf(usock_ctx* uc)
{
    if (uc->buf != nullptr)
        return true;
    uc->buf = static_cast<char*>(W_calloc("usock_open", 1, HTTP_TAILBUF_SIZE));
    if (uc->buf == nullptr)
        return false;
    uc->bufcap = HTTP_TAILBUF_SIZE;
    uc->buflen = 0;
    uc->buf_owned = true;
    return true;
}

// Steps 4 to 7 of an open: address, socket, time-out. Gives the descriptor
// (or -1) and tells in *failed whether a time-out could not be set.
int open_network(const char* url, usock_ctx* uc, const char* path, bool* failed)
{
    char host[HOST_MAX] = {};
    char port[PORT_MAX] = {};
    if (uri_path_addrport(path, URI_PATH_MAX, host, sizeof(host), port, sizeof(port)) == nullptr)
        return -1;
    if (uc->url_kind == URI_HTTP && port[0] == '\0') {
        strcpy(port, "80");
        LOG_AT(DEBUG_level, "%s: assuming HTTP port %s for [%s]\n", "usock_open", port, url);
    }

    socket_spec& sspec = uc->sspec;
    sspec.writer = !uc->inbound;
    sspec.non_blocking = uc->non_blocking;
    switch (uc->url_kind) {
    case URI_TCP:
    case URI_HTTP:
        sspec.socktype = SOCK_STREAM;
        if (!ensure_tail_buf(uc)) {
            *failed = true;
            return -1;
        }
        break;
    case URI_UDP:
    case URI_RTP:
        sspec.socktype = SOCK_DGRAM;
        break;
    default:
        LOG_AT(ERR_level, "%s: unsupported URI type: %d\n", "usock_open", uc->url_kind);
        return -1;
    }

    const int fd = open_socket(host, port, &sspec, uc->ifc_tag, &uc->mifc);
    if (fd >= 0 && !uc->non_blocking && uc->timeout_ms != 0) {
        const int rc = uc->inbound ? set_rcv_timeout(fd, uc->timeout_ms) : set_send_timeout(fd, uc->timeout_ms);
        *failed = (rc != 0);
    }
    return fd;
}

}  // namespace

void usock_set_apptag(const char* apptag)
{
    VRX_ASSERT(apptag);
    strncpy(g_apptag, apptag, sizeof(g_apptag) - 1);
    g_apptag[sizeof(g_apptag) - 1] = '\0';
}

int usock_open(const char* url, usock_ctx* uc)
{
    char path[URI_PATH_MAX] = {};
    char query[URI_QUERY_MAX] = {};

    uc->url_kind = uri_extract(url, nullptr, nullptr, path, query);
    if (uc->url_kind == URI_BAD)
        return -1;

    VRX_ASSERT(NULL == uc->url_path);
    uc->url_path = strdup(path);
    VRX_ASSERT(uc->url_path);
    uc->non_pollable = false;

    int fd = -1;
    bool failed = false;
    switch (uc->url_kind) {
    case URI_TCP:
    case URI_UDP:
    case URI_RTP:
    case URI_HTTP:
        fd = open_network(url, uc, path, &failed);
        break;
    case URI_FILE:
        fd = W_open("usock_open", uc->url_path, O_RDONLY, 0);
        LOG_AT(DEBUG_level, "%s: fd%d FILE [%s]\n", "usock_open", fd, uc->url_path);
        break;
    default:
        // This line deliberately has no line end.
        LOG_AT(ERR_level, "%s: unsupported type of URI [%s]", "usock_open", url);
        break;
    }

    // Without a tail buffer nothing was made and there is nothing to ask.
    const bool no_tail_buf = failed && fd < 0;
    if (uc->url_kind == URI_HTTP && !uc->skip_http && !no_tail_buf) {
        // The exchange runs even on a descriptor of -1 and then fails on its
        // own; a failed exchange leaves the descriptor and the handle as they
        // are: the process ends after such a failure anyway.
        if (fwd_http_rq(fd, url, uc->http_flags) != 0 ||
            get_http_response(fd, uc->buf, uc->bufcap, &uc->buflen) != 0)
            return -1;
        failed = false;
    }

    if (failed || fd < 0) {
        usock_close(fd, uc);
        return -1;
    }
    return fd;
}

void usock_close(int fd, usock_ctx* uc)
{
    if (uc != nullptr) {
        // A sending multicast socket joined nothing and leaves nothing. Nor
        // does a socket whose join failed: it has no descriptor and no group
        // address (the address is kept only once the join succeeded).
        if (uc->sspec.multicast && !uc->sspec.writer && fd >= 0 && uc->sspec.addr_ss.ss_family != AF_UNSPEC)
            (void)mcast_leave(fd, &uc->sspec.addr_ss, uc->mifc);
        free(uc->url_path);
        uc->url_path = nullptr;
        free(uc->mifc);
        uc->mifc = nullptr;
        // A buffer lent by the caller stays the caller's.
        if (uc->buf != nullptr && uc->buf_owned) {
            free(uc->buf);
            uc->buf = nullptr;
            uc->buflen = 0;
            uc->buf_owned = false;
        }
    }
    if (fd >= 0)
        W_close("usock_close", fd);
}
