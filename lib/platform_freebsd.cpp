// FreeBSD side of the platform seam.
#include "platform.h"

#include <sys/param.h>
#include <sys/cpuset.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/sysctl.h>
#include <sys/user.h>
#include <stdlib.h>
#include <assert.h>
#include <errno.h>
#include <getopt.h>
#include <unistd.h>

#ifndef VRX_BUILD_SYSTEM
#define VRX_BUILD_SYSTEM "FreeBSD"
#endif

const char* plat_build_system()
{
    return VRX_BUILD_SYSTEM;
}

void plat_assert_fail(const char* func, const char* file, int line, const char* expr)
{
    __assert(func, file, line, expr);
    __builtin_unreachable();
}

void plat_getopt_reset()
{
    optreset = 1;
    optind = 1;
}

void* plat_mmap_low(size_t len)
{
    return mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANON | MAP_32BIT, -1, 0);
}

int plat_pin_to_cpu(int cpunum)
{
    cpuset_t mask;
    CPU_ZERO(&mask);
    CPU_SET(cpunum, &mask);
    return cpuset_setaffinity(CPU_LEVEL_WHICH, CPU_WHICH_PID, getpid(), sizeof(mask), &mask);
}

static_assert(sizeof(sf_hdtr_t) == sizeof(struct sf_hdtr));

int plat_sendfile(int in_fd, int out_fd, off_t offset, size_t count, sf_hdtr_t* hdtr, off_t* sbytes,
                  int flags)
{
    return sendfile(in_fd, out_fd, offset, count, reinterpret_cast<struct sf_hdtr*>(hdtr), sbytes,
                    flags);
}

// Sockets and multicast.
#include <sys/time.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

// IPV6_V6ONLY is on by default here: nothing to set.
int plat_sock_defaults(int fd, int family)
{
    (void)fd;
    (void)family;
    return 0;
}

// A socket gets only the groups it joined itself: nothing to set.
int plat_mcast_reader_opts(int fd, int family)
{
    (void)fd;
    (void)family;
    return 0;
}

uint32_t plat_ipv6_scope_id(uint32_t found, const char* ifc_name)
{
    (void)ifc_name;
    return found;
}

int plat_tcp_nopush(int fd, int is_on)
{
    return setsockopt(fd, IPPROTO_TCP, TCP_NOPUSH, &is_on, sizeof(is_on));
}

// No way past kern.ipc.maxsockbuf from a socket option: SO_RCVBUF alone.
int plat_sock_rcvbuf_force(int fd, int length)
{
    (void)fd;
    (void)length;
    errno = ENOPROTOOPT;
    return -1;
}

// SO_RCVBUF reports what was granted, as it was asked.
long plat_sock_rcvbuf_granted(int fd)
{
    int v = 0;
    socklen_t len = sizeof(v);
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &v, &len) != 0)
        return -1;
    return v;
}

// A negative time-out is refused with EDOM by the system itself.
void plat_sock_timeout_value(timeval* tv)
{
    (void)tv;
}

// The resolver refuses a numeric service above 65535 itself.
int plat_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** res)
{
    return getaddrinfo(node, service, hints, res);
}

// FreeBSD has no file system of shared-memory objects: the kernel lists them
// through kern.ipc.posix_shm_list, one kinfo_file record each.
int plat_shm_names(void (*fn)(const char* name, void* arg), void* arg)
{
    size_t len = 0;
    if (sysctlbyname("kern.ipc.posix_shm_list", nullptr, &len, nullptr, 0) != 0)
        return -1;
    len = len * 4 / 3;  // room for objects made meanwhile
    char* buf = static_cast<char*>(malloc(len));
    if (buf == nullptr)
        return -1;
    if (sysctlbyname("kern.ipc.posix_shm_list", buf, &len, nullptr, 0) != 0) {
        free(buf);
        return -1;
    }
    for (size_t off = 0; off < len;) {
        const kinfo_file* kf = reinterpret_cast<const kinfo_file*>(buf + off);
        if (kf->kf_structsize <= 0)
            break;
        fn(kf->kf_path[0] == '/' ? kf->kf_path + 1 : kf->kf_path, arg);
        off += (size_t)kf->kf_structsize;
    }
    free(buf);
    return 0;
}

// FreeBSD has no /proc by default: the kernel tells a process's executable
// and arguments through kern.proc.pathname and kern.proc.args.
int plat_proc_image(pid_t pid, char* exe, size_t exelen, char* args, size_t argslen, size_t* nargs)
{
    int mib[4] = {CTL_KERN, KERN_PROC, KERN_PROC_PATHNAME, (int)pid};
    size_t len = exelen;
    if (sysctl(mib, 4, exe, &len, nullptr, 0) != 0)
        return -1;
    exe[exelen - 1] = '\0';
    mib[2] = KERN_PROC_ARGS;
    len = argslen;
    if (sysctl(mib, 4, args, &len, nullptr, 0) != 0 && errno != ENOMEM)
        return -1;
    *nargs = len;
    return 0;
}
