// Process facilities: signal installation and flags, limits, daemon, user
// and directory changes, pid files; plus the file and argument utilities.
#pragma once

#include <csignal>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>

// Flags the signal handlers set; zero at start.
extern volatile sig_atomic_t g_quit;
extern volatile sig_atomic_t g_hup;
extern volatile sig_atomic_t g_usr1;
extern volatile sig_atomic_t g_tdbg;
extern volatile sig_atomic_t g_goodbye;
// How many handlers are running, one inside the other: while it is above 0
// the logger writes with write(2) from a buffer of the handler's own and
// keeps stdio, syslog and rotation out.
extern volatile sig_atomic_t g_sigctx;

// What a handler keeps from the code it interrupted and gives back on its
// way out: that code's errno, and the depth of handlers below it. A handler
// that ran between a failed call and the reading of errno changes nothing.
struct sig_frame {
    int saved_errno;
    sig_atomic_t depth;
};
void sigctx_enter(sig_frame* f);
void sigctx_leave(const sig_frame* f);

// The quit signals, in the order they are installed.
constexpr int qsigs_LEN = 3;
extern const int qsigs[qsigs_LEN];

using sig_handler_fn = void (*)(int);

// Installs handler for each quit signal, with an empty mask and no
// SA_RESTART, so that the signal breaks a blocking call; 0 or -1.
int handle_quit_signals(sig_handler_fn handler);
// The same for one signal; 0 or -1.
int handle_sig(int signum, sig_handler_fn handler);
// A write to a closed pipe or socket fails with EPIPE instead of killing us.
int ignore_sigpipe();

// Raises the core size limit to infinity; the limit found goes to old,
// which may be null. 0 or the failing call's result.
int set_unlimited_core(rlimit* old);

// Becomes a daemon: two forks (the parents exit with 0), a new session,
// "/" as the directory, umask 0, descriptors 0 and 1 closed. 0 in the
// daemon, or a failing call's result.
int daemonize();
// Takes the user's (the user id's) group, then the user; 0 or -1.
int run_as_user(const char* user);
int run_as_user_id(uid_t uid, gid_t gid);
// Goes to saved, or, where that is denied (EPERM), to the home directory of
// the effective user; 0 or -1.
int goto_runtime_dir(const char* saved);

// Soft limits; the hard ones stay. 0 or -1.
int set_limit(int lid, rlim_t new_lim, const char* tag);
int set_rss_limit(rlim_t new_lim);
int set_vmem_limit(rlim_t new_lim);
// Each limit that is not 0, resident size first; stops at the first failure.
int set_mem_limits(rlim_t rss, rlim_t vmem);
// What nice returned: a new nice value other than 0 reads as a failure.
int set_nice(int niceval);
// Binds the process to one processor; 0 or the failing call's result.
int pin2cpu(int cpunum);
// Failures of redirect_output beside -1 (the open).
constexpr int REDIR_STDOUT = -2;  // dup2 onto 1
constexpr int REDIR_STDERR = -3;  // dup2 onto 2

// Standard output and error into the file: 0, -1, REDIR_STDOUT or
// REDIR_STDERR.
int redirect_output(const char* dst_path);

// Pid files. A pid file is live while its owner holds a write lock on it.
constexpr unsigned CPFX_HUSH = 1;
// Locks fpath and writes pid into it; the descriptor stays open for the
// life of the process. 0, or -1 or the failing call's result.
int create_pidfile_extra(const char* fpath, pid_t pid, ino_t* inode, unsigned flags);
// dir/app-numid.pid, dir/app-strid.pid (numid < 0) or dir/app-stridnumid.pid;
// buf, or null.
char* mk_pidfile_name(const char* dir, const char* app, const char* strid, long numid, char* buf, size_t buflen);

// Ready-made handlers: each sets its flag and logs one line at NORM.
void on_sighup(int signo);
void on_sigusr1(int signo);
void on_tdbg(int signo);
// Sets g_quit (and g_goodbye for SIGINT and SIGTERM), then ignores
// SIGCHLD, SIGHUP and SIGUSR1 for the rest of the way out.
void on_sigquit(int signo);

// Lets getopt_long run over the same arguments again.
void reset_getopt_state();

// Files.

// Mode of an open descriptor; a failure to read it ends the process.
void get_stat_mode(int fd, mode_t* st_mode);
// Size of the file, or -1.
off_t get_file_size(const char* path);
// Last modification time of the file, or -1.
time_t get_file_mtime(const char* path);
// Short name of the file type in m ("FILE", "DIR", ...), "{???}" if unknown.
const char* fmode_str(mode_t m);
// The text behind the last '/', or path itself.
const char* get_base(const char* path);
// Writes new_dir/<base name of path> (or the base name alone with no
// new_dir) into buf; buf, or null if it did not fit.
char* replace_dir(const char* path, const char* new_dir, char* buf, size_t buflen);
// Checks that the directory can be opened; with trim_slash one trailing
// '/' is cut from the caller's buffer first. 0 or errno.
int dir_check(char* dirpath, bool trim_slash);
// Opens base in the first of dirs (at most ndirs, up to a null entry) where
// it opens; path receives the name opened, or is emptied.
FILE* fopen_any(const char* base, const char* mode, size_t ndirs, const char* const* dirs, char* path,
                size_t pathlen);
// The first of the paths that exists, or null.
const char* pick_first_file(const char* const* paths, size_t count);
// read_file_buf: the file is larger than the buffer (-7).
constexpr ssize_t RFB_TOOBIG = -E2BIG;

// Reads the whole file into buf: its size, RFB_TOOBIG, or -1 on any other
// failure. The descriptor is left open: not for loops.
ssize_t read_file_buf(const char* fpath, void* buf, size_t buflen);
// Creates the directories on the way to fpath (not fpath itself); 0 or
// mkdir's failing result.
int mk_fpath_dirs(const char* fpath);
// Refreshes *mtime from the file; true only if it grew.
bool chk_file_updated(const char* path, time_t* mtime);

// Text and small utilities.

// Index of name in the null-ended tags, compared case-blind, or -1.
off_t tag_index(const char* name, const char* const* tags);
// Closes each end that is not negative; 0 or the first failing result.
int close_pipe(const int pipefd[2]);
// Copies s up to the first character of delim, at most buflen - 1
// characters, always zero-ended; returns buf.
char* cpy_till(const char* s, const char* delim, char* buf, size_t buflen);
