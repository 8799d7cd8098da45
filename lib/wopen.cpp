// Source handles: the one place that knows which kinds of source URL exist.
#include "wopen.h"

#include <fcntl.h>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "syswrap.h"
#include "uri.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DEFAULT);

char g_apptag[128];
usock_flags g_usock_flags;

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
    switch (uc->url_kind) {
    case URI_FILE:
        fd = W_open("usock_open", uc->url_path, O_RDONLY, 0);
        LOG_AT(DEBUG_level, "%s: fd%d FILE [%s]\n", "usock_open", fd, uc->url_path);
        break;
    default:
        // This line deliberately has no line end.
        LOG_AT(ERR_level, "%s: unsupported type of URI [%s]", "usock_open", url);
        break;
    }

    if (fd < 0) {
        usock_close(fd, uc);
        return -1;
    }
    return fd;
}

void usock_close(int fd, usock_ctx* uc)
{
    if (uc != nullptr) {
        free(uc->url_path);
        uc->url_path = nullptr;
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
