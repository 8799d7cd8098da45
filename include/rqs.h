// The event loop of the family's services: one thread, one loop a process.
// The application hands in its callbacks and registers descriptors; the
// loop waits for all of them at once, dispatches read, write and error
// events and changes of watched files, and calls the application between
// the rounds of waiting.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <ctime>

// For rqs_mod.
constexpr int RQS_READ = 1;
constexpr int RQS_WRITE = 2;

// For rqs_fd_count.
constexpr int GET_TOTALFDS = 0;
constexpr int GET_POLLFDS = 1;
constexpr int GET_NOPOLLFDS = 2;

// Where in a pass the loop is: rqs_ctx(RQS_CTX_STAGE, ...).
constexpr int RQS_CTX_STAGE = 1;
enum : int { ELOOP_START = 0, ELOOP_EV = 1, ELOOP_POSTEV = 2, ELOOP_ENDPP = 3 };

// Flags handed to the callbacks.
constexpr uint32_t RQS_SOCKERR = 1;        // the event's error flag
constexpr uint32_t RQS_SOCKHUP = 2;        // end of file
constexpr uint32_t RQS_RMV = 4;            // a watched file went away
constexpr uint32_t RQS_FMOVED = 65536;     // ... moved to another name
constexpr uint32_t RQS_FDELETED = 131072;  // ... deleted
constexpr uint32_t RQS_ATTR = 262144;      // its attributes changed (never set here)

using rqs_evfunc = int (*)(int fd, uint32_t flags, void* udata, void* data);

struct rqs_callbacks {
    void (*update_tmout)(timespec* tmout);  // before the loop and before each wait
    int (*on_idle)();                       // once a pass when no event failed
    rqs_evfunc read;
    rqs_evfunc write;
    rqs_evfunc error;
    int (*post_process)();  // twice a pass
    rqs_evfunc on_file_modified;
    void (*time_out)();      // once a pass, right after the wait
    bool (*is_dormant)();    // with nothing registered: nothing more to do?
};

struct rqs_config {
    rqs_callbacks cb;
    unsigned quit_on_zero_fds : 1;
};

int rqs_init(const rqs_config* cfg);
void rqs_destroy();
int rqs_event_loop();

int rqs_add_reader(int fd, void* udata);
int rqs_add_writer(int fd, void* udata);
int rqs_mod_reader(int fd, void* udata);
int rqs_mod(int fd, void* udata, int read_write);
int rqs_rm_fd(int fd, bool is_reader, bool is_writer);

// A watched file: its descriptor is the watch id, or -1.
int rqs_add_file_watch(void* udata, const char* filepath);
int rqs_add_file_monitor(void* udata, const char* filepath, bool read_watch);
void rqs_rm_file_watch(int wd);
void rqs_rm_file_monitor(int wd, bool read_watch);

// No-poll entries: called every pass without a wait. *pindex gets the
// entry's index, and -1 when it is removed.
int rqs_add_nopoll_reader(int fd, ssize_t* pindex, void* udata);
int rqs_add_nopoll_writer(int fd, ssize_t* pindex, void* udata);
void rqs_rm_nopoll(ssize_t index);
// Marks an entry for removal at the next purge: safe during a walk.
void rqs_pprm_nopoll(ssize_t index);
void rqs_purge_nopoll_rm();

size_t rqs_fd_count(int which);
timespec rqs_now();
void* rqs_ctx(int type, void* aux);
