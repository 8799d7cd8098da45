// Signal dispositions and the interval timer, changed for a test and put
// back as they were afterwards.
#pragma once

#include <sys/time.h>
#include <csignal>

// Keeps a signal's disposition across a test.
class SavedAction {
public:
    explicit SavedAction(int signo) : signo_(signo) { sigaction(signo_, nullptr, &saved_); }
    ~SavedAction() { sigaction(signo_, &saved_, nullptr); }
    SavedAction(const SavedAction&) = delete;
    SavedAction& operator=(const SavedAction&) = delete;

private:
    int signo_;
    struct sigaction saved_ {};
};

// Installs a handler without SA_RESTART, so a blocking call it interrupts
// comes back with EINTR instead of going on.
inline void install_handler(int signo, void (*handler)(int), struct sigaction* old)
{
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(signo, &sa, old);
}

// A handler (or SIG_IGN) for one signal while the guard lives.
class SignalGuard {
public:
    SignalGuard(int signo, void (*handler)(int)) : saved_(signo) { install_handler(signo, handler, nullptr); }

private:
    SavedAction saved_;
};

inline volatile sig_atomic_t g_alarms = 0;

inline void count_alarm(int)
{
    g_alarms = g_alarms + 1;
}

// Sends SIGALRM every 20 ms to a handler installed without SA_RESTART, so a
// blocking call is broken off with EINTR; the interval keeps it bounded even
// if the first signal comes before the call blocks.
class AlarmTicker {
public:
    explicit AlarmTicker(void (*handler)(int) = count_alarm)
    {
        g_alarms = 0;
        install_handler(SIGALRM, handler, &old_sa_);
        itimerval it{};
        it.it_value.tv_usec = kIntervalUs;
        it.it_interval.tv_usec = kIntervalUs;
        setitimer(ITIMER_REAL, &it, &old_it_);
    }
    ~AlarmTicker() { stop(); }
    AlarmTicker(const AlarmTicker&) = delete;
    AlarmTicker& operator=(const AlarmTicker&) = delete;

    // The timer goes quiet before the old handler returns, so no tick of
    // ours reaches it; a second stop does nothing.
    void stop()
    {
        if (!running_)
            return;
        running_ = false;
        itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &old_sa_, nullptr);
        setitimer(ITIMER_REAL, &old_it_, nullptr);
    }

private:
    static constexpr long kIntervalUs = 20000;
    struct sigaction old_sa_ {};
    itimerval old_it_{};
    bool running_ = true;
};
