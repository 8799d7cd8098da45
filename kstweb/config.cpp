// kst-web's configuration file: the snapshot directory, the log level and
// the listeners' group.
#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "appcfg.h"
#include "config.h"
#include "kstweb.h"
#include "log.h"

LOG_UNIT(LLMOD_DEFAULT);

kw_state g_kw;

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
    st->dirfd = open(st->snap_dir, O_RDONLY | O_DIRECTORY);
    if (st->dirfd < 0) {
        fprintf(stderr, "kst-web: cannot open the snapshot directory [%s]: %s\n", st->snap_dir, strerror(errno));
        return -1;
    }
    return 0;
}

void kw_dump_config(FILE* fp, const kw_state* st)
{
    fprintf(fp, "Snapshots: %s\nLog level: %s\n", st->snap_dir, log_level_str(st->log_level));
    dump_rui_config(fp, &st->rcfg);
}
