// kst-web's configuration file: the snapshot directory, the kst instances
// served and the executable they run, the trigger's time limit, the log
// level and the listeners' group.
#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "appcfg.h"
#include "config.h"
#include "kstweb.h"
#include "log.h"

LOG_UNIT(LLMOD_DEFAULT);

kw_state g_kw;

namespace {

constexpr int D_SNAPSHOT_TMOUT_MS = 10000;
constexpr int D_MAX_REQUESTS = 1000;

int lookup_int(const char* path, int dflt)
{
    int v = dflt;
    return config_lookup_int(&g_libcfg, path, &v) == CONFIG_TRUE ? v : dflt;
}

// The instances are named, never guessed: a ring or a process that the
// list doesn't name is neither shown nor signalled.
int load_instances(const char* path, kw_state* st)
{
    const config_setting_t* s = config_lookup(&g_libcfg, "kst_web.instances");
    if (s == nullptr)
        return 0;
    if (!config_setting_is_array(s) && !config_setting_is_list(s)) {
        fprintf(stderr, "kst-web: [%s] kst_web.instances is a list of instance numbers\n", path);
        return -1;
    }
    const int n = config_setting_length(s);
    if (n > (int)KW_MAX_INSTANCES) {
        fprintf(stderr, "kst-web: [%s] at most %zu instances\n", path, KW_MAX_INSTANCES);
        return -1;
    }
    for (int i = 0; i < n; ++i) {
        const config_setting_t* e = config_setting_get_elem(s, (unsigned)i);
        if (config_setting_type(e) != CONFIG_TYPE_INT || config_setting_get_int(e) < 0) {
            fprintf(stderr, "kst-web: [%s] kst_web.instances[%d] is not an instance number\n", path, i);
            return -1;
        }
        st->instances[st->ninstances++] = (unsigned)config_setting_get_int(e);
    }
    return 0;
}

}  // namespace

int kw_load_config(const char* path, kw_state* st)
{
    *st = kw_state{};
    st->dirfd = -1;
    st->log_level = INFO_level;
    config_init(&g_libcfg);
    if (config_read_file(&g_libcfg, path) != CONFIG_TRUE) {
        fprintf(stderr, "kst-web: [%s] line %d: %s\n", path, config_error_line(&g_libcfg),
                config_error_text(&g_libcfg));
        config_destroy(&g_libcfg);
        return -1;
    }
    int rc = load_config_str("kst_web.snapshot_dir", st->snap_dir, sizeof(st->snap_dir), "/tmp");
    char level[16] = "";
    if (rc == 0)
        rc = load_config_str("kst_web.log_level", level, sizeof(level), "info");
    if (rc == 0 && match_log_level(level, &st->log_level) != 0) {
        fprintf(stderr, "kst-web: unknown log level [%s]\n", level);
        rc = -1;
    }
    char exe[FILE_PATH_MAX] = "";
    if (rc == 0)
        rc = load_config_str("kst_web.kst_binary", exe, sizeof(exe), KW_KST_BINARY);
    if (rc == 0)
        rc = load_instances(path, st);
    st->snapshot_tmout_ms = lookup_int("kst_web.snapshot_timeout_ms", D_SNAPSHOT_TMOUT_MS);
    if (rc == 0 && (st->snapshot_tmout_ms < 100 || st->snapshot_tmout_ms > 600000)) {
        fprintf(stderr, "kst-web: snapshot_timeout_ms=%d is outside 100..600000\n", st->snapshot_tmout_ms);
        rc = -1;
    }
    const int max_rq = lookup_int("kst_web.max_requests", D_MAX_REQUESTS);
    if (rc == 0 && (max_rq < 4 || max_rq > (int)MAX_RUI_QUEUED)) {
        fprintf(stderr, "kst-web: max_requests=%d is outside 4..%zu\n", max_rq, MAX_RUI_QUEUED);
        rc = -1;
    }
    st->max_requests = (size_t)max_rq;
    int probes = 1;
    (void)config_lookup_bool(&g_libcfg, "kst_web.probes", &probes);
    st->probes = probes != 0;
    const config_setting_t* s = config_lookup(&g_libcfg, "kst_web.listeners");
    if (rc == 0 && s == nullptr) {
        fprintf(stderr, "kst-web: [%s] has no group kst_web.listeners\n", path);
        rc = -1;
    }
    if (rc == 0)
        rc = load_rui_config(s, &st->rcfg);
    config_destroy(&g_libcfg);
    if (rc != 0)
        return -1;
    // The executable is compared by its real path, as the system reports a
    // process's executable.
    char real[PATH_MAX];
    if (realpath(exe, real) == nullptr || strlen(real) >= sizeof(st->kst_exe)) {
        if (st->ninstances > 0) {
            fprintf(stderr, "kst-web: kst_binary [%s]: %s\n", exe, strerror(errno ? errno : ENAMETOOLONG));
            return -1;
        }
        real[0] = '\0';  // nothing to signal
    }
    strcpy(st->kst_exe, real);
    st->dirfd = open(st->snap_dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (st->dirfd < 0) {
        fprintf(stderr, "kst-web: cannot open the snapshot directory [%s]: %s\n", st->snap_dir, strerror(errno));
        return -1;
    }
    return 0;
}

void kw_dump_config(FILE* fp, const kw_state* st)
{
    fprintf(fp, "Snapshots: %s\nLog level: %s\nkst: %s\nInstances:", st->snap_dir, log_level_str(st->log_level),
            st->kst_exe[0] ? st->kst_exe : "-");
    for (size_t i = 0; i < st->ninstances; ++i)
        fprintf(fp, " %u", st->instances[i]);
    fprintf(fp, "%s\nSnapshot timeout: %d ms\nMax requests: %zu\nProbes: %s\n", st->ninstances ? "" : " none",
            st->snapshot_tmout_ms, st->max_requests, st->probes ? "on" : "off");
    dump_rui_config(fp, &st->rcfg);
}
