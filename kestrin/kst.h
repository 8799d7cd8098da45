// The tool's run-time state and settings, and the steps of its life.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "analysis.h"
#include "config.h"
#include "mmr.h"
#include "tsanalyze.h"
#include "vrtypes.h"
#include "wopen.h"

constexpr size_t MAX_CACHESZ_MB = 2048;
constexpr size_t MAX_TAIL_MB = 682;
constexpr size_t D_MINREAD_BYTES = 4096;
constexpr size_t MIN_MINREAD_BYTES = 1400;
constexpr size_t TAILBUF_SIZE = 1024;
constexpr size_t MAX_USOCK_SZ = 104;
// The largest receive buffer a datagram source may ask for: its size in
// bytes must fit the socket option's int.
constexpr int MAX_RCVBUF_KB = 2097151;

constexpr int D_KST_MAX_LOGSZ = 4;
constexpr int D_KST_MAX_FILES = 4;
constexpr size_t D_KST_CACHE_MB = 8;
constexpr size_t D_KST_TAIL_MB = 2;
constexpr size_t D_KST_TAIL_MS = 1000;
constexpr int D_KST_READ_TMOUT_MS = 0;
// The optional flight recorder: pages of shared memory for the last lines.
constexpr int D_FLIGHT_PAGES = 64;
constexpr int MAX_FLIGHT_PAGES = 16384;

// Reading modes: one datagram a read, or a byte stream.
inline constexpr n32_tag SM_PKT = mk_n32_tag("PKT");
inline constexpr n32_tag SM_STM = mk_n32_tag("STM");

// Throughput since the start; the report calls reads datagrams.
struct kst_tput_stats {
    double total_bytes;
    double total_pkts;
    double total_sec;
    double lavg_speed;  // bytes a second over the last report period
    double gavg_speed;  // total_bytes / total_sec
};

struct ksti_ctx {
    bool is_ready;
    usock_ctx uc;
    int ssock;
    n32_tag mode;
    mmr_t mmr;
    tsan_t tc;
    kst_tput_stats tps;
    bool waiting_alarm;
    bool must_count_tail;
    size_t tail_size;
    uint8_t* abuf;    // the analysis pass's carry-over: a packet cut by a read
    size_t abuf_len;
    analysis_ctx an;  // the analysis pass between reads
    time_t config_load_tm;
    time_t config_mtime;
};

struct ksti_cfg {
    char config_path[FILE_PATH_MAX];
    log_cfg log;
    log_cfg alert_log;
    rt_cfg rt;
    char src_url[FILE_PATH_MAX];
    int read_tmout_ms;
    size_t cache_sz_mb;
    size_t tail_sz_mb;
    size_t tail_tm_ms;
    char mcast_ifc[16];
    size_t rcvbuf_kb;  // a datagram source's receive buffer; 0 leaves the system's
    size_t min_read_bytes;
    char snap_dir[FILE_PATH_MAX];
    char snap_pfx[16];
    size_t report_tput_sec;
    tsan_config tsa;
    uint64_t pkt_reset_idx;
    size_t reload_period;
    bool use_http10_get;
    bool lost_sync_alert;
    unsigned int instance_num;
    size_t flight_pages;  // pages of the flight recorder; 0: none
};

// The ring's size in bytes, and the most it holds before a read: the rest
// is kept vacant for the next read.
constexpr size_t ring_bytes(const ksti_cfg& cfg)
{
    return cfg.cache_sz_mb * BYTES_IN_MB;
}
constexpr size_t ring_payload_max(const ksti_cfg& cfg)
{
    return ring_bytes(cfg) - cfg.min_read_bytes;
}

extern ksti_ctx g_ctx;
extern ksti_cfg g_cfg;
extern const char* g_sysw_debug;  // SYSW_DEBUG as the process found it
extern const char* const g_app_name;
extern volatile sig_atomic_t g_snapshot;   // a snapshot was asked for
extern volatile sig_atomic_t g_snapalarm;  // the tail's time is up

// Where the configuration file is looked for, in this order.
extern const char* const g_cfgloc[];
extern const size_t g_cfgloc_count;

// Options and settings.
int init_ksti_config(ksti_cfg* cfg);
int load_ksti_config(const char* path, ksti_cfg* cfg, bool reload);
int config_reload_check();
void dump_config(FILE* fp, const ksti_cfg* cfg);
int setup_config(int argc, char* const argv[]);
int get_tail_params(const char* param);
int xtrack_opt(const char* optstr);
int analyzer_opt(const char* optstr);
[[noreturn]] void usage();

// Snapshots.
void snapshot_on_sig(int signo);
void catch_alarm(int signo);
int schedule_alarm();
void clear_alarm();
int take_snapshot(const char* suffix);
int process_snapshot();
int process_signals();
void count_tail(size_t nbytes);

// The flight recorder: the ring's name for this instance ("kst.<nid>"), its
// creation at start and its removal at a clean stop.
void flight_ring_name(char* out, size_t len, unsigned instance);
void flight_recorder_start();
void flight_recorder_stop();

// Start, capture and stop.
bool is_dgram_kind(int kind);
int init_ksti_ctx();
void destroy_ksti_ctx();
int run_app();
void app_shutdown();
