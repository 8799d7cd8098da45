// Process facilities: becoming a daemon, changing identity and directory,
// limits, nice value, processor binding, output redirection. Each logs its
// own failure and leaves the policy to the caller.
#include <fcntl.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "platform.h"
#include "syswrap.h"
#include "util.h"

LOG_UNIT(LLMOD_DEFAULT);

int daemonize()
{
    static const char* const fn = "daemonize";
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid > 0)
        exit(0);

    if (setsid() < 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: failed at %s, ERROR(%d): %s\n", fn, "setsid", err, strerror(err));
        return -1;
    }
    if (const int rc = chdir("/"); rc != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: failed at %s, ERROR(%d): %s\n", fn, "chdir", err, strerror(err));
        return rc;
    }
    umask(0);
    // A log on the standard descriptors would go with them.
    FILE* fp = log_fp(&g_log);
    if (fp == nullptr || fileno(fp) < 3)
        log_default(&g_log, stderr);
    close(0);
    close(1);

    // The second fork: the daemon is no session leader and can never get a
    // controlling terminal back.
    pid = fork();
    if (pid < 0)
        return -1;
    if (pid > 0)
        exit(0);
    return 0;
}

int run_as_user_id(uid_t uid, gid_t gid)
{
    // The group first: once the user has changed, the group can't.
    if (setgid(gid) != 0)
        return -1;
    if (setuid(uid) != 0)
        return -1;
    return 0;
}

int run_as_user(const char* user)
{
    errno = 0;
    const passwd* pw = getpwnam(user);
    if (pw == nullptr) {
        const int err = errno;
        if (err == 0)
            LOG_AT(ERR_level, "%s: getpwnam: user %s not found\n", "run_as_user", user);
        else
            LOG_AT(ERR_level, "%s: getpwnam(%s): %s\n", "run_as_user", user, strerror(err));
        return -1;
    }
    return run_as_user_id(pw->pw_uid, pw->pw_gid);
}

int goto_runtime_dir(const char* saved)
{
    if (saved != nullptr) {
        if (chdir(saved) == 0)
            return 0;
        const int err = errno;
        // Denied to the new identity: its home directory will do.
        if (err != EPERM) {
            LOG_AT(ERR_level, "chdir(%s) ERROR(%d): %s\n", saved, err, strerror(err));
            return -1;
        }
    }
    const uid_t uid = geteuid();
    errno = 0;
    const passwd* pw = getpwuid(uid);
    if (pw == nullptr) {
        const int err = errno;
        LOG_AT(ERR_level, "getpwuid(%ld) ERROR(%d): %s\n", (long)uid, err, strerror(err));
        return -1;
    }
    if (chdir(pw->pw_dir) == 0)
        return 0;
    const int err = errno;
    LOG_AT(ERR_level, "chdir(%s) ERROR(%d): %s\n", pw->pw_dir, err, strerror(err));
    return -1;
}

int set_limit(int lid, rlim_t new_lim, const char* tag)
{
    static const char* const fn = "set_limit";
    rlimit lim{};
    if (getrlimit(lid, &lim) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: getrlimit(%d) ERROR(%d): %s\n", fn, lid, err, strerror(err));
        return -1;
    }
    lim.rlim_cur = new_lim;  // the hard limit stays
    if (setrlimit(lid, &lim) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: setrlimit(%d, %lu) ERROR(%d): %s\n", fn, lid, (unsigned long)new_lim, err,
               strerror(err));
        return -1;
    }
    LOG_AT(INFO_level, "%s(%s/%d): %lu bytes\n", fn, tag, lid, (unsigned long)new_lim);
    return 0;
}

int set_rss_limit(rlim_t new_lim)
{
    return set_limit(RLIMIT_RSS, new_lim, "rss");
}

int set_vmem_limit(rlim_t new_lim)
{
    return set_limit(RLIMIT_AS, new_lim, "vmem");
}

int set_mem_limits(rlim_t rss, rlim_t vmem)
{
    if (rss != 0) {
        if (const int rc = set_rss_limit(rss); rc != 0)
            return rc;
    }
    return (vmem != 0) ? set_vmem_limit(vmem) : 0;
}

int set_nice(int niceval)
{
    errno = 0;
    // nice gives the new value: any value but 0 reads as a failure here.
    const int rc = nice(niceval);
    if (rc != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "nice(%d) ERROR(%d): %s\n", niceval, err, strerror(err));
        errno = err;
    } else {
        LOG_AT(INFO_level, "nice value adjusted by %d.\n", niceval);
    }
    return rc;
}

int pin2cpu(int cpunum)
{
    return plat_pin_to_cpu(cpunum);
}

int redirect_output(const char* dst_path)
{
    static const char* const fn = "redirect_output";
    const int fd = W_open(fn, dst_path, O_WRONLY, 0);
    if (fd < 0)
        return -1;
    int rc = 0;
    if (dup2(fd, 1) < 0)
        rc = REDIR_STDOUT;
    else if (dup2(fd, 2) < 0)
        rc = REDIR_STDERR;
    const int err = errno;
    close(fd);
    errno = err;
    return rc;
}
