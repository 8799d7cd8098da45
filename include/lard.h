// The flight recorder: log lines of every level in a ring of POSIX shared
// memory, readable by another process while the writer runs and after it
// has died. Two objects make one ring: "/<name>.meta" with the positions,
// the owner and a temperature, and "/<name>.dat" with the text.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <ctime>

using lard_t = void*;

constexpr size_t MAX_SNS = 64;         // slots of the temperature's moving sum
constexpr size_t LARD_NAME_MAX = 255;  // buffers of a ring's name and its object names

// The moving sum over the last MAX_SNS events: a write puts 0 in a slot, a
// serious line its weight in the next one.
struct temp_sensors {
    size_t idx;
    int val[MAX_SNS];
    int sum;
};

// The meta object. Its layout is the interface between writer and reader:
// both must be built alike.
struct lard_meta {
    size_t seg_pages;  // pages of the data area: the reader learns the size here
    size_t pld_start;  // offset of the oldest byte
    size_t pld_len;    // bytes held, at most the capacity
    pid_t owner_pid;
    timespec write_tm;  // CLOCK_MONOTONIC time of the last write
    temp_sensors sns;
    bool is_closed;  // the owner closed the ring in order
};
static_assert(sizeof(size_t) == 8 && sizeof(pid_t) == 4 && sizeof(timespec) == 16,
              "the meta layout is fixed for LP64 platforms");
static_assert(offsetof(lard_meta, owner_pid) == 24 && offsetof(lard_meta, write_tm) == 32 &&
                  offsetof(lard_meta, sns) == 48 && offsetof(temp_sensors, sum) == 264 &&
                  offsetof(lard_meta, is_closed) == 320 && sizeof(lard_meta) == 328,
              "writer and reader share this layout");

// A writer's ring of npages pages; a leftover of the same name is replaced.
// Null on failure, with the reason on stderr (errno ENOMEM for allocation).
lard_t lard_create(const char* name, size_t npages);
// A reader's read-only handle on an existing ring, or null.
lard_t lard_open(const char* name);
// Closes and unlinks both objects.
void lard_destroy(lard_t lh);
// Closes and leaves the objects for a reader.
void lard_close(lard_t lh);

// Bytes written, or -7 (E2BIG negated) when the text is empty or doesn't fit.
int lard_puts(lard_t lh, const char* str);
int lard_printf(lard_t lh, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// The text in order, oldest first, to fd: the result of the write.
ssize_t lard_snapshot(lard_t lh, int fd);

pid_t lard_owner_pid(lard_t lh);
// True while the owner lives and hasn't closed; *crashed (if given) tells a
// dead owner that never closed.
bool lard_is_active(lard_t lh, bool* crashed);
void lard_set_temp(lard_t lh, int temp);
int lard_get_ctemp(lard_t lh);

// What a watcher reads without the text: the shared positions, owner and
// temperature, the capacity in bytes, and the data mapping (read-only for a
// reader; for a writer the overlay follows it at data + capacity).
const lard_meta* lard_get_meta(lard_t lh);
size_t lard_capacity(lard_t lh);
const char* lard_data(lard_t lh);
