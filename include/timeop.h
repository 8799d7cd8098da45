// Time comparison and formatting: log stamps, end of day, time-outs.
#pragma once

#include <csignal>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

enum : uint32_t {
    f_REALTIME_TIMER = 0,
    f_MONOTONIC_TIMER = 1,
    f_TIMER_ID = 3,
    f_FMT_SECONDS = 16,
    f_NO_TIME = 256,
    f_GMT_TIME = 512,
    f_RAW_TIME = 1024,
    f_BAD_TIME = 1073741824,
};

enum : int { TSPAN_TIMESPEC = 1, TSPAN_TICKS = 2 };

struct tspan {
    int mode;
    union {
        timespec tms;
        uint32_t ticks;
    } val;
};

// The cached monotonic clock of the event loop; stays zero without one.
const timespec* rqs_now_ref();
// The same clock for the event loop to set, after each wait.
timespec* rqs_itime();

void set_clk_now(timespec* tms, clockid_t clk_id);
bool timed_out(const timespec* last_tm, const timespec* tmout);
bool timed_out_ext(const timespec* last_tm, const timespec* tmout, const timespec* clknow);
bool timed_out_real(const timespec* last_tm, const timespec* tmout);
void calc_timespan(const timespec* from, const timespec* till, timespec* span);
bool tspan_timed_out(const tspan* last, const tspan* tmout, const timespec* now, uint32_t ticks_now);
void set_tspan(tspan* spn, const timespec* tm, uint32_t ticks);

// mk_timestr was entered again while converting (a handler ran in the
// middle): a plain number of its own, not an errno value.
constexpr ssize_t TM_BUSY = -11;
ssize_t mk_timestr(const timespec* tms, uint32_t flags, char* buf, size_t buflen);
const char* get_timezone(bool refresh);
int scan_log_time(const char* s, timespec* tms, uint32_t flags);
int mk_gmt_date(time_t ut, char* buf, size_t buflen);
int mk_timespan(time_t total_sec, char* buf, size_t buflen);
time_t get_endofday_utime(time_t tstamp);
