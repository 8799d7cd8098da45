// kst-web's state and its steps: the configuration, the requests and the
// answers.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "fdio.h"
#include "rui.h"
#include "vrtypes.h"
#include "webops.h"

constexpr size_t KW_HEAD_MAX = 8192;
constexpr size_t KW_PATH_MAX = 256;
constexpr size_t KW_MAX_INSTANCES = 64;
constexpr size_t KW_PREFIX_MAX = 14;  // kst's snapshot.file_prefix

// Counters of the service itself, for /metrics.
enum : int { KW_C2XX, KW_C3XX, KW_C4XX, KW_C5XX, KW_COTHER, KW_CBYTES, KW_CMAX };
enum : int { KW_TRG_SENT, KW_TRG_DONE, KW_TRG_TIMEDOUT, KW_TRG_REFUSED, KW_TRG_MAX };

// The service's settings and run-time state: one instance, g_kw.
struct kw_state {
    char snap_dir[FILE_PATH_MAX];
    // The kst executable, resolved: only its processes are ever signalled.
    char kst_exe[FILE_PATH_MAX];
    unsigned instances[KW_MAX_INSTANCES];  // the --nid of each instance served
    size_t ninstances;
    int snapshot_tmout_ms;
    size_t max_requests;  // per listener, for flow control
    bool probes;
    int log_level;
    rui_cfg rcfg;
    rui_ctx rctx;
    int dirfd;  // the snapshot directory, opened once
    uint64_t served[KW_CMAX];
    uint64_t triggers[KW_TRG_MAX];
};

extern kw_state g_kw;

// One client connection.
struct kw_request {
    rui_rq_header h;
    timespec since;
    size_t len;
    bool answered;  // the head has been answered
    bool sending;   // a file body is going out by write events
    bool waiting;   // a snapshot trigger awaits its file
    bool draining;  // answered early: the rest of what the client sends is read and dropped
    int file_fd;
    off_t offset;
    uint32_t fdio_flags;
    transfer_spec tsp;
    char head[KW_HEAD_MAX + 1];
};

int kw_load_config(const char* path, kw_state* st);
void kw_dump_config(FILE* fp, const kw_state* st);
void kw_set_callbacks();
bool kw_is_admin(const kw_request* rq);

int kw_on_read(int fd, uint32_t flags, void* udata, void* data);
int kw_on_write(int fd, uint32_t flags, void* udata, void* data);
int kw_post_process();
void kw_on_tick();

// The answer to one complete head; the request is answered, sending or
// waiting.
void kw_serve(kw_request* rq);

// Answers (serve.cpp). A small answer goes in one write and the connection
// goes; a body goes out by write events from a descriptor.
void kw_answer(kw_request* rq, http_response r);
void kw_answer_code(kw_request* rq, int code, const char* reason);
void kw_send_text(kw_request* rq, const char* type, const std::string& body, bool head_only);
void kw_send_fd(kw_request* rq, int fd, const char* type, off_t length, bool head_only);
void kw_serve_snapshot(kw_request* rq, const char* name, bool head_only);
void kw_count(int code);

// Snapshot files (snapfiles.cpp).
struct kw_snap {
    std::string name;
    off_t size;
    time_t mtime;
};
// A snapshot's name as the URL gives it: 0 when it may be served, 403 for
// a name that would leave the directory or is no snapshot's.
int kw_check_name(const char* name);
// kst's names: PREFIX PID "-p" FIRST "_" COUNT "-" CAUSE ".ts". True for
// such a name, with the prefix's length and the pid. A prefix that ends in a
// digit can't be told from the pid.
bool kw_snap_parse(const char* name, size_t* pfx_len, long* pid);
// The servable files of the directory, newest first.
std::vector<kw_snap> kw_list_snapshots();
// A prefix as a URL gives it: letters, digits, '_', '-', '.', not
// beginning with '.', at most KW_PREFIX_MAX.
bool kw_prefix_ok(const char* pfx);

// Instances (instances.cpp), found through their flight recorders "kst.N".
struct kw_instance {
    unsigned nid;
    char ring[32];
    int found;          // 1 a ring, 0 none, -1 an object that is no ring
    char why[256];      // why it is no ring
    pid_t pid;
    const char* state;  // active, closed, abandoned, unowned
    int temp;
    double age;         // seconds since the last line, -1 for none
};
bool kw_instance_configured(unsigned nid);
void kw_instance_scan(unsigned nid, kw_instance* in);
// The recorder's text into fd; -1 when it can't be read.
int kw_instance_text(const kw_instance* in, int fd);
// True when pid runs the configured kst as instance nid; else why says.
bool kw_is_kst_of(pid_t pid, unsigned nid, char* why, size_t whylen);

// Pages (page.cpp, metrics.cpp, hls.cpp).
std::string kw_html_escape(const std::string& s);
std::string kw_page();
std::string kw_metrics();
void kw_serve_playlist(kw_request* rq, const http_header* hdr, const char* path, bool head_only);
void kw_serve_fragment(kw_request* rq, const char* path, bool head_only);

// The snapshot trigger (trigger.cpp).
void kw_trigger(kw_request* rq, unsigned nid);
void kw_trigger_poll();
void kw_trigger_forget(const kw_request* rq);
size_t kw_triggers_pending();
