// What the logger's own units share with each other and with their tests:
// the open that a rotation repeats, and the clock that rotation reads.
#pragma once

#include <ctime>

#include "log.h"

namespace log_detail {

// Opens filecmd (a command if log->is_pipe) for appending and counts what the
// file already holds; 0, or -1 with the reason on stderr.
int do_open(log_ctx* log, const char* filecmd);

// The clock that rotation reads. Tests replace it to cross the end of a day
// without waiting; nullptr puts time() back.
using clock_fn = time_t (*)(time_t*);
void log_set_clock_for_test(clock_fn fn);
time_t log_now();

// log_rotate with the time of the rotation given.
int log_rotate_at(log_ctx* log, time_t now);

// The size and end-of-day test that follows each line written to a file.
void log_rota_check(log_ctx* log);

}  // namespace log_detail
