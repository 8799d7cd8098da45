// Single reads, writes and sends that ride over interruptions by signals,
// unless the signal asked the program to stop; the files a transfer opens.
#include "fdio.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstring>

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

// Like nread at an offset; a failure reads as nothing.
ssize_t npread(int fd, char* buf, size_t count, off_t offset, uint32_t flags)
{
    if (count == 0)
        return 0;
    psensor_begin(PRF_DATAIN);
    for (;;) {
        const ssize_t rc = W_pread_f("npread", fd, buf, count, offset, flags & FDIO_VERBOSE);
        if (rc >= 0) {
            psensor_end(PRF_DATAIN);
            return rc;
        }
        if (errno != EINTR || g_quit) {
            psensor_end(PRF_DATAIN);
            return 0;
        }
        errno = 0;
    }
}

// The bytes sent, *offset moved by them; 0 for none, -1 for a failure.
ssize_t nsendfile(int out_fd, int in_fd, off_t* offset, size_t count, int bsd_flags, uint32_t flags)
{
    LOG_ASSERT(offset != nullptr);
    if (count == 0)
        return 0;
    off_t sent = 0;
    int rc;
    psensor_begin(PRF_DATAOUT);
    do {
        sent = 0;
        rc = W_sendfile_f("nsendfile", out_fd, in_fd, *offset, count, nullptr, &sent, bsd_flags, flags & FDIO_VERBOSE);
    } while (rc == -1 && errno == EINTR && sent == 0 && !g_quit);
    psensor_end(PRF_DATAOUT);
    if (rc == -1 && sent == 0) {
        const int err = errno;
        if (no_fault(err, flags & FDIO_VERBOSE))
            return -1;
        LOG_AT(ERR_level, "%s(%d->%d, %ld, %lu,...) ERROR(%d): %s\n", "nsendfile", in_fd, out_fd, (long)*offset,
               (unsigned long)count, err, strerror(err));
        errno = err;
        return -1;
    }
    // Some bytes went before the socket was full, or a signal came: a success.
    errno = 0;
    *offset += sent;
    return (ssize_t)sent;
}

int use_sendfile(uint32_t fdio_flags, int* bsd_flags)
{
    if (!(fdio_flags & FDIO_SENDFILE))
        return 0;
    *bsd_flags |= 2;
    return 1;
}

transfer_spec* new_transfer_spec(int in_fd, int out_fd, off_t* offset, uint32_t* flags, void* aux, ssize_t aux_len)
{
    auto* tsp = static_cast<transfer_spec*>(W_calloc("new_transfer_spec", 1, sizeof(transfer_spec)));
    if (tsp == nullptr)
        return nullptr;
    tsp->in_fd = in_fd;
    tsp->out_fd = out_fd;
    tsp->offset = offset;
    tsp->flags = flags;
    tsp->aux = aux;
    tsp->aux_len = aux_len;
    if (flags != nullptr && (*flags & FDIO_SENDFILE))
        LOG_AT(INFO_level, "%s(%p): SENDFILE on for fd%d<-fd%d\n", "new_transfer_spec", (void*)tsp, out_fd, in_fd);
    return tsp;
}

int open_src_file(const char* fpath)
{
    return W_open("open_src_file", fpath, O_RDONLY, 0);
}

int open_dst_file(const char* fpath, uint32_t flags)
{
    const int fd = W_open("open_dst_file", fpath, O_WRONLY | O_CREAT | O_TRUNC | O_EXCL, 0644);
    if (fd < 0)
        return -1;
    // The file then lives by its descriptor alone.
    if ((flags & FDIO_UNLINK_DST) && W_unlink("open_dst_file", fpath) != 0) {
        W_close("open_dst_file", fd);
        return -1;
    }
    return fd;
}

int check_can_sendfile(mode_t src_mode, mode_t dst_mode, int dst_socktype, uint32_t* flags)
{
    if (!S_ISREG(src_mode))
        return SF_SRC_NOTREG;
    if (!S_ISSOCK(dst_mode))
        return SF_DST_NOTSOCK;
    if (dst_socktype != SOCK_STREAM)
        return SF_DST_NOTSTREAM;
    *flags |= FDIO_SENDFILE;
    return 0;
}
