// The kst instances of this host, as the configuration names them and as
// their flight recorders show them. A recorder is only ever mapped read-only,
// and only after its two objects proved to be a ring.
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kstweb.h"
#include "lard.h"
#include "lardscan.h"
#include "platform.h"

namespace {

// kst's --nid on a command line: "-N V", "-NV", "--nid V", "--nid=V"; 0
// when absent, as kst takes it. The last one counts, as getopt has it.
long nid_of(const char* args, size_t len)
{
    long nid = 0;
    const char* prev = "";
    for (const char* a = args; a < args + len; a += strlen(a) + 1) {
        if (strcmp(prev, "-N") == 0 || strcmp(prev, "--nid") == 0)
            nid = strtol(a, nullptr, 10);
        else if (strncmp(a, "--nid=", 6) == 0)
            nid = strtol(a + 6, nullptr, 10);
        else if (strncmp(a, "-N", 2) == 0 && a[2] != '\0')
            nid = strtol(a + 2, nullptr, 10);
        prev = a;
    }
    return nid;
}

}  // namespace

bool kw_instance_configured(unsigned nid)
{
    for (size_t i = 0; i < g_kw.ninstances; ++i)
        if (g_kw.instances[i] == nid)
            return true;
    return false;
}

void kw_instance_scan(unsigned nid, kw_instance* in)
{
    *in = kw_instance{};
    in->nid = nid;
    in->state = "none";
    in->age = -1;
    snprintf(in->ring, sizeof(in->ring), "kst.%u", nid);
    bool missing = false;
    if (lard_check_ring(in->ring, &missing, in->why, sizeof(in->why)) != 0) {
        in->found = missing ? 0 : -1;
        return;
    }
    lard_t lh = lard_open(in->ring);
    if (lh == nullptr) {
        in->found = 0;  // gone between the check and the mapping
        return;
    }
    in->found = 1;
    in->pid = lard_owner_pid(lh);
    in->state = lard_state_str(lh);
    in->temp = lard_get_ctemp(lh);
    in->age = lard_age_seconds(lard_get_meta(lh));
    lard_close(lh);
}

int kw_instance_text(const kw_instance* in, int fd)
{
    bool missing = false;
    char why[256];
    if (lard_check_ring(in->ring, &missing, why, sizeof(why)) != 0)
        return -1;
    lard_t lh = lard_open(in->ring);
    if (lh == nullptr)
        return -1;
    const ssize_t rc = lard_snapshot(lh, fd);
    lard_close(lh);
    return rc < 0 ? -1 : 0;
}

bool kw_is_kst_of(pid_t pid, unsigned nid, char* why, size_t whylen)
{
    char exe[FILE_PATH_MAX * 2];
    static char args[8192];
    size_t nargs = 0;
    if (pid < 1 || plat_proc_image(pid, exe, sizeof(exe), args, sizeof(args), &nargs) != 0) {
        snprintf(why, whylen, "pid %d can't be looked at: %s", (int)pid, pid < 1 ? "no pid" : strerror(errno));
        return false;
    }
    if (g_kw.kst_exe[0] == '\0' || strcmp(exe, g_kw.kst_exe) != 0) {
        snprintf(why, whylen, "pid %d runs [%s], not [%s]", (int)pid, exe, g_kw.kst_exe);
        return false;
    }
    const long got = nid_of(args, nargs);
    if (got != (long)nid) {
        snprintf(why, whylen, "pid %d is kst instance %ld, not %u", (int)pid, got, nid);
        return false;
    }
    return true;
}
