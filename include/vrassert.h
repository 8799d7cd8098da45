// The plain assertion: stays on in every build and never touches the log.
//
// Which of the two assertions goes where. Both guard what cannot happen in a
// correct program, both stay on in the release build, both end the process.
// - LOG_ASSERT (log.h), the logged one: a unit's own rule broke while the log
//   runs (the ring's positions, the read-out's walk, a segment's size after a
//   probe, an unknown selector). Its report is a back trace in the log,
//   flushed before the abort; the expression is not named.
// - VRX_ASSERT, this plain one: where the log must not be touched (the
//   logger and the units it stands on, signal handlers, before the log
//   exists), and where the failed expression itself is the report: a
//   caller's broken argument contract at a library call (a null table, a
//   buffer too long for its limit) and counters whose expression states the
//   invariant (the ring's packet numbers). It prints the expression on
//   standard error and aborts.
// A unit uses one of the two for each kind of rule; a file that holds both
// says at the plain ones which contract they guard.
#pragma once

#include "platform.h"

#define VRX_ASSERT(cond)                                                                 \
    do {                                                                                 \
        if (!(cond)) [[unlikely]]                                                        \
            plat_assert_fail(__func__, __FILE__, __LINE__, #cond);                       \
    } while (0)
