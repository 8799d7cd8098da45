// Every difference between the platforms we run on stands behind one of
// these functions; each platform has one file of its own (lib/platform_*.cpp),
// picked by the build.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>
#include <cstddef>

// Text naming the platform this binary was built for, e.g. "Linux 6.1 (x86_64)".
const char* plat_build_system();

// Prints "Assertion failed: (%s), function %s, file %s, line %d.\n" to
// standard error and aborts: one form of failed assertion on every platform.
[[noreturn]] void plat_assert_fail(const char* func, const char* file, int line, const char* expr);

// Makes getopt_long start over on the same arguments.
void plat_getopt_reset();

// Maps len bytes of private anonymous memory in the low part of the
// address space; MAP_FAILED with errno on failure.
void* plat_mmap_low(size_t len);

// Calls fn with the name of each POSIX shared-memory object of the system,
// without its leading slash. 0, or -1 with errno.
int plat_shm_names(void (*fn)(const char* name, void* arg), void* arg);

// What process pid runs: the path of its executable in exe (exelen bytes)
// and its arguments, each ending in a zero byte, in args (argslen bytes;
// *nargs gets the bytes used, arguments that don't fit are cut off). 0, or
// -1 with errno (ESRCH for no such process, EACCES for another user's).
int plat_proc_image(pid_t pid, char* exe, size_t exelen, char* args, size_t argslen, size_t* nargs);

// Binds the process to one processor; 0 or -1 with errno.
int plat_pin_to_cpu(int cpunum);

// Header and trailer vectors sent around a file by plat_sendfile; the layout
// of the BSD struct sf_hdtr.
struct sf_hdtr_t {
    iovec* headers;
    int hdr_cnt;
    iovec* trailers;
    int trl_cnt;
};

// The BSD form of sendfile: headers, then count bytes of in_fd from offset
// (0 = up to its end), then trailers, all to out_fd. 0 on success, else -1
// with errno. *sbytes (if given) receives the bytes sent either way, so a
// non-blocking send that moved only part reads -1, EAGAIN, *sbytes > 0.
int plat_sendfile(int in_fd, int out_fd, off_t offset, size_t count, sf_hdtr_t* hdtr, off_t* sbytes,
                  int flags);

// Sockets and multicast.
#include <sys/time.h>
#include <netdb.h>
#include <cstdint>

// What every new socket of the family gets right after it is made, so that
// sockets start out alike on every platform: an IPv6 socket serves IPv6
// only. 0, or -1 with errno.
int plat_sock_defaults(int fd, int family);

// Options of a socket that receives a multicast group: it gets the groups
// it joined itself and no other. 0, or -1 with errno.
int plat_mcast_reader_opts(int fd, int family);

// The scope id a link- or interface-local group gets from the interface
// named ifc_name, given the one found with the interface's address (0 when
// that address had none).
uint32_t plat_ipv6_scope_id(uint32_t found, const char* ifc_name);

// Sets a socket's receive buffer beyond the system's ceiling, where the
// process may: 0, or -1 with errno (EPERM where it may not, ENOPROTOOPT where
// the platform has no such way).
int plat_sock_rcvbuf_force(int fd, int length);

// The receive buffer a socket has, in the measure it was asked in; -1 with errno.
long plat_sock_rcvbuf_granted(int fd);

// TCP_NOPUSH: hold partial segments while on. 0, or -1 with errno.
int plat_tcp_nopush(int fd, int is_on);

// Makes a negative socket time-out one that setsockopt refuses with EDOM.
void plat_sock_timeout_value(timeval* tv);

// getaddrinfo, with a numeric service above 65535 refused by EAI_SERVICE
// on every platform.
int plat_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** res);
