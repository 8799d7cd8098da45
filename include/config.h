// Settings records shared by the tools: one log's settings, the process's.
#pragma once

#include <cstdint>

#include "vrtypes.h"

struct log_cfg {
    char path[FILE_PATH_MAX];  // "|cmd" pipes into a command; empty: the default stream
    int level;
    int32_t timefmt;
    bool enable_syslog;
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
    int cpunum;
};
