// The tool's settings: built-in defaults, the configuration file, its reload
// while the capture runs, and the report of what is in force.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

#include "config.h"
#include "kst.h"
#include "log.h"
#include "strops.h"
#include "util.h"

LOG_UNIT(LLMOD_DEFAULT);

const char* const g_cfgloc[] = {"./kst.conf", "/etc/kst.conf", "/usr/local/etc/kst.conf"};
const size_t g_cfgloc_count = std::size(g_cfgloc);

namespace {

// Keeps the copy of a path to 127 characters and always ends it.
void copy_path(char* dst, const char* src)
{
    strncpy(dst, src, FILE_PATH_MAX - 1);
    dst[FILE_PATH_MAX - 1] = '\0';
}

// A missing key, or one of another type, takes the default.
int lookup_int(const char* path, int default_val)
{
    int v = 0;
    return config_lookup_int(&g_libcfg, path, &v) == CONFIG_TRUE ? v : default_val;
}

bool lookup_bool(const char* path, bool default_val)
{
    int v = 0;
    return config_lookup_bool(&g_libcfg, path, &v) == CONFIG_TRUE ? (v != 0) : default_val;
}

// A negative int lands sign-extended in the unsigned field: no range check here.
size_t lookup_size(const char* path, int default_val)
{
    return (size_t)(long)lookup_int(path, default_val);
}

int load_log_section(const char* path, log_cfg* dst, unsigned instance)
{
    const config_setting_t* s = config_lookup(&g_libcfg, path);
    if (s == nullptr)
        return 1;
    const int rc = load_log_config(s, dst);
    if (rc == 0)
        (void)replace_ul_macro(dst->path, FILE_PATH_MAX, "{N}", instance);
    return rc;
}

// Optional: without the key the source keeps the system's buffer and the
// report says nothing of it.
int load_rcvbuf(ksti_cfg* cfg)
{
    int kb = 0;
    if (config_lookup_int(&g_libcfg, "kst.source.rcvbuf_kb", &kb) != CONFIG_TRUE)
        return 0;
    if (kb < 1 || kb > MAX_RCVBUF_KB) {
        LOG_AT(ERR_level, "%s: kst.source.rcvbuf_kb=%d is out of range [1..%d]\n", "load_config", kb, MAX_RCVBUF_KB);
        return -1;
    }
    cfg->rcvbuf_kb = (size_t)kb;
    return 0;
}

// The group is optional and its absence changes nothing: no ring, no line.
int load_flight_recorder(ksti_cfg* cfg)
{
    cfg->flight_pages = 0;
    if (config_lookup(&g_libcfg, "kst.flight_recorder") == nullptr)
        return 0;
    const int pages = lookup_int("kst.flight_recorder.pages", D_FLIGHT_PAGES);
    if (pages < 1 || pages > MAX_FLIGHT_PAGES) {
        LOG_AT(ERR_level, "%s: flight_recorder.pages=%d is outside 1..%d\n", "load_config", pages,
               MAX_FLIGHT_PAGES);
        return -1;
    }
    cfg->flight_pages = (size_t)pages;
    return 0;
}

// Read only at the first load.
int load_start_only(ksti_cfg* cfg)
{
    int rc = load_log_section("kst.log", &cfg->log, cfg->instance_num);
    if (rc == 1) {
        LOG_AT(ERR_level, "%s: missing log section\n", "load_config");
        return -1;
    }
    if (rc != 0)
        return rc;

    rc = load_log_section("kst.alert_log", &cfg->alert_log, cfg->instance_num);
    if (rc != 0 && rc != 1)
        return rc;

    const config_setting_t* s = config_lookup(&g_libcfg, "kst.runtime");
    if (s == nullptr) {
        LOG_AT(ERR_level, "%s: missing runtime section\n", "load_config");
        return -1;
    }
    rc = load_rt_config(s, &cfg->rt);
    if (rc != 0)
        return rc;

    // This one path stands outside the group "kst".
    cfg->use_http10_get = lookup_bool("source.use_http10_get", false);
    rc = load_config_str("kst.source.mcast_ifc", cfg->mcast_ifc, sizeof(cfg->mcast_ifc) - 1, nullptr);
    if (rc != 0)
        return rc;
    cfg->cache_sz_mb = lookup_size("kst.cache.size_mb", (int)D_KST_CACHE_MB);
    cfg->read_tmout_ms = lookup_int("kst.source.read_tmout_ms", D_KST_READ_TMOUT_MS);
    rc = load_rcvbuf(cfg);
    if (rc != 0)
        return rc;
    return load_flight_recorder(cfg);
}

// Read at the first load and at every reload.
int load_reloadable(ksti_cfg* cfg)
{
    cfg->reload_period = lookup_size("kst.config_reload_period", 0);

    int rc = load_config_str("kst.snapshot.dir_path", cfg->snap_dir, sizeof(cfg->snap_dir) - 1, "/tmp");
    if (rc != 0)
        return rc;
    if (cfg->snap_dir[0] != '\0') {
        rc = dir_check(cfg->snap_dir, true);
        if (rc != 0)
            return rc;
    }
    rc = load_config_str("kst.snapshot.file_prefix", cfg->snap_pfx, sizeof(cfg->snap_pfx) - 1, "snap");
    if (rc != 0)
        return rc;

    cfg->tail_sz_mb = lookup_size("kst.cache.tail_size_mb", (int)D_KST_TAIL_MB);
    cfg->tail_tm_ms = lookup_size("kst.cache.tail_duration_ms", 0);
    cfg->min_read_bytes = lookup_size("kst.cache.min_bytes_left", (int)D_MINREAD_BYTES);
    cfg->report_tput_sec = lookup_size("kst.stats.tput_report_sec", 0);

    const config_setting_t* s = config_lookup(&g_libcfg, "kst.stream_analyzer");
    if (s != nullptr) {
        rc = tsan_load_config(s, &cfg->tsa);
        if (rc != 0)
            return rc;
    }

    long long idx = 0;
    cfg->pkt_reset_idx = config_lookup_int64(&g_libcfg, "kst.pkt_reset_idx", &idx) == CONFIG_TRUE ? (uint64_t)idx : 0;
    cfg->lost_sync_alert = lookup_bool("kst.lost_sync_alert", true);
    return 0;
}

const char* yes_no(bool b)
{
    return b ? "yes" : "no";
}

}  // namespace

int init_ksti_config(ksti_cfg* cfg)
{
    *cfg = ksti_cfg{};
    cfg->log.level = INFO_level;
    cfg->log.timefmt = 0;
    cfg->log.enable_syslog = false;
    cfg->log.max_size_mb = D_KST_MAX_LOGSZ;
    cfg->log.max_files = D_KST_MAX_FILES;
    cfg->min_read_bytes = D_MINREAD_BYTES;
    cfg->cache_sz_mb = D_KST_CACHE_MB;
    cfg->tail_sz_mb = D_KST_TAIL_MB;
    cfg->tail_tm_ms = D_KST_TAIL_MS;
    cfg->read_tmout_ms = D_KST_READ_TMOUT_MS;
    cfg->lost_sync_alert = true;
    strcpy(cfg->mcast_ifc, "all");
    strcpy(cfg->snap_dir, "/tmp");
    strcpy(cfg->snap_pfx, "snap");
    return 0;
}

int load_ksti_config(const char* path, ksti_cfg* cfg, bool reload)
{
    config_init(&g_libcfg);
    FILE* fp = fopen(path, "r");
    if (fp == nullptr) {
        fprintf(stderr, "Failed to load [%s]\n", path);
        config_destroy(&g_libcfg);
        return -1;
    }

    int rc = 0;
    if (config_read(&g_libcfg, fp) != CONFIG_TRUE) {
        LOG_AT(ERR_level, "Error reading/parsing config file [%s]: line %d: %s\n", path,
               config_error_line(&g_libcfg), config_error_text(&g_libcfg));
        rc = -1;
    } else {
        if (path != cfg->config_path)
            copy_path(cfg->config_path, path);
        if (!reload)
            rc = load_start_only(cfg);
        if (rc == 0)
            rc = load_reloadable(cfg);
        // Only a load that fully passed moves the time of the last load.
        if (rc == 0)
            g_ctx.config_load_tm = time(nullptr);
    }

    fclose(fp);
    config_destroy(&g_libcfg);
    if (rc != 0)
        LOG_AT(ERR_level, "%s: FAILED (%d)\n", "load_ksti_config", rc);
    return rc;
}

int config_reload_check()
{
    if (g_cfg.reload_period == 0)
        return 0;
    if (difftime(time(nullptr), g_ctx.config_load_tm) < (double)g_cfg.reload_period)
        return 0;
    // The new time is stored even when the load fails: a broken file waits for its next change.
    if (!chk_file_updated(g_cfg.config_path, &g_ctx.config_mtime))
        return 0;

    ksti_cfg new_cfg = g_cfg;
    LOG_AT(NORM_level, "[%s] updated, re-loading config\n", g_cfg.config_path);
    const int rc = load_ksti_config(g_cfg.config_path, &new_cfg, true);
    if (rc != 0) {
        LOG_AT(ERR_level, "%s: failed to reload config (err=%d), older version retained\n", "config_reload_check",
               rc);
        return rc;
    }
    g_cfg = new_cfg;
    return 0;
}

void dump_config(FILE* fp, const ksti_cfg* cfg)
{
    static constexpr const char* k_rule = "-----------------------------------\n";
    fputs(k_rule, fp);
    fprintf(fp, "Instance: %u\n", cfg->instance_num);
    dump_log_config(fp, "", &cfg->log, &g_log);
    dump_log_config(fp, "alerts", &cfg->alert_log, &g_access_log);
    dump_rt_config(fp, &cfg->rt);

    fputs("Source:\n", fp);
    fprintf(fp, "\tURL            = %s\n", cfg->src_url);
    fprintf(fp, "\tRead time-out  = %d ms\n", cfg->read_tmout_ms);
    fprintf(fp, "\tMulticast ifc  = %s\n", cfg->mcast_ifc);
    if (cfg->rcvbuf_kb != 0)
        fprintf(fp, "\tRecv buffer    = %zu KiB\n", cfg->rcvbuf_kb);
    fprintf(fp, "\tHTTP/1.0 GET   = %s\n", yes_no(cfg->use_http10_get));

    fputs("Cache:\n", fp);
    fprintf(fp, "\tSize           = %zu Mb\n", cfg->cache_sz_mb);
    fprintf(fp, "\tTail           = %zu/%zu Mb/ms\n", cfg->tail_sz_mb, cfg->tail_tm_ms);
    fprintf(fp, "\tMin vacant     = %zu bytes\n", cfg->min_read_bytes);

    fputs("Snapshots:\n", fp);
    fprintf(fp, "\tDirectory      = %s\n", cfg->snap_dir);
    fprintf(fp, "\tFile prefix    = %s\n", cfg->snap_pfx);
    if (cfg->pkt_reset_idx != 0)
        fprintf(fp, "\tReset index    = %lu\n", (unsigned long)cfg->pkt_reset_idx);
    if (cfg->reload_period != 0)
        fprintf(fp, "\tReload period   = %zu sec\n", cfg->reload_period);

    fputs("Stats:\n", fp);
    if (cfg->report_tput_sec != 0)
        fprintf(fp, "\tTPS report     = %zu sec\n", cfg->report_tput_sec);
    fprintf(fp, "\tLost-sync alert     = %s\n", yes_no(cfg->lost_sync_alert));

    if (cfg->tsa.is_enabled)
        tsan_dump_config(fp, "Analysis", &cfg->tsa);
    if (cfg->flight_pages != 0) {
        char name[LARD_NAME_MAX];
        flight_ring_name(name, sizeof(name), cfg->instance_num);
        fputs("Flight recorder:\n", fp);
        fprintf(fp, "\tRing           = %s, %zu pages\n", name, cfg->flight_pages);
    }
    fputs(k_rule, fp);
}

void flight_ring_name(char* out, size_t len, unsigned instance)
{
    snprintf(out, len, "kst.%u", instance);
}

// Made after the process took its final pid (a daemon forks), so the ring's
// owner is the process that writes it. A ring that can't be made leaves the
// logger without one: the capture doesn't depend on it.
void flight_recorder_start()
{
    if (g_cfg.flight_pages == 0)
        return;
    char name[LARD_NAME_MAX];
    flight_ring_name(name, sizeof(name), g_cfg.instance_num);
    lard_t lh = lard_create(name, g_cfg.flight_pages);
    if (lh == nullptr) {
        LOG_AT(WARN_level, "%s: no flight recorder: ring %s could not be made\n", "flight_recorder_start", name);
        return;
    }
    (void)log_set_lard(&g_log, lh);
    LOG_AT(DEBUG_level, "%s: ring %s of %zu pages\n", "flight_recorder_start", name, g_cfg.flight_pages);
}

// A clean stop removes the ring whatever the log is on (log_close keeps the
// ring of a log on a standard stream).
void flight_recorder_stop()
{
    if (lard_t lh = log_set_lard(&g_log, nullptr); lh != nullptr)
        lard_destroy(lh);
}
