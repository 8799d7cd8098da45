// What a signal handler may use to put out a line: a formatter that touches
// no stream, no lock, no locale and no heap, and a write that finishes what
// it starts. Both are safe to call from a handler.
#pragma once

#include <sys/types.h>
#include <cstdarg>
#include <cstddef>

#include "vrtypes.h"

// Formats like vsnprintf for the conversions the handlers and the line
// prefix use: %d %i %u %x %X %c %s %p %% with the flags '-' and '0', a
// width, a precision for %s, and the lengths h, hh, l, ll, z, j, t. Returns
// the length the whole text would have, like vsnprintf (buf always ends in a
// zero when len > 0), or -1 for a conversion it doesn't know.
int sigs_vformat(char* buf, size_t len, const char* fmt, va_list ap);
int sigs_format(char* buf, size_t len, const char* fmt, ...) VRX_PRINTF(3, 4);

// Writes all of buf to fd with write(2), going on after short writes and
// interrupts: 0, or -1 with errno when a call fails.
int sigs_write_all(int fd, const char* buf, size_t len);
