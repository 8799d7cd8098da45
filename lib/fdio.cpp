// Single reads and writes that ride over interruptions by signals, unless
// the signal asked the program to stop.
#include "fdio.h"

#include <cerrno>

#include "log.h"
#include "psensor.h"
#include "syswrap.h"
#include "util.h"

LOG_UNIT(LLMOD_FDIO);

// One read, not a loop to fill count: a short read is the caller's to judge.
ssize_t nread(int fd, char* buf, size_t count, uint32_t flags)
{
    if (count == 0)
        return 0;
    psensor_begin(PRF_DATAIN);
    for (;;) {
        const ssize_t rc = W_read_f("nread", fd, buf, count, flags);
        if (rc >= 0 || errno != EINTR || g_quit) {
            psensor_end(PRF_DATAIN);
            return rc;
        }
        errno = 0;
    }
}

// One write; a partial write goes back as it is and the caller loops.
ssize_t nwrite(int fd, const char* buf, size_t count, uint32_t flags)
{
    if (count == 0)
        return 0;
    psensor_begin(PRF_DATAOUT);
    for (;;) {
        const ssize_t rc = W_write_f("nwrite", fd, buf, count, flags);
        if (rc >= 0 || errno != EINTR || g_quit) {
            psensor_end(PRF_DATAOUT);
            return rc;
        }
        errno = 0;
    }
}
