// The snapshot trigger: SIGUSR2 to an instance's kst, then a wait on the
// loop until the file it writes is whole, answered by a redirect to it.
// Before any signal the target is proven to be a running kst of that
// instance: a crashed instance's pid may have gone to another program,
// which SIGUSR2's default action would kill.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "kstweb.h"
#include "log.h"
#include "timeop.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

struct pending {
    unsigned nid;
    pid_t pid;
    kw_request* rq;  // null once the client has gone
    timespec since;
    std::set<std::string> before;  // the instance's files when it was signalled
};

std::vector<pending> g_pending;
timespec g_last_poll;

std::set<std::string> files_of(pid_t pid)
{
    std::set<std::string> out;
    for (const kw_snap& s : kw_list_snapshots()) {
        size_t pfx = 0;
        long p = 0;
        if (kw_snap_parse(s.name.c_str(), &pfx, &p) && p == (long)pid)
            out.insert(s.name);
    }
    return out;
}

// The instance's recorder tells when a file is whole: kst logs
// "take_snapshot: write N bytes to [PATH]" once its one write is done. The
// size it gives must also be the file's.
bool is_whole(const pending& pd, const kw_snap& s)
{
    kw_instance in;
    kw_instance_scan(pd.nid, &in);
    if (in.found != 1 || in.pid != pd.pid)
        return false;
    char tmpl[] = "/tmp/kst-web-rec-XXXXXX";
    const int fd = mkstemp(tmpl);
    if (fd < 0)
        return false;
    unlink(tmpl);
    std::string text;
    if (kw_instance_text(&in, fd) == 0) {
        const off_t n = lseek(fd, 0, SEEK_END);
        text.resize((size_t)(n > 0 ? n : 0));
        if (pread(fd, text.data(), text.size(), 0) != (ssize_t)text.size())
            text.clear();
    }
    close(fd);
    const std::string tail = "/" + s.name + "]";
    for (size_t at = text.find("take_snapshot: write "); at != std::string::npos;
         at = text.find("take_snapshot: write ", at + 1)) {
        const size_t eol = text.find('\n', at);
        const std::string line = text.substr(at, eol == std::string::npos ? std::string::npos : eol - at);
        if (line.size() < tail.size() || line.compare(line.size() - tail.size(), tail.size(), tail) != 0)
            continue;
        const long long bytes = atoll(line.c_str() + strlen("take_snapshot: write "));
        return bytes == (long long)s.size;
    }
    return false;
}

void finish(pending& pd, const char* name)
{
    if (pd.rq == nullptr)
        return;
    if (name == nullptr) {
        kw_answer(pd.rq, g_resp_gwtmo);
    } else {
        const std::string loc = std::string("/snapshots/") + name;
        http_response r = g_resp_tmoved;
        r.location = loc.c_str();
        kw_answer(pd.rq, r);
    }
    pd.rq = nullptr;
}

void refuse(kw_request* rq, http_response r)
{
    ++g_kw.triggers[KW_TRG_REFUSED];
    kw_answer(rq, r);
}

// A refusal with a status that has no canned answer; the connection closes.
void refuse_with(kw_request* rq, int code, const char* reason)
{
    http_response r = g_resp_none;
    r.code = code;
    r.reason = reason;
    r.connection = "close";
    refuse(rq, r);
}

}  // namespace

void kw_trigger(kw_request* rq, unsigned nid)
{
    if (!kw_instance_configured(nid)) {
        LOG_AT(WARN_level, "%s: instance %u refused: not one of the configured instances\n", "kw_trigger", nid);
        refuse(rq, g_resp_nfound);
        return;
    }
    kw_instance in;
    kw_instance_scan(nid, &in);
    if (in.found == 0) {
        LOG_AT(WARN_level, "%s: instance %u refused: no flight recorder %s\n", "kw_trigger", nid, in.ring);
        refuse(rq, g_resp_nfound);
        return;
    }
    if (in.found < 0) {
        LOG_AT(WARN_level, "%s: instance %u refused: %s is not a flight-recorder ring: %s\n", "kw_trigger", nid,
               in.ring, in.why);
        refuse(rq, g_resp_bgw);
        return;
    }
    if (strcmp(in.state, "active") != 0) {
        LOG_AT(WARN_level, "%s: instance %u refused: its recorder is %s (pid %d)\n", "kw_trigger", nid, in.state,
               (int)in.pid);
        refuse_with(rq, 410, "Gone");
        return;
    }
    char why[FILE_PATH_MAX * 4];
    if (!kw_is_kst_of(in.pid, nid, why, sizeof(why))) {
        LOG_AT(WARN_level, "%s: instance %u refused: %s\n", "kw_trigger", nid, why);
        refuse(rq, g_resp_denied);
        return;
    }
    for (const pending& pd : g_pending) {
        if (pd.nid == nid) {
            LOG_AT(WARN_level, "%s: instance %u refused: a snapshot is already pending\n", "kw_trigger", nid);
            refuse_with(rq, 409, "Conflict");
            return;
        }
    }
    pending pd{nid, in.pid, rq, {}, files_of(in.pid)};
    set_clk_now(&pd.since, CLOCK_MONOTONIC);
    if (kill(in.pid, SIGUSR2) != 0) {
        LOG_AT(ERR_level, "%s: instance %u: kill(%d, SIGUSR2) ERROR(%d): %s\n", "kw_trigger", nid, (int)in.pid,
               errno, strerror(errno));
        kw_answer(rq, g_resp_err);
        return;
    }
    ++g_kw.triggers[KW_TRG_SENT];
    LOG_AT(NORM_level, "%s: instance %u: SIGUSR2 sent to pid %d\n", "kw_trigger", nid, (int)in.pid);
    rq->waiting = true;
    g_pending.push_back(std::move(pd));
}

// Called once a loop pass; looks at the directory at most every 50 ms.
void kw_trigger_poll()
{
    if (g_pending.empty())
        return;
    const timespec step{0, 50 * 1000 * 1000};
    if (!timed_out(&g_last_poll, &step))
        return;
    set_clk_now(&g_last_poll, CLOCK_MONOTONIC);
    const timespec limit{(time_t)(g_kw.snapshot_tmout_ms / 1000), (long)(g_kw.snapshot_tmout_ms % 1000) * 1000000L};
    const std::vector<kw_snap> all = kw_list_snapshots();
    for (size_t i = 0; i < g_pending.size();) {
        pending& pd = g_pending[i];
        const kw_snap* found = nullptr;
        for (const kw_snap& s : all) {
            size_t pfx = 0;
            long p = 0;
            if (kw_snap_parse(s.name.c_str(), &pfx, &p) && p == (long)pd.pid && pd.before.count(s.name) == 0 &&
                is_whole(pd, s)) {
                found = &s;
                break;
            }
        }
        if (found != nullptr) {
            ++g_kw.triggers[KW_TRG_DONE];
            LOG_AT(NORM_level, "%s: instance %u: snapshot [%s] of %lld bytes\n", "kw_trigger", pd.nid,
                   found->name.c_str(), (long long)found->size);
            finish(pd, found->name.c_str());
        } else if (timed_out(&pd.since, &limit)) {
            ++g_kw.triggers[KW_TRG_TIMEDOUT];
            LOG_AT(WARN_level, "%s: instance %u: no snapshot within %d ms\n", "kw_trigger", pd.nid,
                   g_kw.snapshot_tmout_ms);
            finish(pd, nullptr);
        } else {
            ++i;
            continue;
        }
        g_pending.erase(g_pending.begin() + (long)i);
    }
}

void kw_trigger_forget(const kw_request* rq)
{
    for (pending& pd : g_pending)
        if (pd.rq == rq)
            pd.rq = nullptr;
}

size_t kw_triggers_pending()
{
    return g_pending.size();
}
