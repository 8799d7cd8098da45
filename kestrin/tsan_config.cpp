// The analyzer's section of the configuration file and its report.
#include <cstdint>
#include <cstring>
#include <iterator>

#include "log.h"
#include "tsanalyze.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

bool group_bool(const config_setting_t* s, const char* key)
{
    int v = 0;
    return config_setting_lookup_bool(s, key, &v) == CONFIG_TRUE && v != 0;
}

const char* yes_no(bool b)
{
    return b ? "yes" : "no";
}

}  // namespace

int tsan_load_config(const config_setting_t* s, tsan_config* cfg)
{
    *cfg = tsan_config{};
    cfg->is_enabled = group_bool(s, "enabled");
    if (!cfg->is_enabled) {
        LOG_AT(DEBUG_level, "%s: TSAN disabled, skipping further settings\n", "tsan_load_config");
        return 0;
    }
    cfg->access_log_alerts = group_bool(s, "access_log_alerts");

    int rc = load_config_setting_str(s, "source_tag", cfg->source, sizeof(cfg->source) - 1, nullptr);
    static constexpr struct {
        const char* key;
        size_t tsan_config::*field;
        size_t default_val;
    } k_sizes[] = {
        {"max_skipped_pkts", &tsan_config::max_skip_pkts, D_MAX_NO_ANALYZE},
        {"max_pdts_delta_ms", &tsan_config::max_pdts_delta, D_MAX_DELTA_MS},
        {"max_pcr_delta_ms", &tsan_config::max_pcr_delta, 0},
        {"pcr_freq_ms", &tsan_config::pcr_freq_ms, 0},
        {"dump_stats_period", &tsan_config::dump_stats_period, 0},
    };
    for (size_t i = 0; rc == 0 && i < std::size(k_sizes); ++i) {
        int64_t v = 0;
        rc = load_config_setting_size(s, k_sizes[i].key, &v, (int64_t)k_sizes[i].default_val);
        if (rc == 0)
            cfg->*k_sizes[i].field = (size_t)v;
    }
    if (rc != 0) {
        LOG_AT(ERR_level, "%s: failed to load config, rc=%d\n", "tsan_load_config", rc);
        return rc;
    }

    // The "track" setting only unlocks the flags; they stand next to it, not inside.
    if (config_setting_get_member(s, "track") == nullptr)
        return 0;
    cfg->trk.sdt_ignore = group_bool(s, "sdt_ignore");
    cfg->trk.misc_ignore = group_bool(s, "misc_ignore");
    cfg->trk.pdts_update = group_bool(s, "pdts_update");
    cfg->trk.pat_pmt_pkt = group_bool(s, "pat_pmt_pkt");
    cfg->trk.pcr_update = group_bool(s, "pcr_update");
    return 0;
}

void tsan_dump_config(FILE* fp, const char* title, const tsan_config* cfg)
{
    fprintf(fp, "%s: %s\n", title, cfg->is_enabled ? "" : "disabled");
    if (!cfg->is_enabled)
        return;
    fprintf(fp, "\tsource:                [%s]\n", cfg->source);
    fprintf(fp, "\tskipped packets:       %zu\n", cfg->max_skip_pkts);
    if (cfg->max_pdts_delta != 0)
        fprintf(fp, "\tPTS/DTS delta:         %zu (ms)\n", cfg->max_pdts_delta);
    if (cfg->max_pcr_delta != 0)
        fprintf(fp, "\tPCR delta:             %zu (ms)\n", cfg->max_pcr_delta);
    if (cfg->pcr_freq_ms != 0)
        fprintf(fp, "\tPCR frequency:         %zu (ms)\n", cfg->pcr_freq_ms);
    if (cfg->dump_stats_period != 0)
        fprintf(fp, "\tdump stats every:      %zu (sec)\n", cfg->dump_stats_period);
    fprintf(fp, "\tT:sdt_ignore:          %s\n", yes_no(cfg->trk.sdt_ignore));
    fprintf(fp, "\tT:misc_ignore:         %s\n", yes_no(cfg->trk.misc_ignore));
    fprintf(fp, "\tT:pdts_update:         %s\n", yes_no(cfg->trk.pdts_update));
    fprintf(fp, "\tT:pat_pmt_pkt:         %s\n", yes_no(cfg->trk.pat_pmt_pkt));
    fprintf(fp, "\tT:pcr_update:          %s\n", yes_no(cfg->trk.pcr_update));
    fprintf(fp, "\taccess-log-alerts:     %s\n", cfg->access_log_alerts ? "ON" : "off");
}
