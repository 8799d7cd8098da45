// Captures what the logger writes, so tests can assert exact lines.
#pragma once

#include <cstdio>
#include <string>
#include <unistd.h>

#include "log.h"
#include "timeop.h"

// While alive, g_log (or another log) writes into a temporary file with no
// time stamp, no pid and no group, at the given level for every module;
// text() returns everything written so far.
class LogCapture {
public:
    explicit LogCapture(int level = DEBUG_level, log_ctx* log = &g_log) : log_(log), saved_(*log)
    {
        glog_init("test");
        fp_ = tmpfile();
        log_->fp = fp_;
        log_->mirror_fp = nullptr;
        log_->time_format = f_NO_TIME;
        log_->pid = 0;
        log_->group.num64 = 0;
        log_->total_out = 0;
        for (int i = 0; i < LL_MAX_MODULES; ++i) {
            saved_ll_[i] = g_mod_ll[i];
            g_mod_ll[i] = level;
        }
    }
    ~LogCapture()
    {
        *log_ = saved_;
        for (int i = 0; i < LL_MAX_MODULES; ++i)
            g_mod_ll[i] = saved_ll_[i];
        fclose(fp_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::string text() const
    {
        fflush(fp_);
        std::string out;
        rewind(fp_);
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), fp_)) > 0)
            out.append(buf, n);
        fseek(fp_, 0, SEEK_END);
        return out;
    }
    void clear()
    {
        fflush(fp_);
        if (ftruncate(fileno(fp_), 0) == 0)
            rewind(fp_);
    }
    FILE* fp() const { return fp_; }

private:
    log_ctx* log_;
    log_ctx saved_;
    FILE* fp_ = nullptr;
    int saved_ll_[LL_MAX_MODULES];
};
