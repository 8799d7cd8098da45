// FreeBSD side of the platform seam.
#include "platform.h"

#include <sys/param.h>
#include <sys/cpuset.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <assert.h>
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
