// Descriptors passed over a local socket, and short waits on one socket.
#include "fdio.h"

#include <poll.h>
#include <sys/socket.h>
#include <cerrno>
#include <cstring>

#include "log.h"
#include "psensor.h"
#include "syswrap.h"

LOG_UNIT(LLMOD_FDIO);

namespace {

constexpr size_t k_test_read = 512;

// Room for one control message that carries one descriptor.
union fd_control {
    cmsghdr hdr;
    char buf[CMSG_SPACE(sizeof(int))];
};

// One buffer of data and room for one control message.
msghdr one_message(iovec* iov, fd_control* ctl)
{
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = 1;
    msg.msg_control = ctl->buf;
    msg.msg_controllen = sizeof(ctl->buf);
    return msg;
}

}  // namespace

ssize_t send_fd(int dst_fd, void* ptr, size_t nbytes, int sendfd)
{
    iovec iov{ptr, nbytes};
    fd_control ctl{};
    msghdr msg = one_message(&iov, &ctl);
    cmsghdr* cm = CMSG_FIRSTHDR(&msg);
    cm->cmsg_level = SOL_SOCKET;
    cm->cmsg_type = SCM_RIGHTS;
    cm->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(cm), &sendfd, sizeof(int));
    const ssize_t rc = sendmsg(dst_fd, &msg, 0);
    if (rc < 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: sendmsg(%d, %p, 0) ERROR(%d): %s\n", "send_fd", dst_fd, (void*)&msg, err,
               strerror(err));
        errno = err;
        return -1;
    }
    return rc;
}

ssize_t recv_fd(int src_fd, void* ptr, size_t nbytes, int* recvfd, uint32_t fdio_flags)
{
    iovec iov{ptr, nbytes};
    fd_control ctl{};
    msghdr msg = one_message(&iov, &ctl);
    psensor_begin(PRF_DATAIN);
    const ssize_t rc = recvmsg(src_fd, &msg, 0);
    psensor_end(PRF_DATAIN);
    if (rc <= 0) {
        const int err = errno;
        if (rc < 0 && (err == EAGAIN || err == EWOULDBLOCK) && !(fdio_flags & FDIO_VERBOSE))
            return rc;
        LOG_AT(ERR_level, "%s: recvmsg(%d, %p, 0) ERROR(%d): %s\n", "recv_fd", src_fd, (void*)&msg,
               rc == 0 ? 0 : err, rc == 0 ? "connection has been closed by peer" : strerror(err));
        errno = err;
        return rc;
    }
    const cmsghdr* cm = CMSG_FIRSTHDR(&msg);
    if (msg.msg_controllen >= sizeof(cmsghdr) && cm != nullptr && cm->cmsg_len == CMSG_LEN(sizeof(int))) {
        if (cm->cmsg_level == SOL_SOCKET && cm->cmsg_type == SCM_RIGHTS) {
            memcpy(recvfd, CMSG_DATA(cm), sizeof(int));
            return rc;
        }
        *recvfd = -1;
        if (fdio_flags & FDIO_VERBOSE)
            LOG_AT(ERR_level, "%s: invalid control message level/type=%ld/%ld\n", "recv_fd", (long)cm->cmsg_level,
                   (long)cm->cmsg_type);
        return rc;
    }
    // Plain data: the bytes count all the same.
    *recvfd = -1;
    if (fdio_flags & FDIO_VERBOSE)
        LOG_AT(ERR_level, "%s: invalid control message structure: cmsg=%p, clen=%ld\n", "recv_fd", (const void*)cm,
               (long)msg.msg_controllen);
    return rc;
}

int poll_on_socket(int sockfd, short events, int tmout)
{
    pollfd p{sockfd, events, 0};
    psensor_begin(PRF_EVIDLE);
    const int rc = W_poll("poll_on_socket", &p, 1, tmout);
    psensor_end(PRF_EVIDLE);
    return rc < 0 ? -1 : p.revents;
}

namespace {

int wait_for(const char* caller, int sockfd, short wanted, int tmout)
{
    pollfd p{sockfd, wanted, 0};
    psensor_begin(PRF_EVIDLE);
    const int rc = W_poll(caller, &p, 1, tmout);
    psensor_end(PRF_EVIDLE);
    if (rc < 0 || (p.revents & POLLNVAL))
        return -1;
    return (p.revents & wanted) ? 0 : 1;
}

}  // namespace

int wait_to_read(int sockfd, int tmout)
{
    return wait_for("wait_to_read", sockfd, POLLIN, tmout);
}

int wait_to_write(int sockfd, int tmout)
{
    return wait_for("wait_to_write", sockfd, POLLOUT, tmout);
}

int test_read_fd(int fd, int tmout)
{
    const int rc = wait_to_read(fd, tmout);
    if (rc != 0)
        return rc;
    char buf[k_test_read];
    const ssize_t nrd = nread(fd, buf, sizeof(buf), 0);
    if (nrd <= 0) {
        LOG_AT(ERR_level, "%s: cannot read from fd=%d, nrd=%ld\n", "test_read_fd", fd, (long)nrd);
        return -1;
    }
    LOG_AT(DEBUG_level, "%s: fd=%d is readable [%ld bytes]\n", "test_read_fd", fd, (long)nrd);
    return 0;
}
