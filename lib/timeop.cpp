// Time comparison and formatting. The functions below the logger write their
// own failures to standard error: they run inside a log call.
#include "timeop.h"

#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// The one circle among the units: the logger stamps its lines with
// mk_timestr and rotates at get_endofday_utime, and three calls here
// (scan_log_time, mk_gmt_date, get_endofday_utime) report their failures in
// the log. It is kept on purpose: what the logger calls here never logs
// (mk_timestr writes its few failures to stderr), so no line is ever made
// while a line is being made.
#include "log.h"
#include "sigsafe.h"
#include "util.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

// Guards the calendar conversion against a handler that logs during a log call.
volatile sig_atomic_t g_tmlock = 0;
// The zone's short name with a blank in front, filled by the first stamp;
// glibc already owns the name "timezone". Marked ready only once whole, so a
// handler never reads half a name.
char g_tzname_cache[16];
volatile sig_atomic_t g_tzname_ready = 0;
// The local zone's distance from UTC in seconds, as the last conversion
// outside a handler found it. A handler can't call localtime_r (it takes
// glibc's zone lock and may read files), so its stamps add this offset to
// UTC; across a change of summer time they follow once the loop has logged.
volatile sig_atomic_t g_gmtoff = 0;

// The event loop's cached monotonic clock, written once per turn; this tool
// runs no event loop, so it stays at zero.
timespec itime;

constexpr long kNsecPerSec = 1000000000L;

bool timed_out_as(const timespec* last_tm, const timespec* tmout, bool in_real_time, const timespec* clknow)
{
    timespec added{last_tm->tv_sec + tmout->tv_sec, last_tm->tv_nsec + tmout->tv_nsec};
    if (added.tv_nsec >= kNsecPerSec) {
        added.tv_sec += 1;
        added.tv_nsec -= kNsecPerSec;
    }
    timespec now;
    if (clknow != nullptr)
        now = *clknow;
    else if (in_real_time)
        set_clk_now(&now, CLOCK_REALTIME);
    else
        now = *rqs_now_ref();

    if (now.tv_sec != added.tv_sec)
        return now.tv_sec > added.tv_sec;
    return now.tv_nsec > added.tv_nsec;
}

}  // namespace

const timespec* rqs_now_ref()
{
    return &itime;
}

timespec* rqs_itime()
{
    return &itime;
}

void set_clk_now(timespec* tms, clockid_t clk_id)
{
    // There is no way to go on without a clock.
    if (clock_gettime(clk_id, tms) != 0) {
        perror("clock_gettime");
        abort();
    }
}

bool timed_out(const timespec* last_tm, const timespec* tmout)
{
    return timed_out_as(last_tm, tmout, false, nullptr);
}

bool timed_out_ext(const timespec* last_tm, const timespec* tmout, const timespec* clknow)
{
    return timed_out_as(last_tm, tmout, false, clknow);
}

bool timed_out_real(const timespec* last_tm, const timespec* tmout)
{
    return timed_out_as(last_tm, tmout, true, nullptr);
}

void calc_timespan(const timespec* from, const timespec* till, timespec* span)
{
    span->tv_sec = till->tv_sec - from->tv_sec;
    span->tv_nsec = till->tv_nsec - from->tv_nsec;
    if (span->tv_nsec < 0) {
        span->tv_sec -= 1;
        span->tv_nsec += kNsecPerSec;
    }
}

bool tspan_timed_out(const tspan* last, const tspan* tmout, const timespec* now, uint32_t ticks_now)
{
    VRX_ASSERT(tmout->mode == last->mode);
    switch (last->mode) {
    case TSPAN_TIMESPEC:
        return timed_out_ext(&last->val.tms, &tmout->val.tms, now);
    case TSPAN_TICKS:
        if (last->val.ticks == 0)
            return true;
        if (last->val.ticks > ticks_now)  // the counter wrapped
            return (uint32_t)(~last->val.ticks + ticks_now) >= tmout->val.ticks;
        return (uint32_t)(last->val.ticks + tmout->val.ticks) <= ticks_now;
    default:
        VRX_ASSERT(0);
        return false;
    }
}

void set_tspan(tspan* spn, const timespec* tm, uint32_t ticks)
{
    switch (spn->mode) {
    case TSPAN_TICKS:
        spn->val.ticks = ticks;
        break;
    case TSPAN_TIMESPEC:
        spn->val.tms = *tm;
        break;
    default:
        VRX_ASSERT(0);
    }
}

const char* get_timezone(bool refresh)
{
    (void)refresh;
    if (g_tzname_cache[0] != '\0')
        return g_tzname_cache;
    // A handler finds no name yet: its stamp goes without one.
    if (g_sigctx)
        return nullptr;
    time_t now = time(nullptr);
    struct tm tmv;
    if (localtime_r(&now, &tmv) == nullptr) {
        perror("localtime_r");
        return nullptr;
    }
    g_gmtoff = (sig_atomic_t)tmv.tm_gmtoff;
    char name[sizeof(g_tzname_cache)] = {};
    size_t n = strftime(name, sizeof(name) - 1, " %Z", &tmv);
    if (n == 0 || n >= sizeof(name)) {
        perror("strftime");
        strcpy(g_tzname_cache, "#ERR#");
        g_tzname_ready = 1;
        return nullptr;
    }
    memcpy(g_tzname_cache, name, sizeof(name));
    g_tzname_ready = 1;
    return g_tzname_cache;
}

namespace {

// The calendar date of a day counted from 1970-01-01, by arithmetic alone
// (proleptic Gregorian): what a handler uses in place of gmtime_r.
void civil_from_days(long long z, int* y, int* m, int* d)
{
    z += 719468;
    const long long era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = (unsigned)(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    *d = (int)(doy - (153 * mp + 2) / 5 + 1);
    *m = (int)(mp < 10 ? mp + 3 : mp - 9);
    *y = (int)((long long)yoe + era * 400 + (*m <= 2 ? 1 : 0));
}

// mk_timestr inside a signal handler: the same text, made without the
// calendar functions, stdio or the zone lock.
ssize_t mk_timestr_in_handler(const timespec* tms, uint32_t flags, char* buf, size_t buflen)
{
    if (flags & f_RAW_TIME) {
        const int n = sigs_format(buf, buflen, "%ld.%06ld", (long)tms->tv_sec, tms->tv_nsec / 1000);
        return (n >= 0 && (size_t)n < buflen) ? n : -1;
    }
    const long long t = (long long)tms->tv_sec + ((flags & f_GMT_TIME) ? 0 : (long long)g_gmtoff);
    long long days = t / 86400;
    long long secs = t % 86400;
    if (secs < 0) {
        secs += 86400;
        days -= 1;
    }
    int y, mon, d;
    civil_from_days(days, &y, &mon, &d);
    const char* zone = g_tzname_ready ? g_tzname_cache : "";
    const int hh = (int)(secs / 3600), mm = (int)(secs % 3600 / 60), ss = (int)(secs % 60);
    int n;
    if (flags & f_FMT_SECONDS)
        n = sigs_format(buf, buflen, "%04d-%02d-%02d %02d:%02d:%02d%s", y, mon, d, hh, mm, ss, zone);
    else
        n = sigs_format(buf, buflen, "%04d-%02d-%02d %02d:%02d:%02d.%06ld%s", y, mon, d, hh, mm, ss,
                        tms->tv_nsec / 1000, zone);
    if (n > (int)buflen) {
        char text[128];
        const int m = sigs_format(text, sizeof(text), "%s: timestamp buffer needs %d bytes, only %ld provided\n",
                                  "mk_timestr", n, (long)buflen);
        if (m > 0)
            (void)sigs_write_all(STDERR_FILENO, text, (size_t)m < sizeof(text) ? (size_t)m : sizeof(text) - 1);
        return -1;
    }
    return n;
}

}  // namespace

ssize_t mk_timestr(const timespec* tms, uint32_t flags, char* buf, size_t buflen)
{
    if (g_sigctx)
        return mk_timestr_in_handler(tms, flags, buf, buflen);
    if (flags & f_RAW_TIME) {
        int n = snprintf(buf, buflen, "%ld.%06ld", (long)tms->tv_sec, tms->tv_nsec / 1000);
        return (n >= 0 && (size_t)n < buflen) ? n : -1;
    }
    if (g_tmlock)
        return TM_BUSY;
    g_tmlock = 1;
    struct tm tmv;
    const bool ok = (flags & f_GMT_TIME) ? gmtime_r(&tms->tv_sec, &tmv) != nullptr
                                         : localtime_r(&tms->tv_sec, &tmv) != nullptr;
    g_tmlock = 0;
    if (!ok) {
        perror("gmtime_r/localtime_r");
        return -1;
    }
    if (!(flags & f_GMT_TIME))
        g_gmtoff = (sig_atomic_t)tmv.tm_gmtoff;
    // The zone is the local one even for a stamp in UTC, so the lines of one
    // machine always end alike whatever the stamp's clock.
    const char* zone = get_timezone(false);
    if (zone == nullptr)
        zone = "";
    int n;
    if (flags & f_FMT_SECONDS)
        n = snprintf(buf, buflen, "%04d-%02d-%02d %02d:%02d:%02d%s", tmv.tm_year + 1900, tmv.tm_mon + 1,
                     tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec, zone);
    else
        n = snprintf(buf, buflen, "%04d-%02d-%02d %02d:%02d:%02d.%06ld%s", tmv.tm_year + 1900, tmv.tm_mon + 1,
                     tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec, tms->tv_nsec / 1000, zone);
    // A stamp of exactly buflen passes, its last character cut by the terminator.
    if (n > (int)buflen) {
        fprintf(stderr, "%s: timestamp buffer needs %d bytes, only %ld provided\n", "mk_timestr", n, (long)buflen);
        return -1;
    }
    return n;
}

int scan_log_time(const char* s, timespec* tms, uint32_t flags)
{
    *tms = timespec{};
    struct tm tmv{};
    long usec = 0;
    int fields;
    if (flags & f_RAW_TIME) {
        long sec = 0;
        fields = sscanf(s, "%ld.%06ld ", &sec, &usec);
        if (fields != 2)
            return -1;
        tms->tv_sec = sec;
        tms->tv_nsec = usec * 1000;
        return fields;
    }
    if (flags & f_FMT_SECONDS) {
        fields = sscanf(s, "%04d-%02d-%02d %02d:%02d:%02d ", &tmv.tm_year, &tmv.tm_mon, &tmv.tm_mday, &tmv.tm_hour,
                        &tmv.tm_min, &tmv.tm_sec);
        if (fields != 6)
            return -1;
    } else {
        fields = sscanf(s, "%04d-%02d-%02d %02d:%02d:%02d.%06ld ", &tmv.tm_year, &tmv.tm_mon, &tmv.tm_mday,
                        &tmv.tm_hour, &tmv.tm_min, &tmv.tm_sec, &usec);
        if (fields != 7)
            return -1;
    }
    tmv.tm_year -= 1900;
    tmv.tm_mon -= 1;
    tmv.tm_isdst = 0;
    time_t t = mktime(&tmv);
    if (t == (time_t)-1) {
        LOG_AT(ERR_level, "%s: cannot make time from [%s]\n", "scan_log_time", s);
        return -1;
    }
    tms->tv_sec = t;
    tms->tv_nsec = usec * 1000;
    return fields;
}

int mk_gmt_date(time_t ut, char* buf, size_t buflen)
{
    struct tm tmv;
    if (gmtime_r(&ut, &tmv) == nullptr) {
        perror("gmtime");
        return -1;
    }
    int n = snprintf(buf, buflen, "%04d-%02d-%02d", tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday);
    if (n >= 1 && (size_t)n <= buflen) {
        buf[buflen - 1] = '\0';
        return 0;
    }
    LOG_AT(ERR_level, "%s: timestamp buffer needs %d bytes, only %ld provided\n", "mk_gmt_date", n, (long)buflen);
    return -1;
}

int mk_timespan(time_t total_sec, char* buf, size_t buflen)
{
    const long days = (long)(total_sec / 86400);
    long rest = (long)(total_sec % 86400);
    const long hours = rest / 3600;
    rest %= 3600;
    const long minutes = rest / 60;
    const long seconds = rest % 60;

    size_t pos = 0;
    if (total_sec >= 86400) {
        int n = snprintf(buf, buflen, "%02ldd ", days);
        if (n < 0 || (size_t)n > buflen)
            return -1;
        pos = (size_t)n;
    }
    // As with the dates, a text of exactly the space left passes, cut short by one.
    int n = snprintf(buf + pos, buflen - pos, "%02ldh:%02ldm:%02lds", hours, minutes, seconds);
    if (n < 0 || (size_t)n > buflen - pos)
        return -1;
    return 0;
}

time_t get_endofday_utime(time_t tstamp)
{
    struct tm tmv;
    if (localtime_r(&tstamp, &tmv) == nullptr) {
        LOG_AT(ERR_level, "%s: localtime_r() FAILED\n", "get_endofday_utime");
        return -1;
    }
    tmv.tm_hour = 23;
    tmv.tm_min = 59;
    tmv.tm_sec = 59;
    return mktime(&tmv);
}
