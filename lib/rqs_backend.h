// The event loop's notification backend: one file per platform, chosen by
// the build (kqueue where it exists, epoll and inotify on Linux). The loop
// speaks kqueue's language: a change or an event is a filter on a
// descriptor with flags, and the backend gives the same events, file
// watches included, wherever it runs.
#pragma once

#include <cstdint>
#include <ctime>

// Filters.
constexpr int16_t RQS_EVFILT_READ = -1;
constexpr int16_t RQS_EVFILT_WRITE = -2;
constexpr int16_t RQS_EVFILT_VNODE = -4;

// Flags of a change and of an event, with kqueue's values: the loop hands
// an event's flags to its callbacks shifted right by 14, which makes
// EV_ERROR the socket-error bit and EV_EOF the hang-up bit.
constexpr uint16_t RQS_EV_ADD = 0x0001;
constexpr uint16_t RQS_EV_DELETE = 0x0002;
constexpr uint16_t RQS_EV_ENABLE = 0x0004;
constexpr uint16_t RQS_EV_DISABLE = 0x0008;
constexpr uint16_t RQS_EV_CLEAR = 0x0020;
constexpr uint16_t RQS_EV_ERROR = 0x4000;
constexpr uint16_t RQS_EV_EOF = 0x8000;

// Vnode notes.
constexpr uint32_t RQS_NOTE_DELETE = 0x0001;
constexpr uint32_t RQS_NOTE_RENAME = 0x0020;

struct rqs_kev {
    uintptr_t ident;  // the descriptor
    int16_t filter;
    uint16_t flags;
    uint32_t fflags;
    intptr_t data;  // bytes to read or room to write; the error number with EV_ERROR
    void* udata;
};

// A new notification descriptor, or -1 with errno.
int rqsb_open();
void rqsb_close(int loopfd);
// Applies one change: 0, or -1 with errno (ENOENT for enabling, disabling
// or deleting a filter that is not registered).
int rqsb_change(int loopfd, const rqs_kev* change);
// Waits for events (tmout null: for ever): their count, or -1 with errno.
int rqsb_wait(int loopfd, rqs_kev* events, int nevents, const timespec* tmout);
