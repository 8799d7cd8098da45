// Linux side of the platform seam.
#include "platform.h"

#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/uio.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#ifndef VRX_BUILD_SYSTEM
#define VRX_BUILD_SYSTEM "Linux"
#endif

const char* plat_build_system()
{
    return VRX_BUILD_SYSTEM;
}

// glibc's own __assert takes three arguments and prints another form; ours
// prints the form operators know from the target platform.
void plat_assert_fail(const char* func, const char* file, int line, const char* expr)
{
    fprintf(stderr, "Assertion failed: (%s), function %s, file %s, line %d.\n", expr, func, file,
            line);
    fflush(stderr);
    abort();
}

// glibc has no optreset: an optind of 0 makes getopt_long reinitialise fully.
void plat_getopt_reset()
{
    optind = 0;
}

// No cpuset_setaffinity here: sched_setaffinity on the own process does it.
// MAP_32BIT: the first two GiB, as the target's flag of the same name.
void* plat_mmap_low(size_t len)
{
    return mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
}

int plat_pin_to_cpu(int cpunum)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpunum, &set);
    return sched_setaffinity(0, sizeof(set), &set);
}

// Writes the whole vector, resuming after short writes without touching the
// caller's entries; counts what went out into *sent.
static int plat_writev_all(int fd, const iovec* iov, int cnt, off_t* sent)
{
    int i = 0;
    size_t skip = 0;  // bytes of iov[i] already out
    while (i < cnt) {
        ssize_t n;
        if (skip > 0)
            n = write(fd, static_cast<const char*>(iov[i].iov_base) + skip, iov[i].iov_len - skip);
        else
            n = writev(fd, iov + i, cnt - i < IOV_MAX ? cnt - i : IOV_MAX);
        if (n < 0)
            return -1;
        if (n == 0 && (skip > 0 || iov[i].iov_len > 0)) {
            errno = EIO;  // a descriptor that takes nothing would hold us here for good
            return -1;
        }
        *sent += n;
        size_t left = static_cast<size_t>(n);
        while (i < cnt && left >= iov[i].iov_len - skip) {
            left -= iov[i].iov_len - skip;
            skip = 0;
            ++i;
        }
        skip += left;
    }
    return 0;
}

// Linux has sendfile(out, in, &off, count) only: headers and trailers go by
// writev, and the offset is our own copy so the caller's value never moves.
// There is no counterpart to the BSD flags (SF_NODISKIO ...); they are ignored.
int plat_sendfile(int in_fd, int out_fd, off_t offset, size_t count, sf_hdtr_t* hdtr, off_t* sbytes,
                  int flags)
{
    (void)flags;
    // The largest transfer Linux makes in one call.
    constexpr size_t chunk_max = 0x7ffff000;
    off_t sent = 0;
    int rc = 0;

    if (hdtr && hdtr->headers && hdtr->hdr_cnt > 0)
        rc = plat_writev_all(out_fd, hdtr->headers, hdtr->hdr_cnt, &sent);

    off_t off = offset;
    size_t left = count;  // 0: up to the end of in_fd
    while (rc == 0 && (count == 0 || left > 0)) {
        const size_t want = (count == 0 || left > chunk_max) ? chunk_max : left;
        const ssize_t n = sendfile(out_fd, in_fd, &off, want);
        if (n < 0)
            rc = -1;
        else if (n == 0)
            break;  // end of file
        else {
            sent += n;
            if (count != 0)
                left -= static_cast<size_t>(n);
        }
    }

    if (rc == 0 && hdtr && hdtr->trailers && hdtr->trl_cnt > 0)
        rc = plat_writev_all(out_fd, hdtr->trailers, hdtr->trl_cnt, &sent);

    if (sbytes)
        *sbytes = sent;
    return rc;
}

// Sockets and multicast.
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

// IPV6_V6ONLY is off by default here and on at the target: turned on first
// thing, a listener's switch to dual stack behaves and logs alike on both.
int plat_sock_defaults(int fd, int family)
{
    if (family != AF_INET6)
        return 0;
    const int on = 1;
    return setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
}

// IP_MULTICAST_ALL and IPV6_MULTICAST_ALL are on by default: a socket bound
// to group:port would get that group from every interface that any socket of
// the host joined it on. Off, it gets only its own memberships.
int plat_mcast_reader_opts(int fd, int family)
{
    const int off = 0;
    if (family == AF_INET)
        return setsockopt(fd, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof(off));
    if (family == AF_INET6)
        return setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_ALL, &off, sizeof(off));
    return 0;
}

// getifaddrs lists an interface's global (or loopback) IPv6 address before
// its link-local one, so the address found mostly has no scope id; binding a
// link-local group needs one, and the interface index is that id.
uint32_t plat_ipv6_scope_id(uint32_t found, const char* ifc_name)
{
    if (found != 0 || ifc_name == nullptr || ifc_name[0] == '\0')
        return found;
    return if_nametoindex(ifc_name);
}

// No TCP_NOPUSH here: TCP_CORK holds partial segments the same way.
int plat_tcp_nopush(int fd, int is_on)
{
    return setsockopt(fd, IPPROTO_TCP, TCP_CORK, &is_on, sizeof(is_on));
}

// SO_RCVBUF is capped silently by net.core.rmem_max; the super-user can go
// past it with SO_RCVBUFFORCE.
int plat_sock_rcvbuf_force(int fd, int length)
{
    return setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &length, sizeof(length));
}

// The kernel doubles what it is asked for (room for its own bookkeeping)
// and reports the doubled value: halved, it reads in the caller's measure.
long plat_sock_rcvbuf_granted(int fd)
{
    int v = 0;
    socklen_t len = sizeof(v);
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &v, &len) != 0)
        return -1;
    return v / 2;
}

// SO_RCVTIMEO and SO_SNDTIMEO with a negative whole-second part are taken
// here as no time-out at all; a negative fraction is refused with EDOM, as
// the target refuses every negative time-out.
void plat_sock_timeout_value(timeval* tv)
{
    if (tv->tv_sec < 0 && tv->tv_usec == 0)
        tv->tv_usec = -1;
}

// The resolver here reads a numeric service of any size and keeps its low 16
// bits, so port 70000 would quietly be port 4464. The target's resolver
// refuses it with EAI_SERVICE; so does this one, before asking.
int plat_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** res)
{
    if (service != nullptr && service[0] != '\0') {
        const int err = errno;
        char* end = nullptr;
        errno = 0;
        const unsigned long num = strtoul(service, &end, 10);
        const bool out_of_range = *end == '\0' && (num > 65535 || errno == ERANGE);
        errno = err;
        if (out_of_range)
            return EAI_SERVICE;
    }
    return getaddrinfo(node, service, hints, res);
}

// Linux shows its shared-memory objects as the files of /dev/shm.
int plat_shm_names(void (*fn)(const char* name, void* arg), void* arg)
{
    DIR* d = opendir("/dev/shm");
    if (d == nullptr)
        return -1;
    while (const dirent* e = readdir(d)) {
        if (e->d_name[0] != '.')
            fn(e->d_name, arg);
    }
    closedir(d);
    return 0;
}

// /proc/PID/exe names the file the process was started from (with
// " (deleted)" behind it once that file is gone); /proc/PID/cmdline holds
// the arguments as the process has them.
int plat_proc_image(pid_t pid, char* exe, size_t exelen, char* args, size_t argslen, size_t* nargs)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/exe", (int)pid);
    const ssize_t n = readlink(path, exe, exelen - 1);
    if (n < 0) {
        if (errno == ENOENT)
            errno = ESRCH;  // as the other platforms say it
        return -1;
    }
    exe[n] = '\0';
    snprintf(path, sizeof(path), "/proc/%d/cmdline", (int)pid);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    size_t got = 0;
    while (got < argslen) {
        const ssize_t r = read(fd, args + got, argslen - got);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        got += (size_t)r;
    }
    close(fd);
    *nargs = got;
    return 0;
}
