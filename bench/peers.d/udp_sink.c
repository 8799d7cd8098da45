/* The floor: a bare loop of recv into one buffer, nothing else, until
 * SIGTERM; prints how many datagrams it received. With a third argument it
 * first asks for a receive buffer of that many KiB, as the peers do. */
#include <arpa/inet.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

static volatile sig_atomic_t quit = 0;

static void on_term(int sig)
{
    (void)sig;
    quit = 1;
}

int main(int argc, char** argv)
{
    if (argc != 3 && argc != 4) {
        fprintf(stderr, "usage: udp_sink ADDR PORT [RCVBUF_KB]\n");
        return 1;
    }
    struct sigaction sa = {0};
    sa.sa_handler = on_term; /* no SA_RESTART: the recv returns */
    sigaction(SIGTERM, &sa, NULL);
    const int s = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in at = {0};
    at.sin_family = AF_INET;
    at.sin_port = htons((uint16_t)atoi(argv[2]));
    inet_pton(AF_INET, argv[1], &at.sin_addr);
    if (argc == 4) {
        const int want = atoi(argv[3]) * 1024;
        if (setsockopt(s, SOL_SOCKET, SO_RCVBUF, &want, sizeof(want)) != 0) {
            perror("SO_RCVBUF");
            return 1;
        }
    }
    if (bind(s, (struct sockaddr*)&at, sizeof(at)) != 0) {
        perror("bind");
        return 1;
    }
    static uint8_t buf[65536];
    uint64_t n = 0;
    while (!quit)
        if (recv(s, buf, sizeof(buf), 0) > 0)
            ++n;
    printf("%llu\n", (unsigned long long)n);
    return 0;
}
