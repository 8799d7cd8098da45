// One step of a transfer between two descriptors, through the shared
// buffer, mapped memory or sendfile. A step never loops to its count: an
// event loop keeps control between steps.
#include "fdio.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "psensor.h"
#include "syswrap.h"
#include "vrassert.h"

LOG_UNIT(LLMOD_FDIO);

trfbuf g_trf = {nullptr, 0};

namespace {

constexpr int k_transfer_bsd_flags = 2;

// A count that would reach past the mapped memory is cut to what remains.
size_t cut_to_mmem(const transfer_spec* tsp, size_t count, const char* origin)
{
    const size_t at = (size_t)*tsp->offset;
    const size_t left = (at < tsp->mmlen) ? tsp->mmlen - at : 0;
    if (count <= left)
        return count;
    LOG_AT(WARN_level,
           "%s: attempt to reach over the end of buffer: buf=%p, len=%ld, offset=%ld, count=%ld - new_count=%ld\n",
           origin, tsp->mmem, (long)tsp->mmlen, (long)at, (long)count, (long)left);
    return left;
}

// A client that went away is no failure of the server, and EAGAIN is none
// on either side.
int trf_err_correct(int err, uint32_t flags)
{
    if (err == EAGAIN || err == EWOULDBLOCK)
        return 0;
    if ((flags & FDIO_ERR_WRITE) && (err == EPIPE || ((flags & FDIO_SENDFILE) && err == EBUSY)))
        return 0;
    return err;
}

struct step {
    ssize_t nrd = 0;
    ssize_t nwr = 0;
    int err = 0;
};

// Runs the caller's processing on data just read; -1 for its failure.
int run_inproc(transfer_spec* tsp, char* data, ssize_t len, ssize_t* out_len)
{
    *out_len = len;
    if (tsp->inproc == nullptr)
        return 0;
    return tsp->inproc(data, len, out_len) == 0 ? 0 : -1;
}

void from_memory(transfer_spec* tsp, size_t nbytes, step& s)
{
    const size_t n = cut_to_mmem(tsp, nbytes, "mm_out");
    s.nrd = (ssize_t)n;
    if (n == 0)
        return;
    s.nwr = transfer_out(tsp, static_cast<char*>(tsp->mmem) + *tsp->offset, n);
    if (s.nwr < 0)
        s.err = errno;
}

void into_memory(transfer_spec* tsp, size_t nbytes, step& s)
{
    const size_t n = cut_to_mmem(tsp, nbytes, "mm_in");
    char* at = static_cast<char*>(tsp->mmem) + *tsp->offset;
    s.nrd = nread(tsp->in_fd, at, n, *tsp->flags & FDIO_VERBOSE);
    if (s.nrd < 1) {
        if (s.nrd < 0) {
            s.err = errno;
            *tsp->flags |= FDIO_ERR_READ;
        }
        return;
    }
    ssize_t out_len = 0;
    if (run_inproc(tsp, at, s.nrd, &out_len) != 0)
        s.err = errno != 0 ? errno : EINVAL;
    else
        s.nwr = s.nrd;
}

void through_buffer(transfer_spec* tsp, size_t nbytes, step& s)
{
    // The caller's contract: fdio_init made the buffer.
    VRX_ASSERT(g_trf.buf);
    const uint32_t quiet = *tsp->flags & FDIO_VERBOSE;
    if (tsp->offset != nullptr && *tsp->offset >= 0)
        s.nrd = npread(tsp->in_fd, g_trf.buf, nbytes, *tsp->offset, quiet);
    else
        s.nrd = nread(tsp->in_fd, g_trf.buf, nbytes, quiet);
    if (s.nrd < 1) {
        if (s.nrd < 0) {
            s.err = errno;
            *tsp->flags |= FDIO_ERR_READ;
        }
        return;
    }
    ssize_t out_len = 0;
    if (run_inproc(tsp, g_trf.buf, s.nrd, &out_len) != 0) {
        s.err = errno != 0 ? errno : EINVAL;
        return;
    }
    if (out_len <= 0)
        return;
    s.nwr = transfer_out(tsp, g_trf.buf, (size_t)out_len);
    if (s.nwr < 0)
        s.err = errno;
}

void by_sendfile(transfer_spec* tsp, size_t nbytes, step& s)
{
    // The caller's contract: sendfile moves an offset of its own.
    VRX_ASSERT(tsp->offset);
    s.nwr = nsendfile(tsp->out_fd, tsp->in_fd, tsp->offset, nbytes, k_transfer_bsd_flags, *tsp->flags);
    if (s.nwr < 0) {
        s.err = errno;
        *tsp->flags |= FDIO_ERR_WRITE;
        s.nwr = 0;
        return;
    }
    s.nrd = s.nwr;
    if (s.nwr == 0)
        *tsp->flags |= FDIO_EOF;
    LOG_AT(DEBUG_level, "%s: sent %zu/%zu bytes using sendfile\n", "transfer", (size_t)s.nwr, nbytes);
}

}  // namespace

int transfer(transfer_spec* tsp, size_t count, ssize_t* tbytes)
{
    errno = 0;
    uint32_t& flags = *tsp->flags;
    size_t nbytes = count;
    if (g_trf.buflen != 0)
        nbytes = (count == 0 || count > g_trf.buflen) ? g_trf.buflen : count;

    step s;
    const bool sendfile_on = (flags & FDIO_SENDFILE) != 0;
    if (tsp->mmem != nullptr && !sendfile_on) {
        if (tsp->mmem_out)
            from_memory(tsp, nbytes, s);
        else
            into_memory(tsp, nbytes, s);
    } else if (!sendfile_on) {
        through_buffer(tsp, nbytes, s);
    } else {
        by_sendfile(tsp, nbytes, s);
    }

    if (s.err == 0 && (flags & FDIO_TRF_RWEQ) && s.nrd != s.nwr)
        LOG_AT(ERR_level, "%s: fd in/out=[%d/%d] mismatch: read/write=[%ld/%ld]\n", "transfer", tsp->in_fd,
               tsp->out_fd, (long)s.nrd, (long)s.nwr);
    if (!sendfile_on && tsp->offset != nullptr && s.nwr > 0)
        *tsp->offset += s.nwr;
    if (s.err == 0 && s.nrd == 0)
        flags |= FDIO_EOF;

    if (s.err != 0 && !no_fault(s.err, flags & FDIO_VERBOSE)) {
        if (flags & FDIO_EOF) {
            LOG_AT(DEBUG_level, "transfer [%lu bytes] (%d<-%d) end of stream\n", (unsigned long)s.nwr, tsp->out_fd,
                   tsp->in_fd);
        } else {
            const char* side = (flags & FDIO_ERR_READ) ? "read" : (flags & FDIO_ERR_WRITE) ? "write" : "???";
            LOG_AT(ERR_level, "transfer (%d->%d, %ld bytes) %s ERROR(%d): %s\n", tsp->in_fd, tsp->out_fd,
                   (long)nbytes, side, s.err, strerror(s.err));
        }
        // Reached only where the error was reported: a verbose transfer of
        // a harmless error ends well, a quiet one does not.
        s.err = trf_err_correct(s.err, flags);
    }
    LOG_AT(DEBUG_level, "%s: %d->%d [r%ld/w%ld  %ld bytes], flags=0x%lx\n", "transfer", tsp->in_fd, tsp->out_fd,
           (long)s.nrd, (long)s.nwr, (long)nbytes, (unsigned long)flags);
    if (tbytes != nullptr)
        *tbytes = s.nwr;
    if (s.err > 0) {
        errno = s.err;
        return -1;
    }
    return 0;
}

ssize_t transfer_out(transfer_spec* tsp, const char* src, size_t count)
{
    LOG_ASSERT(count != 0);
    ssize_t rc;
    psensor_begin(PRF_DATAOUT);
    if (*tsp->flags & FDIO_SENDTO) {
        rc = sendto(tsp->out_fd, src, count, MSG_NOSIGNAL, static_cast<const sockaddr*>(tsp->aux),
                    (socklen_t)tsp->aux_len);
    } else {
        rc = nwrite(tsp->out_fd, src, count, *tsp->flags & FDIO_VERBOSE);
    }
    psensor_end(PRF_DATAOUT);
    if (rc == -1)
        *tsp->flags |= FDIO_ERR_WRITE;
    else
        LOG_AT(DEBUG_level, "%s: [%p] +%lu -> fd%d\n", "transfer_out", (void*)tsp, (unsigned long)rc, tsp->out_fd);
    return rc;
}

int fdio_init(ssize_t bufsize)
{
    if (bufsize == -1)
        return set_trf_bufsize(DEFAULT_TRF_BUFSIZE);
    if (bufsize <= 0)
        return 0;
    return set_trf_bufsize((size_t)bufsize);
}

int set_trf_bufsize(size_t newsize)
{
    if (newsize == g_trf.buflen) {
        LOG_AT(DEBUG_level, "%s: transfer buffer size remains %ld bytes.\n", "set_trf_bufsize", (long)newsize);
        return 0;
    }
    if (newsize < MIN_TRF_BUFSIZE) {
        LOG_AT(ERR_level, "%s: transfer buffer size cannot be less than %ld bytes.\n", "set_trf_bufsize",
               (long)MIN_TRF_BUFSIZE);
        return -1;
    }
    char* p = static_cast<char*>(W_realloc("set_trf_bufsize", g_trf.buf, newsize));
    if (p == nullptr) {
        LOG_AT(ERR_level, "%s: failed to allocate %ld bytes for transfer buffer.\n", "set_trf_bufsize",
               (long)newsize);
        return -1;
    }
    g_trf.buf = p;
    g_trf.buflen = newsize;
    LOG_AT(DEBUG_level, "%s: FDIO internal buffer size = %ld bytes.\n", "set_trf_bufsize", (long)newsize);
    return 0;
}

size_t get_trf_bufsize()
{
    return g_trf.buflen;
}

void fdio_destroy()
{
    VRX_ASSERT(g_trf.buf == nullptr || g_trf.buflen != 0);
    free(g_trf.buf);
    g_trf = trfbuf{nullptr, 0};
}
