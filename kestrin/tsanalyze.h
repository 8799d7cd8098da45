// The stream analyzer: its settings and their section of the configuration
// file, its life, the tracker's entry and its reports.
#pragma once

#include <cstddef>
#include <cstdint>
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

// Handle of one analyzer.
using tsan_t = void*;

// A context zeroed but for the settings and the source tag (source, if given,
// else that of cfg); null with 12 in *err.
tsan_t tsan_init(const char* source, const tsan_config* cfg, int* err);
void tsan_free(tsan_t t);

// One packet at pkt; the bytes the caller holds end at end, and nothing at
// or behind it is read. 0, or -1 for a packet out of sync, a checked packet
// without payload, or idling.
int tsan_process(tsan_t t, const uint8_t* pkt, const uint8_t* end);

uint64_t tsan_get_pidx(tsan_t t);
void tsan_set_pidx(tsan_t t, uint64_t new_pidx);
void tsan_reset_local_stats(tsan_t t);

// A lost sync, told on both logs: 0 to go on, -1 to give up.
int tsan_alert_lostsync(tsan_t t);

// Reports: true if the period had passed and the report was made now.
bool tsan_check_dump_stats(FILE* fp, tsan_t t);
void tsan_dump_stats(FILE* fp, tsan_t t);
void tsan_alog_stats(tsan_t t);
