// The HTTP head reader: a web server's answer to the one GET, read from a
// socket as the source handle reads it.
#include <sys/socket.h>
#include <unistd.h>
#include <cstddef>
#include <cstdint>

#include "fuzz_support.h"
#include "wopen_http.h"

namespace {

const fuzz_expected_assert k_expected[] = {{nullptr, nullptr, nullptr}};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_quiet_logs();
    g_fuzz_expected = k_expected;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 100000)
        return 0;  // more than a socket's buffer holds without a reader
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
        return 0;
    const int buf = 262144;
    (void)setsockopt(sv[1], SOL_SOCKET, SO_SNDBUF, &buf, sizeof(buf));
    (void)setsockopt(sv[0], SOL_SOCKET, SO_RCVBUF, &buf, sizeof(buf));
    size_t done = 0;
    while (done < size) {
        const ssize_t n = write(sv[1], data + done, size - done);
        if (n <= 0)
            break;
        done += (size_t)n;
    }
    shutdown(sv[1], SHUT_WR);
    static char tail[2048];
    size_t tail_size = 0;
    FUZZ_GUARD();
    (void)get_http_response(sv[0], tail, sizeof(tail), &tail_size);
    FUZZ_DONE();
    close(sv[0]);
    close(sv[1]);
    return 0;
}
