// Checked system calls: each wrapper makes the call, logs a failure in one
// form naming the caller, and hands back the result with errno intact.
#pragma once

#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <netdb.h>
#include <cstddef>
#include <cstdint>

#include "platform.h"  // sf_hdtr_t

// True if err is an ordinary event of I/O (EINTR, EPIPE, EAGAIN,
// ECONNRESET) and the peer is not held guilty.
bool no_fault(int err, uint32_t guilty);

int W_close(const char* caller, int fd);
void* W_calloc(const char* caller, size_t nmemb, size_t size);
void* W_realloc(const char* caller, void* ptr, size_t size);
off_t W_lseek(const char* caller, int fd, off_t offset, int whence);
int W_unlink(const char* caller, const char* pathname);
int W_ftruncate(const char* caller, int fd, off_t length);
int W_open(const char* caller, const char* pathname, int flags, mode_t mode);
int W_connect(const char* caller, int sockfd, const sockaddr* addr, socklen_t addrlen);
ssize_t W_write_f(const char* caller, int fd, const void* buf, size_t count, uint32_t flags);
ssize_t W_read_f(const char* caller, int fd, void* buf, size_t count, uint32_t flags);
ssize_t W_pread_f(const char* caller, int fd, void* buf, size_t count, off_t offset, uint32_t flags);
int W_socket(const char* caller, int domain, int type, int protocol);
int W_getsockopt(const char* caller, int sockfd, int level, int optname, void* optval, socklen_t* optlen);
int W_setsockopt(const char* caller, int sockfd, int level, int optname, const void* optval, socklen_t optlen);
int W_bind(const char* caller, int sockfd, const sockaddr* addr, socklen_t addrlen);
int W_listen(const char* caller, int sockfd, int backlog);
int W_getaddrinfo(const char* caller, const char* node, const char* service, const addrinfo* hints, addrinfo** res);
int W_select(const char* caller, int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout);
int W_accept(const char* caller, int s, sockaddr* addr, socklen_t* addrlen);
int W_poll(const char* caller, pollfd* fds, nfds_t nfds, int timeout);
int W_sendfile_f(const char* caller, int out_fd, int in_fd, off_t offset, size_t count, sf_hdtr_t* hdtr,
                 off_t* sbytes, int flags, uint32_t fflags);
int W_dup2(const char* caller, int oldfd, int newfd);
int W_pipe(const char* caller, int pipefd[2]);
pid_t W_fork(const char* caller);
int W_kill(const char* caller, pid_t pid, int sig);
ssize_t W_sendto(const char* caller, int sockfd, const void* buf, size_t len, int flags,
                 const sockaddr* dest_addr, socklen_t addrlen);
ssize_t W_recvfrom(const char* caller, int sockfd, void* buf, size_t len, int flags, sockaddr* src_addr,
                   socklen_t* addrlen);
