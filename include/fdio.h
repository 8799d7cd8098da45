// Moving bytes between descriptors: restartable single reads and writes,
// one step of a transfer through a shared buffer, mapped memory or
// sendfile, descriptors passed over a local socket, and short waits.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>

// FDIO_* flags: the caller's, in and out.
constexpr uint32_t FDIO_VERBOSE = 1;         // report harmless errors too
constexpr uint32_t FDIO_TRF_RWEQ = 2;        // what was read must be written whole
constexpr uint32_t FDIO_MSYNC = 4;           // passed through for mapped transfers
constexpr uint32_t FDIO_SENDFILE = 256;      // use sendfile
constexpr uint32_t FDIO_SENDTO = 512;        // use sendto with aux
constexpr uint32_t FDIO_UNLINK_DST = 1024;   // open_dst_file unlinks the file at once
constexpr uint32_t FDIO_EOF = 65536;         // out: end of stream
constexpr uint32_t FDIO_ERR_READ = 131072;   // out: the input failed
constexpr uint32_t FDIO_ERR_WRITE = 262144;  // out: the output failed

constexpr size_t MIN_TRF_BUFSIZE = 65536;
constexpr size_t DEFAULT_TRF_BUFSIZE = 2097152;

// The process-wide transfer buffer.
struct trfbuf {
    char* buf;
    size_t buflen;
};
extern trfbuf g_trf;

// Processing between input and output: the data, its length, and where to
// put the length to send; 0 for success.
using fdio_inproc = int (*)(char* data, ssize_t len, ssize_t* out_len);

// One direction of one transfer.
struct transfer_spec {
    int in_fd;
    int out_fd;
    off_t* offset;     // in the input or the mapped buffer; null for a pure stream
    uint32_t* flags;   // FDIO_*, owned by the caller
    void* aux;         // destination address for FDIO_SENDTO
    ssize_t aux_len;
    void* mmem;        // mapped memory to read into or write from
    size_t mmlen;
    unsigned mmem_out : 1;  // mmem is the source (set) or the destination
    fdio_inproc inproc;
};

// -1: the default size; 0 or less: nothing; else set_trf_bufsize.
int fdio_init(ssize_t bufsize);
int set_trf_bufsize(size_t newsize);
size_t get_trf_bufsize();
void fdio_destroy();

ssize_t nread(int fd, char* buf, size_t count, uint32_t flags);
ssize_t nwrite(int fd, const char* buf, size_t count, uint32_t flags);
ssize_t npread(int fd, char* buf, size_t count, off_t offset, uint32_t flags);
ssize_t nsendfile(int out_fd, int in_fd, off_t* offset, size_t count, int bsd_flags, uint32_t flags);
int use_sendfile(uint32_t fdio_flags, int* bsd_flags);

transfer_spec* new_transfer_spec(int in_fd, int out_fd, off_t* offset, uint32_t* flags, void* aux, ssize_t aux_len);
int open_src_file(const char* fpath);
int open_dst_file(const char* fpath, uint32_t flags);
// Why check_can_sendfile says no.
constexpr int SF_SRC_NOTREG = 1;     // the source is no regular file
constexpr int SF_DST_NOTSOCK = 2;    // the destination is no socket
constexpr int SF_DST_NOTSTREAM = 3;  // the destination is no stream socket

// 0 and FDIO_SENDFILE set when sendfile can serve, else an SF_ code.
int check_can_sendfile(mode_t src_mode, mode_t dst_mode, int dst_socktype, uint32_t* flags);

// One step; 0, or -1 for a real failure. *tbytes: the bytes moved.
int transfer(transfer_spec* tsp, size_t count, ssize_t* tbytes);
ssize_t transfer_out(transfer_spec* tsp, const char* src, size_t count);

ssize_t send_fd(int dst_fd, void* ptr, size_t nbytes, int sendfd);
ssize_t recv_fd(int src_fd, void* ptr, size_t nbytes, int* recvfd, uint32_t fdio_flags);

// -1 for a failure or an invalid descriptor, 0 when ready, 1 otherwise.
int wait_to_read(int sockfd, int tmout);
int wait_to_write(int sockfd, int tmout);
// The revents, or -1.
int poll_on_socket(int sockfd, short events, int tmout);
// 0 when fd is readable and a read of it worked; else the wait's result or -1.
int test_read_fd(int fd, int tmout);
