// Finding flight-recorder rings in shared memory and telling what they are,
// for the programs that watch them (lardcat, kst-web). A reader never trusts
// an object by its name alone: another program's object that happens to be
// named like a ring must not stop it.
#pragma once

#include <sys/types.h>
#include <cstddef>

#include "lard.h"

// The longest ring name whose two object names fit the ring's name buffers.
constexpr size_t LARD_RING_NAME_MAX = LARD_NAME_MAX - 1 - 1 - 5;

// Calls fn with each ring name of the system (the objects' common name,
// without its leading slash and the ".meta"); 0, or -1 with errno.
int lard_ring_names(void (*fn)(const char* name, void* arg), void* arg);

// Tells whether the two objects of name make a ring, mapping nothing: 0 when
// they do; otherwise -1 with the reason in why (of whylen bytes) and
// *missing set when there is no meta object at all.
int lard_check_ring(const char* name, bool* missing, char* why, size_t whylen);

// "active", "closed", "abandoned" (the owner died without closing) or
// "unowned".
const char* lard_state_str(lard_t lh);

// Seconds since the ring's last write, by the clock the writer stamps with;
// -1 when nothing was ever written.
double lard_age_seconds(const lard_meta* m);
