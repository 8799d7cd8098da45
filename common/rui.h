// Request listeners: the request side of a network service. Listening
// sockets of three classes (user, admin, custom) accept connections and
// turn each into a queued request through the application's callbacks;
// requests time out and are removed at a safe point of the event loop.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdio>

#include "dlep.h"
#include "netops.h"
#include "vrtypes.h"
#include "xvdat.h"

enum : int { RUI_USER = 0, RUI_ADMIN = 1, RUI_CUSTOM = 2, RUI_MAX = 3 };

constexpr size_t MAX_LISTENERS = 4;     // per class
constexpr size_t MAX_RUI_QUEUED = 1000; // queued requests per listener
constexpr size_t MAX_RQNUM = 100000;    // the bound of tracking numbers
constexpr int RUI_LOW_WMARK = 32;       // SO_RCVLOWAT of an accepted connection
constexpr uint32_t RUI_TCP_NODELAY = 1; // a flag of rui_accept
inline constexpr n32_tag RSC_TAG = mk_n32_tag("Rsc");

struct rui_socket_ctx;

// What every request object begins with, so that it can be queued.
struct rui_rq_header {
    n32_tag tag;
    rui_rq_header* prev;
    rui_rq_header* next;
    rui_socket_ctx* srv;  // the listener that accepted it
    int fd;               // the connection; -1 once closed
    n64_tag trk_tag;      // tracking tag for messages
};

struct rui_socket_cb {
    n32_tag tag;  // the class's text in messages
    void* (*new_rq)(int fd, rui_socket_ctx* srv, void* data);
    void (*rm_rq)(void* rq);  // frees a request whose descriptor is closed
    bool (*time_out)(void* rq, size_t tmout_ms);
};

struct rui_listener_cfg {
    bool is_valid;
    char alias[32];
    size_t index;
    ifc_info* ifc;  // owned; none for any address
    char port[6];
    int pref_af;
    char domain_path[104];
    int proto;  // 6 TCP, 17 UDP
    n32_tag kind;
};

struct rui_cfg {
    rui_listener_cfg user[MAX_LISTENERS];
    rui_listener_cfg admin[MAX_LISTENERS];
    rui_listener_cfg custom[MAX_LISTENERS];
    size_t max_accept;
    int user_request_tmout;
    int admin_request_tmout;
    int custom_request_tmout;
};

struct rui_socket_ctx {
    n32_tag tag;     // RSC_TAG once set up
    int sockfd;      // the listening socket; -1 when closed
    xvec accset;     // a byte a descriptor: 1 for a queued request's
    dlep_t requests; // the queue
    xvlst pprm;      // requests waiting for their removal at a safe point
    bool deferred;   // stopped, may be started again
    size_t rqcount;  // counter of tracking numbers
    ssize_t nblk_count;
    rui_listener_cfg* lc;
    n32_tag rqtag;
    rui_socket_cb* cb;
};

struct rui_ctx {
    rui_socket_ctx user[MAX_LISTENERS];
    rui_socket_ctx admin[MAX_LISTENERS];
    rui_socket_ctx custom[MAX_LISTENERS];
};

extern rui_socket_cb g_scb[RUI_MAX];

void rui_set_cb(int type, const rui_socket_cb* cb);
int rui_ctx_init(rui_cfg* cfg, rui_ctx* ctx);
int rui_ctx_start(rui_ctx* ctx);
void rui_ctx_destroy(rui_ctx* ctx);

int rui_setup_listeners(int type, rui_listener_cfg* lc, rui_socket_ctx* srv);
int rui_enable_listeners(rui_socket_ctx* srv);
void stop_listeners(rui_socket_ctx* srv, bool destroy);
int rui_start_listener(rui_listener_cfg* cfg, rui_socket_ctx* srv);
void rui_stop_listener(rui_socket_ctx* srv);
bool rui_should_listen(rui_socket_ctx* srv, size_t max_req);

// Accepts until the socket's queue is empty or max_accept were taken: the
// number of requests added.
ssize_t rui_accept(rui_socket_ctx* srv, size_t max_accept, uint32_t flags, void* data);
int rui_add_request(int fd, rui_socket_ctx* srv, void* data);
void rui_rm_request(void* p);
// Marks a request for removal at the next rui_pprm_all: safe inside its own event.
int rui_pprm_request(void* p);
void rui_pprm_all(rui_ctx* ctx);
size_t rui_tmout_all(rui_ctx* ctx, size_t tmout_ms);

void rui_mk_trknum(size_t* count, n64_tag* tag, char pfx, size_t max);
[[noreturn]] void rui_crash_on_error(rui_socket_ctx* rsc, bool is_hup);
