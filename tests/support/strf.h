// printf-style formatting into a std::string, for the exact lines tests expect.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

#include "vrtypes.h"

// Lines past 1023 bytes are cut: no line a test expects comes near that.
VRX_PRINTF(1, 2) inline std::string strf(const char* fmt, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}
