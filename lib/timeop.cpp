// Time comparison and formatting. The functions below the logger write their
// own failures to standard error: they run inside a log call.
#include "timeop.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

// Guards the calendar conversion against a handler that logs during a log call.
volatile sig_atomic_t g_tmlock = 0;
// The zone's short name with a blank in front, filled by the first stamp;
// glibc already owns the name "timezone".
char g_tzname_cache[16];

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
    time_t now = time(nullptr);
    struct tm tmv;
    if (localtime_r(&now, &tmv) == nullptr) {
        perror("localtime_r");
        return nullptr;
    }
    size_t n = strftime(g_tzname_cache, sizeof(g_tzname_cache) - 1, " %Z", &tmv);
    if (n == 0 || n >= sizeof(g_tzname_cache)) {
        perror("strftime");
        strcpy(g_tzname_cache, "#ERR#");
        return nullptr;
    }
    return g_tzname_cache;
}

ssize_t mk_timestr(const timespec* tms, uint32_t flags, char* buf, size_t buflen)
{
    if (flags & f_RAW_TIME) {
        int n = snprintf(buf, buflen, "%ld.%06ld", (long)tms->tv_sec, tms->tv_nsec / 1000);
        return (n >= 0 && (size_t)n < buflen) ? n : -1;
    }
    if (g_tmlock)
        return -11;
    g_tmlock = 1;
    struct tm tmv;
    const bool ok = (flags & f_GMT_TIME) ? gmtime_r(&tms->tv_sec, &tmv) != nullptr
                                         : localtime_r(&tms->tv_sec, &tmv) != nullptr;
    g_tmlock = 0;
    if (!ok) {
        perror("gmtime_r/localtime_r");
        return -1;
    }
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
