// Settings records shared by the tools (one log's settings, the process's)
// and the readers that fill them from a libconfig file.
#pragma once

#include <libconfig.h>
#include <cstdint>
#include <cstdio>

#include "log.h"
#include "vrtypes.h"

struct log_cfg {
    char path[FILE_PATH_MAX];  // "|cmd" pipes into a command; empty: the default stream
    int level;
    int32_t timefmt;
    bool enable_syslog;  // read and shown; nothing in the tool acts on it
    int max_size_mb;
    int max_files;
    bool eod_rotate;
};

struct rt_cfg {
    char pidfile[FILE_PATH_MAX];
    char user[USERNAME_MAX_LEN];
    bool non_daemon;
    bool quiet;
    bool enforce_core_dumps;
    int cpunum;  // -1: none
};

// The one libconfig handle; it lives for the length of one load.
extern config_t g_libcfg;

// Strings with limits: the value must be shorter than buflen.
int load_config_str(const char* path, char* buf, size_t buflen, const char* default_str);
int load_config_setting_str(const config_setting_t* setting, const char* path, char* buf, size_t buflen,
                            const char* default_str);
char** load_config_string_list(const char* path, size_t* count);
int load_config_setting_size(const config_setting_t* setting, const char* path, int64_t* value,
                             int64_t default_val);

uint32_t str_to_timefmt(const char* str);
const char* timefmt_str(uint32_t fmt);

// The sections every tool shares.
int load_log_config(const config_setting_t* s, log_cfg* dst);
int load_rt_config(const config_setting_t* s, rt_cfg* rt);
void apply_log_config(log_ctx* log, const log_cfg* lcfg);
void dump_log_config(FILE* fp, const char* tag, const log_cfg* lgc, const log_ctx* log);
void dump_rt_config(FILE* fp, const rt_cfg* rt);
