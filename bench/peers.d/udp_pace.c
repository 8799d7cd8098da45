/* Plays a file of 1316-byte datagrams to a UDP address at a fixed bit rate,
 * over and over, for a given time; prints how many it sent and how many the
 * system refused. Paced by the monotonic clock: when behind it sends, when
 * ahead it sleeps, so the stream is as even as one core allows. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define DGRAM 1316

static double now_s(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec * 1e-9;
}

int main(int argc, char** argv)
{
    if (argc != 6) {
        fprintf(stderr, "usage: udp_pace FILE ADDR PORT MBITS SECONDS\n");
        return 1;
    }
    const int fd = open(argv[1], O_RDONLY);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || st.st_size < DGRAM) {
        perror(argv[1]);
        return 1;
    }
    const size_t ndg = (size_t)st.st_size / DGRAM;
    uint8_t* data = malloc(ndg * DGRAM);
    if (data == NULL || read(fd, data, ndg * DGRAM) != (ssize_t)(ndg * DGRAM)) {
        perror("read");
        return 1;
    }
    close(fd);

    const int s = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in to = {0};
    to.sin_family = AF_INET;
    to.sin_port = htons((uint16_t)atoi(argv[3]));
    inet_pton(AF_INET, argv[2], &to.sin_addr);
    const int sndbuf = 4 << 20;
    setsockopt(s, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof(sndbuf));

    const double rate = atof(argv[4]) * 1e6 / (8.0 * DGRAM); /* datagrams a second */
    const double seconds = atof(argv[5]);
    const uint64_t total = (uint64_t)(rate * seconds);
    uint64_t sent = 0, refused = 0;
    const double t0 = now_s();
    while (sent + refused < total) {
        const double due = (double)(sent + refused) / rate;
        const double late = now_s() - t0 - due;
        if (late < 0) {
            const struct timespec ts = {0, (long)(-late * 1e9)};
            nanosleep(&ts, NULL);
            continue;
        }
        const uint8_t* p = data + ((sent + refused) % ndg) * DGRAM;
        if (sendto(s, p, DGRAM, 0, (struct sockaddr*)&to, sizeof(to)) == DGRAM)
            ++sent;
        else
            ++refused;
    }
    printf("%llu %llu %.3f\n", (unsigned long long)sent, (unsigned long long)refused, now_s() - t0);
    return 0;
}
