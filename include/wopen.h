// Source handles: one source URL turned into one readable descriptor.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>

#include "netops.h"
#include "webops.h"

struct usock_ctx {
    bool inbound;       // data flows from the source to us
    bool non_blocking;
    bool skip_http;     // connect only, run no request
    bool non_pollable;
    uint32_t http_flags;
    ssize_t nopoll_idx;
    const char* ifc_tag;  // multicast interface tag, borrowed
    int timeout_ms;       // 0: none
    int url_kind;
    socket_spec sspec;    // request to, and result of, open_socket
    char* url_path;       // heap copy of the URL's path, owned by the handle
    ifc_info* mifc;       // interface of a multicast socket, owned by the handle
    char* buf;            // where bytes that arrive behind a protocol head are left
    size_t bufcap;
    size_t buflen;
    bool buf_owned;       // buf came from the handle's own allocation, not the caller's
};

struct usock_flags {
    bool use_http10_get;
};

extern char g_apptag[128];
extern usock_flags g_usock_flags;

void usock_set_apptag(const char* apptag);
int usock_open(const char* url, usock_ctx* uc);
void usock_close(int fd, usock_ctx* uc);
