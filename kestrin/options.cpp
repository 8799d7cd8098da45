// The command line, in two passes around the loading of the configuration file.
#include <getopt.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "kst.h"
#include "log.h"
#include "meta.h"
#include "strops.h"
#include "util.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

constexpr const char k_short_opts[] = "qTh?VHl:a:L:i:E:t:m:C:S:k:A:N:";

const option k_long_opts[] = {
    {"source", required_argument, nullptr, 'i'},
    {"cachesz", required_argument, nullptr, 'E'},
    {"tail", required_argument, nullptr, 't'},
    {"mcastif", required_argument, nullptr, 'm'},
    {"srctag", required_argument, nullptr, 'S'},
    {"track", required_argument, nullptr, 'k'},
    {"analyze", required_argument, nullptr, 'A'},
    {"nid", required_argument, nullptr, 'N'},
    {"quiet", no_argument, nullptr, 'q'},
    {"http10", no_argument, nullptr, 'H'},
    {"help", no_argument, nullptr, 'h'},
    {"options", no_argument, nullptr, '?'},
    {"version", no_argument, nullptr, 'V'},
    {"term", no_argument, nullptr, 'T'},
    {"config", required_argument, nullptr, 'C'},
    {"logfile", required_argument, nullptr, 'l'},
    {"alertlog", required_argument, nullptr, 'a'},
    {"level", required_argument, nullptr, 'L'},
    {nullptr, 0, nullptr, 0},
};

// Copies at most size-1 characters and always terminates.
void copy_cut(char* dst, size_t size, const char* src)
{
    strncpy(dst, src, size - 1);
    dst[size - 1] = '\0';
}

// What decides how the rest is loaded: the instance number, the file, quiet,
// version, help. Gives the path of -C, or the one it was handed.
const char* first_pass(int argc, char* const argv[], const char* cfg_path)
{
    int c;
    while ((c = getopt_long(argc, argv, k_short_opts, k_long_opts, nullptr)) != -1) {
        switch (c) {
        case 'N':
            g_cfg.instance_num = (unsigned)atoi(optarg);
            break;
        case 'q':
            g_cfg.rt.quiet = true;
            break;
        case 'C':
            cfg_path = optarg;
            break;
        case 'V':
            fprintf(stderr, "%s\n", get_app_info(g_app_name, nullptr));
            exit(1);
        case 'h':
        case '?':
            usage();
        default:
            break;
        }
    }
    return cfg_path;
}

void set_log_path(char* dst, const char* arg, const char* what)
{
    const size_t len = strlen(arg);
    if (len >= FILE_PATH_MAX) {
        fprintf(stderr, "%s path is too long (%ld bytes), max=%ld bytes.\n", what, (long)len, (long)FILE_PATH_MAX);
        exit(1);
    }
    copy_cut(dst, FILE_PATH_MAX, arg);
    // With instance 0 a "{N}" from the command line stays as written.
    if (g_cfg.instance_num != 0)
        replace_ul_macro(dst, FILE_PATH_MAX, "{N}", g_cfg.instance_num);
}

// Everything else, in command-line order; the last of several same options wins.
void second_pass(int argc, char* const argv[])
{
    int c;
    while ((c = getopt_long(argc, argv, k_short_opts, k_long_opts, nullptr)) != -1) {
        switch (c) {
        case 'i':
            copy_cut(g_cfg.src_url, sizeof(g_cfg.src_url), optarg);
            break;
        case 'l':
            set_log_path(g_cfg.log.path, optarg, "Log");
            break;
        case 'a':
            set_log_path(g_cfg.alert_log.path, optarg, "Alert log");
            break;
        case 'L':
            if (match_log_level(optarg, &g_cfg.log.level) != 0) {
                fprintf(stderr, "Invalid log level: %s\n", optarg);
                exit(1);
            }
            break;
        case 'E': {
            const long mb = atol(optarg);
            if (mb < 1 || mb >= (long)MAX_CACHESZ_MB) {
                fprintf(stderr, "Invalid cache size=%s (0..%d)\n", optarg, (int)MAX_CACHESZ_MB);
                exit(1);
            }
            g_cfg.cache_sz_mb = (size_t)mb;
            break;
        }
        case 't':
            if (get_tail_params(optarg) != 0)
                exit(1);
            break;
        case 'S':
            copy_cut(g_cfg.tsa.source, sizeof(g_cfg.tsa.source), optarg);
            break;
        case 'm':
            copy_cut(g_cfg.mcast_ifc, sizeof(g_cfg.mcast_ifc), optarg);
            break;
        case 'k':
            if (xtrack_opt(optarg) != 0)
                exit(1);
            break;
        case 'A':
            if (analyzer_opt(optarg) != 0)
                exit(1);
            break;
        case 'H':
            g_cfg.use_http10_get = true;
            break;
        case 'T':
            g_cfg.rt.non_daemon = true;
            break;
        // Listed in the usage, absent from the option tables: getopt_long
        // refuses them in the first pass, so these are never reached.
        case 'R': {
            const long n = atol(optarg);
            if (n <= 0) {
                fprintf(stderr, "Invalid -R value: %s\n", optarg);
                exit(1);
            }
            g_cfg.min_read_bytes = (size_t)n;
            break;
        }
        case 'D':
            copy_cut(g_cfg.snap_dir, sizeof(g_cfg.snap_dir), optarg);
            break;
        case 'x':
            copy_cut(g_cfg.snap_pfx, sizeof(g_cfg.snap_pfx), optarg);
            break;
        case 'N':
        case 'q':
        case 'C':
            break;
        default:
            fprintf(stderr, "Unknown option: %c\n", c);
            exit(1);
        }
    }
}

void validate(const char* argv0)
{
    if (g_cfg.src_url[0] == '\0') {
        fprintf(stderr, "Source URL must be specified, run %s --help for options\n", argv0);
        exit(1);
    }
    if (g_cfg.tsa.is_enabled && g_cfg.tsa.source[0] == '\0') {
        fprintf(stderr, "Source tag (-S) must be specified, run %s --help for options\n", argv0);
        exit(1);
    }
    if (g_cfg.cache_sz_mb == 0 || g_cfg.tail_sz_mb == 0) {
        fprintf(stderr, "Cache and tail sizes must be specified, run %s --help for options\n", argv0);
        exit(1);
    }
    if (g_cfg.min_read_bytes == 0)
        g_cfg.min_read_bytes = D_MINREAD_BYTES;
    if (g_cfg.snap_dir[0] == '\0')
        strcpy(g_cfg.snap_dir, ".");
    if (g_cfg.snap_pfx[0] == '\0')
        strcpy(g_cfg.snap_pfx, "snap");

    const size_t max_reserve = ring_bytes(g_cfg) / 4;
    if (g_cfg.min_read_bytes < MIN_MINREAD_BYTES || g_cfg.min_read_bytes > max_reserve) {
        // The arguments stand in this odd order on purpose: value and bound read exchanged.
        fprintf(stderr, "-R value (%d) should be >= %zu and less than %zu\n", (int)MIN_MINREAD_BYTES,
                g_cfg.min_read_bytes, max_reserve);
        exit(1);
    }
}

}  // namespace

int get_tail_params(const char* param)
{
    char* copy = strdup(param);
    if (copy == nullptr)
        return -ENOMEM;
    char* colon = strchr(copy, ':');
    if (colon == nullptr) {
        fprintf(stderr, "Missing colon in -t value: %s\n", param);
        free(copy);
        return -EINVAL;
    }
    *colon = '\0';
    long sz_mb = atol(copy);
    long tm_ms = atol(colon + 1);
    free(copy);
    // An empty or negative size asks for as much as allowed.
    if (sz_mb <= 0)
        sz_mb = (long)MAX_TAIL_MB;
    if (sz_mb > (long)MAX_TAIL_MB) {
        fprintf(stderr, "Cache size out of range: %ld (1..%d)\n", sz_mb, (int)MAX_TAIL_MB);
        return -ERANGE;
    }
    if (tm_ms < 0)
        tm_ms = 0;
    g_cfg.tail_sz_mb = (size_t)sz_mb;
    g_cfg.tail_tm_ms = (size_t)tm_ms;
    return 0;
}

int xtrack_opt(const char* optstr)
{
    tracking_opt& trk = g_cfg.tsa.trk;
    trk = tracking_opt{};
    if (strcasecmp(optstr, "all") == 0) {
        trk = tracking_opt{true, true, true, true, true};
        return 0;
    }
    // Plain substrings, case-sensitive; no separator is parsed and the rest is ignored.
    trk.sdt_ignore = strstr(optstr, "sdt_i") != nullptr;
    trk.pdts_update = strstr(optstr, "pdts_u") != nullptr;
    trk.pcr_update = strstr(optstr, "pcr_u") != nullptr;
    trk.pat_pmt_pkt = strstr(optstr, "pat_pmt") != nullptr;
    trk.misc_ignore = strstr(optstr, "misc_i") != nullptr;
    return 0;
}

namespace {

// The limits that -A key=value may set.
struct analyzer_key {
    const char* key;
    size_t tsan_config::*field;
};
constexpr analyzer_key k_analyzer_keys[] = {
    {"skipped_pkts", &tsan_config::max_skip_pkts},
    {"pdts_delta", &tsan_config::max_pdts_delta},
    {"pcr_delta", &tsan_config::max_pcr_delta},
    {"pcr_freq", &tsan_config::pcr_freq_ms},
};

// A switch word, or key=value with its value set; false with the reason logged.
bool apply_analyzer_opt(char* copy, const char* optstr, long* shown)
{
    *shown = 0;
    if (strcasecmp(copy, "on") == 0 || strcasecmp(copy, "enable") == 0) {
        g_cfg.tsa.is_enabled = true;
        return true;
    }
    if (strcasecmp(copy, "off") == 0 || strcasecmp(copy, "disable") == 0) {
        g_cfg.tsa.is_enabled = false;
        return true;
    }
    char* eq = strchr(copy, '=');
    if (eq == nullptr) {
        LOG_AT(ERR_level, "%s: invalid option string format: %s\n", "analyzer_opt", optstr);
        return false;
    }
    *eq = '\0';
    *shown = atol(eq + 1);
    if (*shown < 0) {
        LOG_AT(ERR_level, "%s: invalid parameter value: %s/%ld\n", "analyzer_opt", optstr, *shown);
        return false;
    }
    // An unknown key changes nothing and is not refused.
    for (const auto& k : k_analyzer_keys)
        if (strcmp(copy, k.key) == 0)
            g_cfg.tsa.*k.field = (size_t)*shown;
    return true;
}

}  // namespace

int analyzer_opt(const char* optstr)
{
    char* copy = strdup(optstr);
    if (copy == nullptr) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: strdup() ERROR(%d): %s\n", "analyzer_opt", err, strerror(err));
        return err;
    }
    long shown = 0;
    const bool ok = apply_analyzer_opt(copy, optstr, &shown);
    if (ok)
        LOG_AT(DEBUG_level, "%s: %s=%ld OK\n", "analyzer_opt", copy, shown);
    free(copy);
    return ok ? 0 : 22;
}

int setup_config(int argc, char* const argv[])
{
    glog_init(g_app_name);
    log_default(&g_log, stderr);
    g_mod_ll[LLMOD_DEFAULT] = DEBUG_level;
    init_ksti_config(&g_cfg);
    log_default(&g_log, stderr);
    log_default(&g_access_log, stdout);

    n64_tag group{};
    memcpy(group.sym8, "KSTI", 4);
    log_set_group(&g_log, group.num64);

    const char* cfg_path = first_pass(argc, argv, pick_first_file(g_cfgloc, g_cfgloc_count));
    // No configuration file at all is no error: the defaults stand and nothing is reloaded.
    if (cfg_path != nullptr) {
        LOG_AT(DEBUG_level, "Using config at [%s]\n", cfg_path);
        if (load_ksti_config(cfg_path, &g_cfg, false) != 0)
            exit(1);
        (void)chk_file_updated(g_cfg.config_path, &g_ctx.config_mtime);
    }
    reset_getopt_state();
    log_timefmt(&g_log, (uint32_t)g_cfg.log.timefmt);

    // Only the super-user can become a daemon.
    if (geteuid() != 0)
        g_cfg.rt.non_daemon = true;

    second_pass(argc, argv);
    validate(argv[0]);

    g_mod_ll[LLMOD_DEFAULT] = g_cfg.log.level;
    if (g_sysw_debug != nullptr && strcmp(g_sysw_debug, "1") == 0)
        g_mod_ll[LLMOD_SYSWRAP] = DEBUG_level;
    return 0;
}

void usage()
{
    fprintf(stderr, "%s\n", get_app_info(g_app_name, nullptr));
    fprintf(stderr, "Usage: %s -i {source} OPTIONS \n\n", g_app_name);
    static const char* const lines[] = {
        "Parameters:\n",
        "  -i|--source   {URL}         = source stream URL\n",
        "  -S|--srctag   {tag}         = source tag to use in analyzer\n",
        "Options:\n",
        "  -N|--nid      {num}         = numeric ID (>=0) for the source [0]\n",
        "  -C|--config   {path}        = config file\n",
        "  -l|--logfile  {path}        = log file\n",
        "  -a|--alertlog {path}        = alert log file\n",
        "  -L|--level    {level}       = log level: crit|err|norm|warn|info|debug [info]\n",
        "  -E|--cachesz  {mb}          = cache size in Mb [8]\n",
        "  -t|--tail     {mb}:{ms}     = tail size/time in Mb/ms [2:500]\n",
        "  -m|--mcastif  {name}        = multicast interface name [all]\n",
        "  -R|--minread  {nbytes}      = number of bytes to be vacant [4096]\n",
        "  -D|--snapdir  {directory}   = directory for snapshot files [.]\n",
        "  -x|--snapfx   {prefix}      = prefix for snapshot files [snap]\n",
        "  -k|--track    {o1}:{o2}..   = specify tracking option(s) []\n",
        "  -A|--analyze  {param}=val   = specify analyzer option/setting\n",
        "  -H|--http10                 = use HTTP/1.0 to avoid chunked output\n",
        "  -q|--quiet                  = send no output to terminal\n",
        "  -T|--term                   = run with output to screen/TTY\n",
        "  -V|--version                = output application's version\n",
        "  -h|?|--help                 = output this option guide\n\n",
    };
    for (const char* line : lines)
        fputs(line, stderr);
    dump_build_info(stderr);
    fprintf(stderr, "%s %s\n\n", g_app_name, "is part of Morvane, a family of stream tools.");
    exit(1);
}
