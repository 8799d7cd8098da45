// The event loop's backend where kqueue exists: a change or an event is a
// kevent, field for field.
#include "rqs_backend.h"

#include <sys/types.h>
#include <sys/event.h>
#include <unistd.h>

namespace {

struct kevent to_kevent(const rqs_kev* c)
{
    struct kevent k;
    EV_SET(&k, c->ident, c->filter, c->flags, c->fflags, c->data, c->udata);
    return k;
}

}  // namespace

int rqsb_open()
{
    return kqueue();
}

void rqsb_close(int loopfd)
{
    close(loopfd);
}

int rqsb_change(int loopfd, const rqs_kev* change)
{
    const struct kevent k = to_kevent(change);
    return kevent(loopfd, &k, 1, nullptr, 0, nullptr) < 0 ? -1 : 0;
}

int rqsb_wait(int loopfd, rqs_kev* events, int nevents, const timespec* tmout)
{
    // struct kevent and rqs_kev hold the same fields; the events are read
    // into a small array and copied, so that neither layout leans on the other.
    constexpr int kChunk = 64;
    struct kevent got[kChunk];
    int total = 0;
    const timespec zero = {0, 0};
    do {
        const int want = (nevents - total < kChunk) ? nevents - total : kChunk;
        const int n = kevent(loopfd, nullptr, 0, got, want, total == 0 ? tmout : &zero);
        if (n < 0)
            return total > 0 ? total : -1;
        for (int i = 0; i < n; ++i)
            events[total + i] = rqs_kev{got[i].ident, got[i].filter, got[i].flags, got[i].fflags,
                                        (intptr_t)got[i].data, got[i].udata};
        total += n;
        if (n < want)
            break;
    } while (total < nevents);
    return total;
}
