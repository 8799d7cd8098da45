// The logger: two process-wide logs (the application log and the alert log),
// one line buffer, levels tested before anything is formatted.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "lard.h"
#include "vrtypes.h"

enum : int {
    MIN_level = -127,  // lines without a level tag (the alert log)
    PANIC_level = -4,
    ERR_level = -3,
    CRIT_level = -2,
    WARN_level = -1,
    NORM_level = 0,
    INFO_level = 1,
    DEBUG_level = 2,
    SECTION_level = 64,
};

constexpr int LL_MAX_MODULES = 128;
constexpr int LL_MAX_SECTIONS = 128;
constexpr int LL_STACK_DEPTH = 8;
constexpr size_t LOG_PATHNAME_MAX = 128;
constexpr size_t LOG_GRP_MAX = 32;
constexpr size_t LOG_ERRMSG_MAX = 256;
constexpr size_t LOG_OUTBUF_SZ = 2048;

constexpr uint32_t F_APPEND_OLD = 1;

// Module numbers of the level table: units with a module of their own can be
// switched apart from the rest.
enum : int {
    LLMOD_DEFAULT = 0,
    LLMOD_SYSWRAP = 2,
    LLMOD_RTP = 3,
    LLMOD_FDIO = 4,
    LLMOD_DSTREAM = 7,
};

struct ll_status {
    unsigned mod_ll_set : 1;
    unsigned sec_ll_set : 1;
};

constexpr size_t MAX_CYCLIC_ROTATIONS = 128;

// When a log is rotated and how many old files it keeps.
struct rotation_ctx {
    time_t tm[MAX_CYCLIC_ROTATIONS];  // stamps of the rotated files; 0 marks a free slot
    ssize_t next_idx;
    size_t max_idx;     // rotated files to keep
    size_t max_total;   // rotate when total_out reaches it; 0: never by size
    time_t max_log_tm;  // rotate after this moment; 0: never by time
};

struct log_ctx {
    char name[LOG_PATHNAME_MAX];
    unsigned is_pipe : 1;
    unsigned use_syslog : 1;
    uint32_t time_format;
    FILE* fp;
    FILE* mirror_fp;
    size_t total_out;
    ll_status llst;
    pid_t pid;
    n64_tag group;
    rotation_ctx rota;
    lard_t lh;  // flight recorder that gets every line, whatever its level; or null
};

struct log_module_ctx {
    bool is_ready;
    char app_tag[128];
};

// A unit's module and section numbers; each unit declares its own g_llctx
// through LOG_UNIT.
struct loglevel_ctx {
    int mod;
    int sec;
    int sec_sp;
    int sec_stack[LL_STACK_DEPTH];
};

extern log_ctx g_log;         // application log
extern log_ctx g_access_log;  // alert log
extern log_module_ctx g_logmod;
extern int g_mod_ll[LL_MAX_MODULES];
extern int g_sec_ll[LL_MAX_SECTIONS];

// Setting up.
void glog_init(const char* app_tag);
void log_default(log_ctx* log, FILE* fp);
int log_open_ex(log_ctx* log, const char* filename, uint32_t flags);
int log_popen(log_ctx* log, const char* cmd);
void log_mirror(log_ctx* log, FILE* fp);
void log_timefmt(log_ctx* log, uint32_t tfmt);
void log_set_pid(log_ctx* log, pid_t pid);
pid_t log_get_pid(const log_ctx* log);
void log_set_group(log_ctx* log, uint64_t group);
uint64_t log_get_group(const log_ctx* log);
void log_close(log_ctx* log);
// Sets the flight recorder of a log (null: none) and gives back the one that
// was there. The log owns it from then on: log_close destroys it.
lard_t log_set_lard(log_ctx* log, lard_t lh);
void glog_enable_syslog(const char* app);
void glog_disable_syslog();

// Rotation limits.
void log_set_rota(log_ctx* log, size_t maxsize, size_t maxfiles, time_t max_time);
void log_set_eod(log_ctx* log, time_t max_time);
size_t log_rota_maxfiles(const log_ctx* log);
size_t log_rota_maxsize(const log_ctx* log);
time_t log_rota_eod(const log_ctx* log);
// Moves the log to "<name>.<now>" and opens a fresh one under its name: 0 or
// -1, or the code of a failed re-open. When the old file could not be closed
// or the new one not opened, the log's lines go to stderr from then on.
int log_rotate(log_ctx* log);

// Levels.
void log_set_modules(log_ctx* log, int level);
void log_set_sections(log_ctx* log, int level);
void log_push_mlevels();
void log_pop_mlevels();
int match_log_level(const char* str, int* level);
const char* log_level_str(int level);
int read_level_env(const char* varname, int default_level);

// Access.
FILE* log_fp(log_ctx* log);
FILE* log_mirror_fp(log_ctx* log);
// Inline: the macro tests it before the level on every message.
inline bool lard_enabled(const log_ctx* log)
{
    return log->lh != nullptr;
}

// Writing: used through LOG_AT, or directly for the alert log.
void logbuf_reset();
bool logbuf_empty();
const char* logbuf_text();
int logbuf_prepare(log_ctx* log, int level, const char* fmt, ...) VRX_PRINTF(3, 4);
void log_flush(log_ctx* log, int level);
// The composed line into the log's flight recorder; a negative level warms it.
void log_lard(log_ctx* log, int level);

// The seam at which a back trace can be added: this build has none.
int btrace_to_buf(char* buf, size_t buflen);
int snprintf_btrace(char* buf, size_t buflen, const char* fmt, ...) VRX_PRINTF(3, 4);

[[noreturn]] void log_assert_fail(int module, const char* func, const char* file, int line);

#define LOG_UNIT(module) [[maybe_unused]] static constexpr loglevel_ctx g_llctx{module, 0, 0, {}}

// The one way code logs: the level test stands before composition, so a
// message under the level costs one comparison and its arguments are not
// evaluated. A flight recorder, when set, gets every line before the level
// test, and the file then shares that one composition.
#define LOG_AT(level, fmt, ...)                                                          \
    do {                                                                                 \
        const bool lv_on_ = g_mod_ll[g_llctx.mod] >= (level);                            \
        if (lv_on_ || lard_enabled(&g_log)) {                                            \
            logbuf_reset();                                                              \
            if (lard_enabled(&g_log)) [[unlikely]] {                                     \
                logbuf_prepare(&g_log, (level), fmt __VA_OPT__(, ) __VA_ARGS__);         \
                log_lard(&g_log, (level));                                               \
            }                                                                            \
            if (lv_on_) {                                                                \
                if (logbuf_empty())                                                      \
                    logbuf_prepare(&g_log, (level), fmt __VA_OPT__(, ) __VA_ARGS__);     \
                log_flush(&g_log, (level));                                              \
            }                                                                            \
        }                                                                                \
    } while (0)

// A line of the alert log: no level word and no level test; a line that
// could not be prepared is dropped.
#define ALOG_LINE(fmt, ...)                                                              \
    do {                                                                                 \
        if (logbuf_prepare(&g_access_log, MIN_level, fmt __VA_OPT__(, ) __VA_ARGS__) > 0) \
            log_flush(&g_access_log, MIN_level);                                         \
    } while (0)

// The logged assertion: a back trace at PANIC, the log flushed, then abort.
#define LOG_ASSERT(cond)                                                                 \
    do {                                                                                 \
        if (!(cond)) [[unlikely]]                                                        \
            log_assert_fail(g_llctx.mod, __func__, __FILE__, __LINE__);                  \
    } while (0)
