// Reading settings from a libconfig file: strings and sizes with limits and
// defaults, the log and runtime sections, and their reports.
#include "config.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <strings.h>

#include "strops.h"
#include "syswrap.h"
#include "timeop.h"

LOG_UNIT(LLMOD_DEFAULT);

config_t g_libcfg;

namespace {

constexpr size_t LIST_FIRST_CAP = 10;
constexpr size_t LIST_GROWTH = 5;

// Shared by both string readers: they differ only in the lookup.
int store_str(const char* func, const char* key, int found, const char* str, char* buf, size_t buflen,
              const char* default_str)
{
    if (found == CONFIG_TRUE && str != nullptr) {
        const size_t len = strlen(str);
        if (len >= buflen) {
            LOG_AT(ERR_level, "%s: %s value is too long (%ld), max = %ld characters.\n", func, key, (long)len,
                   (long)buflen);
            return -1;
        }
        strncpy(buf, str, buflen - 1);
        buf[len] = '\0';
        return 0;
    }
    if (default_str != nullptr && default_str[0] != '\0') {
        strncpy(buf, default_str, buflen - 1);
        buf[buflen - 1] = '\0';
    } else {
        buf[0] = '\0';
    }
    return 0;
}

void free_list(char** list, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        free(list[i]);
    free(list);
}

// A key of another type than asked for counts as missing.
int setting_int(const config_setting_t* s, const char* key, int default_val)
{
    int v = 0;
    return config_setting_lookup_int(s, key, &v) == CONFIG_TRUE ? v : default_val;
}

bool setting_bool(const config_setting_t* s, const char* key, bool default_val)
{
    int v = 0;
    return config_setting_lookup_bool(s, key, &v) == CONFIG_TRUE ? (v != 0) : default_val;
}

}  // namespace

int load_config_str(const char* path, char* buf, size_t buflen, const char* default_str)
{
    const char* str = nullptr;
    const int found = config_lookup_string(&g_libcfg, path, &str);
    return store_str("load_config_str", path, found, str, buf, buflen, default_str);
}

int load_config_setting_str(const config_setting_t* setting, const char* path, char* buf, size_t buflen,
                            const char* default_str)
{
    const char* str = nullptr;
    const int found = config_setting_lookup_string(setting, path, &str);
    return store_str("load_config_setting_str", path, found, str, buf, buflen, default_str);
}

char** load_config_string_list(const char* path, size_t* count)
{
    const config_setting_t* s = config_lookup(&g_libcfg, path);
    if (s == nullptr) {
        *count = 0;
        return nullptr;
    }
    size_t cap = LIST_FIRST_CAP;
    char** list = static_cast<char**>(W_calloc("load_config_string_list", cap, sizeof(char*)));
    if (list == nullptr) {
        *count = 0;
        return nullptr;
    }
    if (*count == 0) {
        free(list);
        return nullptr;
    }

    size_t n = 0;
    bool failed = false;
    for (const char* elem; (elem = config_setting_get_string_elem(s, (int)n)) != nullptr;) {
        if (n == cap) {
            if (n >= *count) {
                LOG_AT(ERR_level, "%s: [%s] exceeds %lu elements\n", "load_config_string_list", path,
                       (unsigned long)*count);
                failed = true;
                break;
            }
            char** grown = static_cast<char**>(
                W_realloc("load_config_string_list", list, (cap + LIST_GROWTH) * sizeof(char*)));
            if (grown == nullptr) {
                failed = true;
                break;
            }
            list = grown;
            memset(list + cap, 0, LIST_GROWTH * sizeof(char*));
            cap += LIST_GROWTH;
        }
        if (n == *count)
            break;
        list[n] = strdup(elem);
        if (list[n] == nullptr) {
            failed = true;
            break;
        }
        ++n;
    }

    if (n > 0)
        LOG_AT(DEBUG_level, "%s: %lu elements added to [%s]\n", "load_config_string_list", (unsigned long)n, path);
    if (failed || n == 0) {
        free_list(list, n);
        *count = 0;
        return nullptr;
    }
    *count = n;
    return list;
}

int load_config_setting_size(const config_setting_t* setting, const char* path, int64_t* value,
                             int64_t default_val)
{
    long long v = 0;
    if (config_setting_lookup_int64(setting, path, &v) == CONFIG_TRUE) {
        *value = (int64_t)v;
        return 0;
    }
    char text[32];
    const int rc = load_config_setting_str(setting, path, text, sizeof(text) - 1, nullptr);
    if (rc != 0)
        return rc;
    if (text[0] == '\0') {
        *value = default_val;
        return 0;
    }
    return a2int64(text, value);
}

uint32_t str_to_timefmt(const char* str)
{
    static constexpr struct {
        const char* word;
        uint32_t fmt;
    } k_words[] = {
        {"raw", f_RAW_TIME},     {"raw_mono", f_RAW_TIME | f_MONOTONIC_TIMER},
        {"no_time", f_NO_TIME},  {"gmt", f_GMT_TIME},
        {"local", 0},
    };
    for (const auto& w : k_words)
        if (strcasecmp(str, w.word) == 0)
            return w.fmt;
    return f_BAD_TIME;
}

const char* timefmt_str(uint32_t fmt)
{
    if (fmt & f_BAD_TIME)
        return "#error#";
    if (fmt & f_RAW_TIME)
        return (fmt & f_MONOTONIC_TIMER) ? "raw_mono" : "raw";
    if (fmt & f_NO_TIME)
        return "no_time";
    if (fmt & f_GMT_TIME)
        return "gmt";
    return "local";
}

int load_log_config(const config_setting_t* s, log_cfg* dst)
{
    int rc = load_config_setting_str(s, "file", dst->path, sizeof(dst->path) - 1, nullptr);
    if (rc != 0)
        return rc;

    char word[16];
    rc = load_config_setting_str(s, "level", word, sizeof(word) - 1, "info");
    if (rc != 0)
        return rc;
    // The log may not be open yet: these two complaints go to stderr.
    rc = match_log_level(word, &dst->level);
    if (rc != 0) {
        fprintf(stderr, "Invalid log level: %s\n", word);
        return rc;
    }

    rc = load_config_setting_str(s, "time_format", word, sizeof(word) - 1, "local");
    if (rc != 0)
        return rc;
    const uint32_t fmt = str_to_timefmt(word);
    if (fmt == f_BAD_TIME) {
        fprintf(stderr, "Invalid time format: %s\n", word);
        return -1;
    }
    dst->timefmt = (int32_t)fmt;

    dst->max_size_mb = setting_int(s, "max_size_mb", 64);
    dst->max_files = setting_int(s, "max_files", 16);
    // The one boolean that counts as true when it is missing.
    dst->enable_syslog = setting_bool(s, "enable_syslog", true);
    dst->eod_rotate = setting_bool(s, "eod_rotate", false);
    return 0;
}

int load_rt_config(const config_setting_t* s, rt_cfg* rt)
{
    int rc = load_config_setting_str(s, "pidfile", rt->pidfile, sizeof(rt->pidfile) - 1, nullptr);
    if (rc != 0)
        return rc;
    rt->non_daemon = setting_bool(s, "non_daemon", false);
    rt->quiet = setting_bool(s, "quiet", false);
    rt->enforce_core_dumps = setting_bool(s, "enforce_core_dumps", false);
    rt->cpunum = setting_int(s, "cpunum", -1);
    return load_config_setting_str(s, "run_as_user", rt->user, sizeof(rt->user) - 1, nullptr);
}

void apply_log_config(log_ctx* log, const log_cfg* lcfg)
{
    // 32-bit signed on purpose: 2048 Mb or more overflows, and the sign is widened.
    const int32_t maxsize = (int32_t)((uint32_t)lcfg->max_size_mb << 20);
    const time_t max_time = lcfg->eod_rotate ? time(nullptr) : 0;
    log_set_rota(log, (size_t)(int64_t)maxsize, (size_t)lcfg->max_files, max_time);
}

void dump_log_config(FILE* fp, const char* tag, const log_cfg* lgc, const log_ctx* log)
{
    fprintf(fp, "Log (%s):\n", (tag == nullptr || tag[0] == '\0') ? "regular" : tag);
    fprintf(fp, "\tpath   = %s\n", lgc->path);
    fprintf(fp, "\tlevel  = %s\n", log_level_str(lgc->level));
    fprintf(fp, "\tformat = %s\n", timefmt_str((uint32_t)lgc->timefmt));
    if (lgc->max_size_mb < 1 && !lgc->eod_rotate) {
        fputs("\n", fp);
        return;
    }
    fprintf(fp, "\trota:max size   = %d Mb\n", lgc->max_size_mb);
    fprintf(fp, "\trota:max files  = %d\n", lgc->max_files);
    fprintf(fp, "\trota:end-of-day = %s (%ld)\n", lgc->eod_rotate ? "ON" : "off", (long)log_rota_eod(log));
    fputs("\n", fp);
}

void dump_rt_config(FILE* fp, const rt_cfg* rt)
{
    fputs("Runtime:\n", fp);
    if (rt->pidfile[0] != '\0')
        fprintf(fp, "\tpid file = %s\n", rt->pidfile);
    if (rt->user[0] != '\0')
        fprintf(fp, "\trun as user: %s\n", rt->user);
    if (rt->cpunum >= 0)
        fprintf(fp, "\tCPU: %d\n", rt->cpunum);
    fprintf(fp, "\tflags:%s%s%s\n", rt->non_daemon ? " [non-daemon]" : "", rt->quiet ? " [quiet]" : "",
            rt->enforce_core_dumps ? " [cores]" : "");
    fputs("\n", fp);
}
