// Captures what the process writes to descriptor 2 while alive: the logger
// reports its own troubles there, and some checks run before any log is open.
#pragma once

#include <cstdio>
#include <string>
#include <unistd.h>

class StderrCapture {
public:
    StderrCapture()
    {
        fflush(stderr);
        tmp_ = tmpfile();
        saved_ = dup(STDERR_FILENO);
        dup2(fileno(tmp_), STDERR_FILENO);
    }
    ~StderrCapture()
    {
        fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        fclose(tmp_);
    }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    std::string text() const
    {
        fflush(stderr);
        std::string out;
        char buf[4096];
        off_t off = 0;
        ssize_t n;
        while ((n = pread(fileno(tmp_), buf, sizeof(buf), off)) > 0) {
            out.append(buf, (size_t)n);
            off += n;
        }
        return out;
    }

private:
    FILE* tmp_ = nullptr;
    int saved_ = -1;
};
