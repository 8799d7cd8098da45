// Events through the loop with 1, 100 and 1000 registered sockets of which
// one is active: the cost of a pass must not grow with idle descriptors.
#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "log.h"
#include "rqs.h"

namespace {

int g_reads = 0;

int on_read(int fd, uint32_t, void*, void*)
{
    char b;
    (void)!read(fd, &b, 1);
    ++g_reads;
    return 0;
}

// One pass a call: the idle call ends the loop.
int end_pass()
{
    return 1;
}

void BM_LoopPassOneActive(benchmark::State& state)
{
    const int total = (int)state.range(0);
    for (int& l : g_mod_ll)
        l = ERR_level;
    rqs_config cfg{};
    cfg.cb.read = on_read;
    cfg.cb.on_idle = end_pass;
    if (rqs_init(&cfg) != 0) {
        state.SkipWithError("rqs_init failed");
        return;
    }
    std::vector<int> fds;
    int active_w = -1;
    for (int i = 0; i < total; ++i) {
        int sp[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sp) != 0) {
            state.SkipWithError("socketpair failed (descriptor limit?)");
            break;
        }
        fds.push_back(sp[0]);
        fds.push_back(sp[1]);
        rqs_add_reader(sp[0], nullptr);
        if (i == total / 2)
            active_w = sp[1];
    }
    g_reads = 0;
    for (auto _ : state) {
        (void)!write(active_w, "x", 1);
        rqs_event_loop();
    }
    if (g_reads != (int)state.iterations())
        state.SkipWithError("an event was lost");
    state.SetItemsProcessed((int64_t)state.iterations());
    rqs_destroy();
    for (int fd : fds)
        close(fd);
}
BENCHMARK(BM_LoopPassOneActive)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace
