// Process facilities and file utilities.
#include "util.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include "log.h"
#include "platform.h"
#include "syswrap.h"

LOG_UNIT(LLMOD_DEFAULT);

volatile sig_atomic_t g_quit = 0;
volatile sig_atomic_t g_hup = 0;
volatile sig_atomic_t g_usr1 = 0;
volatile sig_atomic_t g_tdbg = 0;
volatile sig_atomic_t g_goodbye = 0;
volatile sig_atomic_t g_sigctx = 0;

const int qsigs[qsigs_LEN] = {SIGTERM, SIGQUIT, SIGINT};

namespace {

// No SA_RESTART: the capture loop relies on these signals breaking a
// blocking read.
int install(int signum, sig_handler_fn handler)
{
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    return sigaction(signum, &sa, nullptr);
}

}  // namespace

int handle_quit_signals(sig_handler_fn handler)
{
    for (int signo : qsigs) {
        if (install(signo, handler) != 0) {
            const int err = errno;
            LOG_AT(ERR_level, "%s: sigaction (quit) ERROR(%d): %s\n", "handle_quit_signals", err,
                   strerror(err));
            errno = err;
            return -1;
        }
    }
    return 0;
}

int handle_sig(int signum, sig_handler_fn handler)
{
    if (install(signum, handler) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: sigaction (signo=%d) ERROR(%d): %s\n", "handle_sig", signum, err,
               strerror(err));
        errno = err;
        return -1;
    }
    return 0;
}

int ignore_sigpipe()
{
    if (install(SIGPIPE, SIG_IGN) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: sigaction (SIGPIPE) ERROR(%d): %s\n", "ignore_sigpipe", err,
               strerror(err));
        errno = err;
        return -1;
    }
    return 0;
}

int set_unlimited_core(rlimit* old)
{
    rlimit local{};
    rlimit* cur = old != nullptr ? old : &local;

    int rc = getrlimit(RLIMIT_CORE, cur);
    if (rc != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: getrlimit ERROR(%d): %s\n", "set_unlimited_core", err, strerror(err));
        errno = err;
        return rc;
    }
    if (cur->rlim_cur == RLIM_INFINITY) {
        LOG_AT(DEBUG_level, "%s: already set\n", "set_unlimited_core");
        return 0;
    }
    // An infinite limit prints as -1 on Linux (RLIM_INFINITY is all ones)
    // and as the largest long on FreeBSD.
    LOG_AT(DEBUG_level, "%s: current=%ld/%ld\n", "set_unlimited_core", (long)cur->rlim_cur,
           (long)cur->rlim_max);

    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    rc = setrlimit(RLIMIT_CORE, &unlimited);
    if (rc != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: setrlimit ERROR(%d): %s\n", "set_unlimited_core", err, strerror(err));
        errno = err;
    } else {
        LOG_AT(DEBUG_level, "%s: OK\n", "set_unlimited_core");
    }
    return rc;
}

void sigctx_enter(sig_frame* f)
{
    f->saved_errno = errno;
    f->depth = g_sigctx;
    g_sigctx = f->depth + 1;
}

void sigctx_leave(const sig_frame* f)
{
    g_sigctx = f->depth;
    errno = f->saved_errno;
}

// The handlers raise g_sigctx around their line so that the logger keeps
// stdio, syslog and rotation out of signal context.

void on_sighup(int signo)
{
    sig_frame sf;
    sigctx_enter(&sf);
    g_hup = 1;
    LOG_AT(NORM_level, "SIGHUP(%d)\n", signo);
    sigctx_leave(&sf);
}

void on_sigusr1(int signo)
{
    sig_frame sf;
    sigctx_enter(&sf);
    g_usr1 = 1;
    LOG_AT(NORM_level, "SIGUSR1(%d)\n", signo);
    sigctx_leave(&sf);
}

void on_tdbg(int signo)
{
    sig_frame sf;
    sigctx_enter(&sf);
    g_tdbg = 1;
    LOG_AT(NORM_level, "T-DBG SIG(%d)\n", signo);
    sigctx_leave(&sf);
}

void on_sigquit(int signo)
{
    sig_frame sf;
    sigctx_enter(&sf);
    g_quit = 1;
    if (signo == SIGINT || signo == SIGTERM)
        g_goodbye = 1;
    LOG_AT(NORM_level, "QUIT-SIG(%d)\n", signo);

    // On the way out, children ending or reload requests must not break in.
    (void)install(SIGCHLD, SIG_IGN);
    (void)install(SIGHUP, SIG_IGN);
    (void)install(SIGUSR1, SIG_IGN);
    sigctx_leave(&sf);
}

void reset_getopt_state()
{
    plat_getopt_reset();
}

void get_stat_mode(int fd, mode_t* st_mode)
{
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: FAILED to retrieve mode for fd=%d: %s\n", "get_stat_mode", fd,
               strerror(err));
        if (log_fp(&g_log) != nullptr)
            fflush(log_fp(&g_log));
        abort();
    }
    *st_mode = st.st_mode;
}

off_t get_file_size(const char* path)
{
    struct stat st {};
    if (stat(path, &st) != 0) {
        const int err = errno;
        // "mode" in this line is how it has always read.
        LOG_AT(ERR_level, "%s: FAILED to retrieve mode for [%s]: %s\n", "get_file_size", path,
               strerror(err));
        errno = err;
        return -1;
    }
    return st.st_size;
}

time_t get_file_mtime(const char* path)
{
    struct stat st {};
    if (stat(path, &st) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: FAILED to retrieve mtime for [%s]: %s\n", "get_file_mtime", path,
               strerror(err));
        errno = err;
        return -1;
    }
    return st.st_mtime;
}

const char* fmode_str(mode_t m)
{
    switch (m & S_IFMT) {
    case S_IFIFO:
        return "FIFO";
    case S_IFCHR:
        return "CHR";
    case S_IFDIR:
        return "DIR";
    case S_IFBLK:
        return "BLK";
    case S_IFREG:
        return "FILE";
    case S_IFLNK:
        return "LINK";
    case S_IFSOCK:
        return "SOCK";
    default:
        return "{???}";
    }
}

const char* get_base(const char* path)
{
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

char* replace_dir(const char* path, const char* new_dir, char* buf, size_t buflen)
{
    const char* base = get_base(path);
    int n;
    if (new_dir != nullptr && new_dir[0] != '\0')
        n = snprintf(buf, buflen, "%s/%s", new_dir, base);
    else
        n = snprintf(buf, buflen, "%s", base);
    if (buflen > 0)
        buf[buflen - 1] = '\0';
    if (n < 0 || (size_t)n >= buflen) {
        LOG_AT(ERR_level, "%s: %d characters required, %ld afforded\n", "replace_dir", n,
               (long)buflen);
        return nullptr;
    }
    return buf;
}

int dir_check(char* dirpath, bool trim_slash)
{
    if (strcmp(dirpath, "/") == 0)
        return 0;
    if (trim_slash) {
        const size_t len = strlen(dirpath);
        if (len > 0 && dirpath[len - 1] == '/')
            dirpath[len - 1] = '\0';
    }
    DIR* dir = opendir(dirpath);
    if (dir == nullptr) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: opendir('%s', ...) ERROR(%d): %s\n", "dir_check", dirpath, err,
               strerror(err));
        errno = err;
        return err;
    }
    (void)closedir(dir);
    return 0;
}

FILE* fopen_any(const char* base, const char* mode, size_t ndirs, const char* const* dirs, char* path,
                size_t pathlen)
{
    for (size_t i = 0; i < ndirs && dirs[i] != nullptr; ++i) {
        const char* dir = dirs[i];
        const size_t dlen = strlen(dir);
        const int n = (dlen > 0 && dir[dlen - 1] == '/') ? snprintf(path, pathlen, "%s%s", dir, base)
                                                         : snprintf(path, pathlen, "%s/%s", dir, base);
        if (n < 0 || (size_t)n >= pathlen) {
            // A cut name could open a file nobody asked for.
            if (pathlen > 0)
                path[0] = '\0';
            errno = E2BIG;
            return nullptr;
        }
        LOG_AT(DEBUG_level, "%s: trying to open [%s]\n", "fopen_any", path);
        FILE* fp = fopen(path, mode);
        if (fp != nullptr) {
            LOG_AT(DEBUG_level, "%s: opened [%s]\n", "fopen_any", path);
            return fp;
        }
    }
    if (pathlen > 0)
        path[0] = '\0';
    return nullptr;
}

const char* pick_first_file(const char* const* paths, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        if (paths[i] != nullptr && access(paths[i], F_OK) == 0)
            return paths[i];
    }
    return nullptr;
}

ssize_t read_file_buf(const char* fpath, void* buf, size_t buflen)
{
    // The descriptor stays open on every path, by design of this helper.
    const int fd = W_open("read_file_buf", fpath, O_RDONLY, 0);
    if (fd < 0)
        return -1;

    struct stat st {};
    if (fstat(fd, &st) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: fstat(fd%d,..) ERROR(%d): %s\n", "read_file_buf", fd, err,
               strerror(err));
        errno = err;
        return -1;
    }
    if ((size_t)st.st_size > buflen) {
        LOG_AT(ERR_level, "%s: file size (%ld bytes) is too big for buffer (%ld bytes)\n",
               "read_file_buf", (long)st.st_size, (long)buflen);
        return RFB_TOOBIG;
    }
    const ssize_t n = read(fd, buf, (size_t)st.st_size);
    if (n != (ssize_t)st.st_size) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: [%s] underread: %ld/%ld\n", "read_file_buf", fpath, (long)n,
               (long)st.st_size);
        errno = err;
        return -1;
    }
    return n;
}

int mk_fpath_dirs(const char* fpath)
{
    char dirs[PATH_MAX];
    const size_t len = strlen(fpath);
    if (len >= sizeof(dirs)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(dirs, fpath, len + 1);

    char* last = strrchr(dirs, '/');
    if (last != nullptr)
        *last = '\0';
    LOG_AT(DEBUG_level, "%s: dirs=%s\n", "mk_fpath_dirs", dirs);
    // A file in the current or the root directory needs nothing made.
    if (last == nullptr || dirs[0] == '\0')
        return 0;

    auto make = [&dirs]() -> int {
        const int rc = mkdir(dirs, 0755);
        if (rc != 0 && errno != EEXIST) {
            const int err = errno;
            LOG_AT(ERR_level, "%s: mkdir(%s) ERROR(%d): %s\n", "mk_fpath_dirs", dirs, err,
                   strerror(err));
            errno = err;
            return rc;
        }
        return 0;
    };

    for (char* p = dirs + (dirs[0] == '/' ? 1 : 0); (p = strchr(p, '/')) != nullptr; ++p) {
        *p = '\0';
        const int rc = make();
        *p = '/';
        if (rc != 0)
            return rc;
    }
    return make();
}

bool chk_file_updated(const char* path, time_t* mtime)
{
    const time_t old = *mtime;
    *mtime = get_file_mtime(path);
    return *mtime > old;
}

off_t tag_index(const char* name, const char* const* tags)
{
    for (off_t i = 0; tags[i] != nullptr; ++i) {
        if (strcasecmp(name, tags[i]) == 0)
            return i;
    }
    return -1;
}

int close_pipe(const int pipefd[2])
{
    for (int i = 0; i < 2; ++i) {
        if (pipefd[i] < 0)
            continue;
        const int rc = close(pipefd[i]);
        if (rc != 0)
            return rc;
    }
    return 0;
}

char* cpy_till(const char* s, const char* delim, char* buf, size_t buflen)
{
    if (buflen == 0)
        return buf;
    size_t n = strcspn(s, delim);
    if (n > buflen - 1)
        n = buflen - 1;
    memcpy(buf, s, n);
    buf[n] = '\0';
    return buf;
}
