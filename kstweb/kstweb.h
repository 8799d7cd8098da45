// kst-web's state and its steps: the configuration, the requests and the
// answers.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "fdio.h"
#include "rui.h"
#include "vrtypes.h"

constexpr size_t KW_HEAD_MAX = 8192;
constexpr size_t KW_PATH_MAX = 256;

// The service's settings and run-time state: one instance, g_kw.
struct kw_state {
    char snap_dir[FILE_PATH_MAX];
    int log_level;
    rui_cfg rcfg;
    rui_ctx rctx;
    int dirfd;  // the snapshot directory, opened once
    uint64_t served[6];  // answers by status class: 2xx, 3xx, 4xx, 5xx, other, bytes
};

extern kw_state g_kw;

// One client connection.
struct kw_request {
    rui_rq_header h;
    timespec since;
    size_t len;
    bool answered;       // the head has been answered
    bool sending;        // a file body is going out by write events
    int file_fd;
    off_t offset;
    uint32_t fdio_flags;
    transfer_spec tsp;
    char head[KW_HEAD_MAX + 1];
};

int kw_load_config(const char* path, kw_state* st);
void kw_dump_config(FILE* fp, const kw_state* st);
void kw_set_callbacks();

int kw_on_read(int fd, uint32_t flags, void* udata, void* data);
int kw_on_write(int fd, uint32_t flags, void* udata, void* data);
int kw_post_process();
void kw_on_tick();

// The answer to one complete head; the request is answered or sending.
void kw_serve(kw_request* rq);
// A snapshot's name as the URL gives it: 0 when it may be served, 403 for
// a name that would leave the directory or is no snapshot's.
int kw_check_name(const char* name);
