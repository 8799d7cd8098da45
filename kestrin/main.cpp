// Entry: from the command line to the capture loop and back to an exit code.
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "kst.h"
#include "log.h"
#include "meta.h"
#include "util.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

void exit_on_sig(int signo)
{
    sig_frame sf;
    sigctx_enter(&sf);
    g_quit = 1;
    if (signo == SIGINT || signo == SIGTERM)
        g_goodbye = 1;
    LOG_AT(NORM_level, "Received QUIT-SIG(%d), will exit now.\n", signo);
    sigctx_leave(&sf);
}

// Opens a log on a file, or on a command when the path starts with '|'.
int open_log(log_ctx* log, const char* path, uint32_t flags)
{
    return (path[0] == '|') ? log_popen(log, path + 1) : log_open_ex(log, path, flags);
}

// Only the super-user gets here. The directory of the start is kept, so that
// relative paths mean the same to the daemon where its user may enter it.
int become_daemon(char* cwd, size_t cwdlen)
{
    if (g_cfg.log.path[0] == '\0') {
        LOG_AT(ERR_level, "Logfile must be specified to run as daemon\n");
        return 1;
    }
    if (getcwd(cwd, cwdlen) == nullptr) {
        // The line tells error 0 whatever the failure was.
        LOG_AT(ERR_level, "getcwd ERROR(%d) : %s\n", 0, strerror(0));
        return -1;
    }
    if (const int rc = daemonize(); rc != 0) {
        log_default(&g_log, stderr);
        LOG_AT(ERR_level, "Failed to make the process a daemon, quitting.\n");
        return rc;
    }
    if (g_cfg.rt.user[0] != '\0') {
        if (const int rc = run_as_user(g_cfg.rt.user); rc != 0)
            return rc;
    }
    if (geteuid() != 0)
        return goto_runtime_dir(cwd);
    return 0;
}

int runtime_setup()
{
    char cwd[256] = {};

    (void)get_app_tag(g_app_name);
    log_default(&g_log, stderr);
    log_default(&g_access_log, stdout);
    log_set_pid(&g_log, getpid());
    (void)set_unlimited_core(nullptr);

    if (handle_quit_signals(exit_on_sig) != 0 || handle_sig(SIGUSR2, snapshot_on_sig) != 0)
        return -1;
    // Deliberately signal(): the alarm keeps the platform's restart behaviour.
    (void)signal(SIGALRM, catch_alarm);

    int rc = 0;
    if (!g_cfg.rt.non_daemon)
        rc = become_daemon(cwd, sizeof(cwd));
    if (rc == 0 && g_cfg.log.path[0] != '\0') {
        rc = open_log(&g_log, g_cfg.log.path, 0);
        if (rc == 0) {
            apply_log_config(&g_log, &g_cfg.log);
            log_set_pid(&g_log, getpid());
        }
    }
    if (rc == 0 && g_cfg.alert_log.path[0] != '\0') {
        rc = open_log(&g_access_log, g_cfg.alert_log.path, F_APPEND_OLD);
        if (rc == 0) {
            apply_log_config(&g_access_log, &g_cfg.alert_log);
            log_set_pid(&g_access_log, getpid());
        }
    }

    if (rc != 0) {
        LOG_AT(ERR_level, "%s: FAILED (rc=%d)\n", "runtime_setup", rc);
        return rc;
    }
    flight_recorder_start();
    LOG_AT(INFO_level, "Runtime pid=%ld uid/gid = %ld/%ld running in [%s]\n", (long)getpid(), (long)geteuid(),
           (long)getegid(), cwd);
    LOG_AT(DEBUG_level, "%s: OK\n", "runtime_setup");
    return 0;
}

}  // namespace

int main(int argc, char* argv[])
{
    g_sysw_debug = getenv("SYSW_DEBUG");
    if (argc <= 1)
        usage();

    setup_config(argc, argv);

    int rc = runtime_setup();
    if (rc == 0) {
        dump_config(log_fp(&g_log), &g_cfg);
        if (!g_cfg.rt.quiet && g_cfg.rt.non_daemon && g_cfg.log.path[0] != '\0') {
            log_mirror(&g_log, stderr);
            dump_config(stderr, &g_cfg);
        }
        LOG_AT(NORM_level, "%s STARTING. PID=%ld\n", get_app_info(g_app_name, nullptr), (long)getpid());

        rc = init_ksti_ctx();
        if (rc == 0) {
            g_ctx.is_ready = true;
            rc = run_app();
        }
    }

    app_shutdown();
    rc = abs(rc);
    LOG_AT(NORM_level, "%s EXIT(%d). PID=%ld\n", get_app_info(g_app_name, nullptr), rc, (long)getpid());
    flight_recorder_stop();
    log_close(&g_log);
    log_close(&g_access_log);
    return rc;
}
