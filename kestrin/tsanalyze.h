// The stream analyzer: its settings and their section of the configuration file.
#pragma once

#include <cstddef>
#include <cstdio>

#include "config.h"

constexpr size_t D_MAX_NO_ANALYZE = 9000;
constexpr size_t D_MAX_DELTA_MS = 500;
constexpr size_t TSAN_SOURCE_MAX = 64;

// Flags that only switch messages of the application log.
struct tracking_opt {
    bool sdt_ignore;
    bool misc_ignore;
    bool pdts_update;
    bool pat_pmt_pkt;
    bool pcr_update;
};

struct tsan_config {
    bool is_enabled;
    char source[TSAN_SOURCE_MAX];  // stands for the source in every message and report
    size_t max_skip_pkts;
    size_t max_pdts_delta;  // ms; 0 switches the check off
    size_t max_pcr_delta;   // ms; 0 switches the check off
    size_t pcr_freq_ms;     // 0 switches the check off
    bool access_log_alerts;
    size_t dump_stats_period;  // seconds; 0 switches the reports off
    tracking_opt trk;
};

int tsan_load_config(const config_setting_t* s, tsan_config* cfg);
void tsan_dump_config(FILE* fp, const char* title, const tsan_config* cfg);
