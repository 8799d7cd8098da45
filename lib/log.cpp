// The logger. A line is composed once in g_outbuf and handed to each
// destination; its own failures go to standard error, never to itself.
#include "log.h"
#include "log_internal.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "sigsafe.h"
#include "timeop.h"
#include "util.h"
#include "vrassert.h"

log_ctx g_log;
log_ctx g_access_log;
log_module_ctx g_logmod;
int g_mod_ll[LL_MAX_MODULES];
int g_sec_ll[LL_MAX_SECTIONS];

static char g_outbuf[LOG_OUTBUF_SZ];
// A handler composes in a buffer of its own, one for each depth of handlers
// that interrupt each other, so that it never overwrites a line that the
// code it interrupted is still composing.
constexpr int LOG_SIG_DEPTH = 8;
static char g_sigbuf[LOG_SIG_DEPTH][LOG_OUTBUF_SZ];
static int g_saved_ll[LL_MAX_MODULES];
static bool mlevels_pushed = false;

namespace {

struct level_row {
    int level;
    const char* tag;
    const char* name;
    int syslog_prio;
};

constexpr level_row k_levels[] = {
    {MIN_level, "", "??", 7},
    {PANIC_level, "(PNC)", "panic", 1},
    {ERR_level, "(ERR)", "error", 3},
    {CRIT_level, "(CRI)", "ctitical", 2},
    {WARN_level, "(WRN)", "warning", 4},
    {NORM_level, "(NRM)", "normal", 7},
    {INFO_level, "(INF)", "info", 7},
    {DEBUG_level, "(DBG)", "debug", 7},
    {SECTION_level, "(SCT)", "section", 7},
};

const level_row* find_level(int level)
{
    for (const auto& row : k_levels)
        if (row.level == level)
            return &row;
    return nullptr;
}

// Words an operator may write for a level; none gives PANIC_level.
struct level_word {
    const char* word;
    int level;
};

constexpr level_word k_level_words[] = {
    {"err", ERR_level},   {"error", ERR_level},     {"crit", CRIT_level}, {"critical", CRIT_level},
    {"warn", WARN_level}, {"warning", WARN_level},  {"norm", NORM_level}, {"normal", NORM_level},
    {"info", INFO_level}, {"debug", DEBUG_level},   {"dbg", DEBUG_level}, {"section", SECTION_level},
    {"sect", SECTION_level},
};

bool is_std_stream(const FILE* fp)
{
    return fp == stdin || fp == stdout || fp == stderr;
}

// The room left for the line; one byte less than the buffer beyond the
// terminator, so a line of 2047 bytes in all is cut.
constexpr size_t k_line_room = sizeof(g_outbuf) - 1;

// The line buffer of the present context: the loop's, or the one of the
// running handler's depth. Handlers nested deeper than the buffers go (never
// seen: each signal is blocked while its own handler runs) get none.
char* line_buf()
{
    const sig_atomic_t depth = g_sigctx;
    if (depth <= 0)
        return g_outbuf;
    if (depth > LOG_SIG_DEPTH)
        return nullptr;
    return g_sigbuf[depth - 1];
}

// The logger's own failures. In a handler stdio may be held by the code it
// interrupted, so the text is made and written without it; strerror is not
// safe there either, so a handler's perror line gives the number only.
void log_err(const char* fmt, ...) VRX_PRINTF(1, 2);
void log_err(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    if (g_sigctx) {
        char text[LOG_ERRMSG_MAX];
        const int n = sigs_vformat(text, sizeof(text), fmt, ap);
        if (n > 0)
            (void)sigs_write_all(STDERR_FILENO, text, (size_t)n < sizeof(text) ? (size_t)n : sizeof(text) - 1);
    } else {
        vfprintf(stderr, fmt, ap);
    }
    va_end(ap);
}

void log_perror(const char* what)
{
    if (g_sigctx)
        log_err("%s: ERROR(%d)\n", what, errno);
    else
        perror(what);
}

// vsnprintf, or in a handler the formatter that takes no lock.
int line_vformat(char* buf, size_t len, const char* fmt, va_list ap)
{
    return g_sigctx ? sigs_vformat(buf, len, fmt, ap) : vsnprintf(buf, len, fmt, ap);
}

}  // namespace

namespace log_detail {

int do_open(log_ctx* log, const char* filecmd)
{
    VRX_ASSERT(g_logmod.is_ready);
    if (filecmd == nullptr) {
        log->fp = stderr;
        log->total_out = 0;
        return 0;
    }
    if (strlen(filecmd) >= LOG_PATHNAME_MAX + 1) {
        fprintf(stderr, "Log pathname/command is too long, %ld bytes allowed\n", (long)LOG_PATHNAME_MAX);
        return -1;
    }
    FILE* fp = log->is_pipe ? popen(filecmd, "w") : fopen(filecmd, "a+");
    if (fp == nullptr) {
        int err = errno;
        fprintf(stderr, "%s: uid/gig=%ld/%ld %s(%s) ERROR(%d): %s\n", "do_open", (long)geteuid(),
                (long)getegid(), log->is_pipe ? "popen" : "fopen", filecmd, err, strerror(err));
        return -1;
    }
    log->fp = fp;
    if (filecmd != log->name) {
        strncpy(log->name, filecmd, sizeof(log->name) - 1);
        log->name[sizeof(log->name) - 1] = '\0';
    }
    // A pipe goes line by line; a file is unbuffered so a crash loses no line.
    setvbuf(fp, nullptr, log->is_pipe ? _IOLBF : _IONBF, 0);

    log->total_out = 0;
    if (!log->is_pipe && !is_std_stream(fp)) {
        struct stat st;
        if (fstat(fileno(fp), &st) != 0) {
            int err = errno;
            fprintf(stderr, "%s: fstat(%s) ERROR(%d): %s\n", "do_open", filecmd, err, strerror(err));
        } else {
            log->total_out = (size_t)st.st_size;
        }
    }
    return 0;
}

}  // namespace log_detail

namespace {

// Appends to the line buffer at *pos: true, or false with the count that
// did not fit in *n.
bool append(char* out, size_t* pos, int* n, const char* fmt, ...) VRX_PRINTF(4, 5);
bool append(char* out, size_t* pos, int* n, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    *n = line_vformat(out + *pos, k_line_room - *pos, fmt, ap);
    va_end(ap);
    if (*n <= 0 || (size_t)*n >= k_line_room - *pos)
        return false;
    *pos += (size_t)*n;
    return true;
}

}  // namespace

void glog_init(const char* app_tag)
{
    strncpy(g_logmod.app_tag, app_tag ? app_tag : "", sizeof(g_logmod.app_tag) - 1);
    g_logmod.is_ready = true;
    // The zone's name and offset are learnt here, outside any handler, so a
    // handler's line has a stamp in local time from the very first signal.
    (void)get_timezone(false);
}

void log_default(log_ctx* log, FILE* fp)
{
    log->fp = fp;
    if (log == &g_log && !log->llst.sec_ll_set)
        log_set_sections(log, SECTION_level);
}

int log_open_ex(log_ctx* log, const char* filename, uint32_t flags)
{
    log->is_pipe = 0;
    if (!(flags & F_APPEND_OLD) && filename != nullptr) {
        struct stat st;
        if (stat(filename, &st) != 0) {
            if (errno != ENOENT)
                fprintf(stderr, "stat(%s) ERROR(%d): %s\n", filename, errno, strerror(errno));
        } else if (S_ISREG(st.st_mode)) {
            // The old log moves aside under its last modification time.
            char newname[LOG_PATHNAME_MAX];
            int n = snprintf(newname, sizeof(newname), "%s.%lu", filename, (unsigned long)st.st_mtime);
            if (n > 0 && (size_t)n < sizeof(newname) && rename(filename, newname) != 0)
                fprintf(stderr, "Cannot rename(%s, %s): ERROR(%d): %s\n", filename, newname, errno,
                        strerror(errno));
        }
    }
    return log_detail::do_open(log, filename);
}

int log_popen(log_ctx* log, const char* cmd)
{
    log->is_pipe = 1;
    return log_detail::do_open(log, cmd);
}

void log_mirror(log_ctx* log, FILE* fp)
{
    log->mirror_fp = fp;
    if (fp != nullptr)
        setvbuf(fp, nullptr, _IOLBF, 0);
}

void log_timefmt(log_ctx* log, uint32_t tfmt)
{
    log->time_format = tfmt;
}

void log_set_pid(log_ctx* log, pid_t pid)
{
    log->pid = pid;
}

pid_t log_get_pid(const log_ctx* log)
{
    return log->pid;
}

void log_set_group(log_ctx* log, uint64_t group)
{
    log->group.num64 = group;
}

uint64_t log_get_group(const log_ctx* log)
{
    return log->group.num64;
}

void log_close(log_ctx* log)
{
    if (log->fp == nullptr || is_std_stream(log->fp))
        return;
    const bool was_pipe = log->is_pipe;
    int rc = was_pipe ? pclose(log->fp) : fclose(log->fp);
    if (rc == -1 && !(was_pipe && errno == ECHILD))
        fprintf(stderr, "%s: %s error(%d) for the application log: %s\n", "log_close",
                was_pipe ? "pclose" : "fclose", errno, strerror(errno));
    // Whatever is logged after the close still reaches the console.
    log->fp = stderr;
    if (log->use_syslog)
        closelog();
    if (log->lh != nullptr) {
        lard_destroy(log->lh);
        log->lh = nullptr;
    }
}

lard_t log_set_lard(log_ctx* log, lard_t lh)
{
    lard_t old = log->lh;
    log->lh = lh;
    return old;
}

void glog_enable_syslog(const char* app)
{
    openlog(app, LOG_PID | LOG_CONS, LOG_LOCAL0);
    g_log.use_syslog = 1;
}

void glog_disable_syslog()
{
    closelog();
    g_log.use_syslog = 0;
}

void log_set_modules(log_ctx* log, int level)
{
    for (int& ll : g_mod_ll)
        ll = level;
    log->llst.mod_ll_set = 1;
}

void log_set_sections(log_ctx* log, int level)
{
    for (int& ll : g_sec_ll)
        ll = level;
    log->llst.sec_ll_set = 1;
}

void log_push_mlevels()
{
    if (mlevels_pushed)
        return;
    memcpy(g_saved_ll, g_mod_ll, sizeof(g_saved_ll));
    mlevels_pushed = true;
}

void log_pop_mlevels()
{
    if (!mlevels_pushed)
        return;
    memcpy(g_mod_ll, g_saved_ll, sizeof(g_mod_ll));
    mlevels_pushed = false;
}

int match_log_level(const char* str, int* level)
{
    for (const auto& w : k_level_words) {
        if (strcasecmp(str, w.word) == 0) {
            *level = w.level;
            return 0;
        }
    }
    return -1;
}

const char* log_level_str(int level)
{
    const level_row* row = find_level(level);
    return (row && level != MIN_level) ? row->name : "??";
}

int read_level_env(const char* varname, int default_level)
{
    const char* s = getenv(varname);
    if (s == nullptr)
        return default_level;
    const int v = atoi(s);
    if (v == 0 && strcmp(s, "0") != 0)
        return default_level;
    return v;
}

FILE* log_fp(log_ctx* log)
{
    return log->fp;
}

FILE* log_mirror_fp(log_ctx* log)
{
    return log->mirror_fp;
}

void logbuf_reset()
{
    if (char* out = line_buf())
        out[0] = '\0';
}

bool logbuf_empty()
{
    const char* out = line_buf();
    return out == nullptr || out[0] == '\0';
}

const char* logbuf_text()
{
    const char* out = line_buf();
    return out ? out : "";
}

int logbuf_prepare(log_ctx* log, int level, const char* fmt, ...)
{
    char* const out = line_buf();
    if (out == nullptr)
        return -1;
    size_t pos = 0;
    out[0] = '\0';

    if (!(log->time_format & f_NO_TIME)) {
        const uint32_t timer = log->time_format & f_TIMER_ID;
        if (timer > f_MONOTONIC_TIMER) {
            log_err("%s: unsupported timer value: %u\n", "flags2clock", timer);
            return -1;
        }
        timespec ts;
        if (clock_gettime(timer == f_MONOTONIC_TIMER ? CLOCK_MONOTONIC : CLOCK_REALTIME, &ts) != 0) {
            log_perror("clock_gettime");
            return -1;
        }
        ssize_t n = mk_timestr(&ts, log->time_format, out, k_line_room);
        if (n <= 0 || (size_t)n + 1 >= k_line_room) {
            log_err("%s: time buffer error (n=%d)\n", "logbuf_prepare", (int)n);
            out[0] = '\0';
            return -1;
        }
        out[n] = ' ';
        out[n + 1] = '\0';
        pos = (size_t)n + 1;

        int an = 0;
        if (log->pid > 0 && !append(out, &pos, &an, "%lu  ", (unsigned long)log->pid)) {
            log_err("%s: pid buffer error (n=%d)", "logbuf_prepare", an);
            return -1;
        }
    }
    if (level >= MIN_level + 1) {
        const level_row* row = find_level(level);
        int n = 0;
        if (!append(out, &pos, &n, "%s  ", row ? row->tag : "( ? )")) {
            log_err("%s: level buffer error (n=%d)\n", "logbuf_prepare", n);
            return -1;
        }
    }
    if (log->group.num64 != 0) {
        VRX_ASSERT(0 == log->group.sym8[sizeof(log->group.sym8)-1]);
        int n = 0;
        if (!append(out, &pos, &n, "%s  ", log->group.sym8)) {
            log_err("%s: group buffer error (n=%d)", "logbuf_prepare", n);
            return -1;
        }
    }

    va_list ap;
    va_start(ap, fmt);
    int n = line_vformat(out + pos, k_line_room - pos, fmt, ap);
    va_end(ap);
    // An overlong line still reaches the log, cut and with no line end.
    if (n <= 0 || (size_t)n >= k_line_room - pos) {
        log_perror("fprintf/vfprintf");
        return -1;
    }
    return n;
}

namespace {

// A handler's line goes to the stream's descriptor with write(2): the stream
// itself may be locked by the code the handler interrupted (glibc's stdio
// locks even in a single thread). glibc's fileno reads the descriptor field
// without taking that lock. The application log is unbuffered and opened for
// appending, so the line lands whole between the loop's lines.
void flush_in_handler(log_ctx* log, const char* out)
{
    const size_t len = strlen(out);
    const int fd = log->fp != nullptr ? fileno(log->fp) : -1;
    if (fd >= 0) {
        (void)sigs_write_all(fd, out, len);
        log->total_out += len;
    }
    if (log->mirror_fp != nullptr) {
        const int mfd = fileno(log->mirror_fp);
        if (mfd >= 0 && mfd != fd)
            (void)sigs_write_all(mfd, out, len);
    }
}

}  // namespace

void log_flush(log_ctx* log, int level)
{
    const char* const out = line_buf();
    if (out == nullptr || out[0] == '\0')
        return;
    if (g_sigctx) {
        // Syslog and rotation are kept out of signal handlers.
        flush_in_handler(log, out);
        return;
    }
    if (log->fp != nullptr) {
        fputs(out, log->fp);
        log->total_out += strlen(out);
    }
    if (log->mirror_fp != nullptr &&
        (log->fp == nullptr || fileno(log->mirror_fp) != fileno(log->fp)))
        fputs(out, log->mirror_fp);

    if (level < 0 && log->use_syslog) {
        const level_row* row = find_level(level);
        syslog((row ? row->syslog_prio : 7) | LOG_LOCAL0, "%s", out);
    }

    // The test comes after the write, so the line that reaches the limit
    // still goes whole into the old file.
    if (log->fp != nullptr && log->fp != stdout && log->fp != stderr)
        log_detail::log_rota_check(log);
}

void log_lard(log_ctx* log, int level)
{
    const char* const out = line_buf();
    if (log->lh == nullptr || out == nullptr || out[0] == '\0')
        return;
    (void)lard_puts(log->lh, out);
    if (level < 0)
        lard_set_temp(log->lh, -level);
}

int btrace_to_buf(char* buf, size_t buflen)
{
    (void)buf;
    (void)buflen;
    return 0;
}

int snprintf_btrace(char* buf, size_t buflen, const char* fmt, ...)
{
    if (fmt == nullptr)
        return 0;
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, buflen, fmt, ap);
    va_end(ap);
    return (n <= 0 || (size_t)n >= buflen) ? -1 : 0;
}

void log_assert_fail(int module, const char* func, const char* file, int line)
{
    char bt[512] = {};
    if (btrace_to_buf(bt, sizeof(bt) - 1) == 0) {
        logbuf_reset();
        // The ring keeps the assertion too: it is what a crash report is for.
        if (lard_enabled(&g_log)) {
            logbuf_prepare(&g_log, PANIC_level, "ASSERT at:\n%s==\n", bt);
            log_lard(&g_log, PANIC_level);
        }
        if (g_mod_ll[module] >= PANIC_level) {
            if (logbuf_empty())
                logbuf_prepare(&g_log, PANIC_level, "ASSERT at:\n%s==\n", bt);
            log_flush(&g_log, PANIC_level);
        }
    }
    if (log_fp(&g_log) != nullptr)
        fflush(log_fp(&g_log));
    plat_assert_fail(func, file, line, "0");
}
