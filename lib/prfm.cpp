// The stopwatch. A measurement that can't be made means a broken system:
// the process stops rather than report figures it didn't take.
#include "prfm.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace {

constexpr long NS_IN_SEC = 1000000000L;
constexpr long US_IN_SEC = 1000000L;

void capture(const prfm* r, prfm_metrics* m)
{
    if ((r->flags & prfm_TIME) && clock_gettime(CLOCK_MONOTONIC, &m->tm) != 0) {
        perror("clock_gettime");
        abort();
    }
    if ((r->flags & prfm_RUSAGE) && getrusage(r->who, &m->ru) != 0) {
        perror("getrusage");
        abort();
    }
}

void clear_selected(prfm* r)
{
    if (r->flags & prfm_TIME) {
        r->start.tm = {};
        r->accum.tm = {};
    }
    if (r->flags & prfm_RUSAGE) {
        memset(&r->start.ru, 0, sizeof(r->start.ru));
        memset(&r->accum.ru, 0, sizeof(r->accum.ru));
    }
}

// acc += curr - start, with a borrow and a carry at one second of `unit`.
void add_interval(long* acc_s, long* acc_f, long cur_s, long cur_f, long st_s, long st_f, long unit)
{
    long s = cur_s - st_s;
    long f = cur_f - st_f;
    if (f < 0) {
        f += unit;
        --s;
    }
    *acc_s += s;
    *acc_f += f;
    if (*acc_f >= unit) {
        *acc_f -= unit;
        ++*acc_s;
    }
}

void add_tv(timeval* acc, const timeval& cur, const timeval& st)
{
    long s = acc->tv_sec, f = acc->tv_usec;
    add_interval(&s, &f, cur.tv_sec, cur.tv_usec, st.tv_sec, st.tv_usec, US_IN_SEC);
    acc->tv_sec = s;
    acc->tv_usec = f;
}

}  // namespace

void prfm_xinit(prfm* r, int32_t flags, int rusage_who)
{
    r->flags = flags;
    clear_selected(r);
    r->who = rusage_who;
}

void prfm_destroy(prfm* r)
{
    clear_selected(r);
    r->flags = 0;
}

void prfm_start(prfm* r)
{
    capture(r, &r->start);
}

void prfm_stop(prfm* r)
{
    prfm_metrics curr;
    capture(r, &curr);
    prfm_stop_with(r, &curr);
}

void prfm_stop_with(prfm* r, const prfm_metrics* curr)
{
    if (r->flags & prfm_TIME) {
        long s = r->accum.tm.tv_sec, f = r->accum.tm.tv_nsec;
        add_interval(&s, &f, curr->tm.tv_sec, curr->tm.tv_nsec, r->start.tm.tv_sec, r->start.tm.tv_nsec,
                     NS_IN_SEC);
        r->accum.tm.tv_sec = s;
        r->accum.tm.tv_nsec = f;
    }
    if (r->flags & prfm_RUSAGE) {
        rusage& a = r->accum.ru;
        const rusage& c = curr->ru;
        const rusage& s = r->start.ru;
        add_tv(&a.ru_utime, c.ru_utime, s.ru_utime);
        add_tv(&a.ru_stime, c.ru_stime, s.ru_stime);
        // Plain differences: maxrss sums its growth in the intervals, it is no peak.
        a.ru_maxrss += c.ru_maxrss - s.ru_maxrss;
        a.ru_ixrss += c.ru_ixrss - s.ru_ixrss;
        a.ru_idrss += c.ru_idrss - s.ru_idrss;
        a.ru_isrss += c.ru_isrss - s.ru_isrss;
        a.ru_minflt += c.ru_minflt - s.ru_minflt;
        a.ru_majflt += c.ru_majflt - s.ru_majflt;
        a.ru_nswap += c.ru_nswap - s.ru_nswap;
        a.ru_inblock += c.ru_inblock - s.ru_inblock;
        a.ru_oublock += c.ru_oublock - s.ru_oublock;
        a.ru_msgsnd += c.ru_msgsnd - s.ru_msgsnd;
        a.ru_msgrcv += c.ru_msgrcv - s.ru_msgrcv;
        a.ru_nsignals += c.ru_nsignals - s.ru_nsignals;
        a.ru_nvcsw += c.ru_nvcsw - s.ru_nvcsw;
        a.ru_nivcsw += c.ru_nivcsw - s.ru_nivcsw;
    }
}

void prfm_probe(prfm* r)
{
    capture(r, &r->accum);
    r->accum.tm = {};
}

void prfm_dump(FILE* fp, const prfm* r, const char* fmt, ...)
{
    if (fmt != nullptr) {
        va_list ap;
        va_start(ap, fmt);
        vfprintf(fp, fmt, ap);
        va_end(ap);
    }
    if (r->flags & prfm_TIME)
        fprintf(fp, "== time:\t%ld.%09ld\n", (long)r->accum.tm.tv_sec, (long)r->accum.tm.tv_nsec);
    if (r->flags & prfm_RUSAGE) {
        const rusage& u = r->accum.ru;
        fprintf(fp, "== resource usage:\n");
        fprintf(fp, "  user_time: %ld.%06ld, sys_time: %ld.%06ld\n", (long)u.ru_utime.tv_sec,
                (long)u.ru_utime.tv_usec, (long)u.ru_stime.tv_sec, (long)u.ru_stime.tv_usec);
        fprintf(fp, "  maxrss: %ld, ixrss: %ld, idrss: %ld, isrss: %ld\n", u.ru_maxrss, u.ru_ixrss, u.ru_idrss,
                u.ru_isrss);
        fprintf(fp, "  minflt: %ld, majflt: %ld, nswap=%ld\n", u.ru_minflt, u.ru_majflt, u.ru_nswap);
        fprintf(fp, "  inblock: %ld, outblock: %ld, msgsnd: %ld, msgrcv: %ld\n", u.ru_inblock, u.ru_oublock,
                u.ru_msgsnd, u.ru_msgrcv);
        fprintf(fp, "  nsignals: %ld, nvcsw: %ld, nivcsw: %ld\n", u.ru_nsignals, u.ru_nvcsw, u.ru_nivcsw);
        fprintf(fp, "==\n");
    }
}
