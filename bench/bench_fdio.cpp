// A file to a stream socket: transfer through the shared buffer, transfer
// by sendfile, and cat as the floor, each with a reader draining the other
// end of a socket pair.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <string>
#include <thread>

#include "fdio.h"
#include "log.h"

namespace {

constexpr size_t kFile = 64 << 20;

const std::string& source_file()
{
    static std::string path;
    if (path.empty()) {
        char tmpl[] = "/dev/shm/kst-bench-fdio-XXXXXX";
        const int fd = mkstemp(tmpl);
        std::string block(1 << 20, 'k');
        for (size_t done = 0; done < kFile; done += block.size())
            (void)!write(fd, block.data(), block.size());
        close(fd);
        path = tmpl;
        atexit([] { unlink(path.c_str()); });
    }
    return path;
}

size_t drain(int fd)
{
    static char buf[1 << 20];
    size_t total = 0;
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0)
        total += (size_t)n;
    return total;
}

void BM_FileToSocket(benchmark::State& state)
{
    const bool by_sendfile = state.range(0) != 0;
    for (int& l : g_mod_ll)
        l = ERR_level;
    fdio_init(-1);
    for (auto _ : state) {
        int sp[2];
        socketpair(AF_UNIX, SOCK_STREAM, 0, sp);
        size_t got = 0;
        std::thread reader([&] { got = drain(sp[1]); });
        const int in = open_src_file(source_file().c_str());
        off_t offset = 0;
        uint32_t flags = by_sendfile ? FDIO_SENDFILE : 0;
        transfer_spec tsp{};
        tsp.in_fd = in;
        tsp.out_fd = sp[0];
        tsp.offset = &offset;
        tsp.flags = &flags;
        while (!(flags & FDIO_EOF))
            if (transfer(&tsp, 0, nullptr) != 0)
                break;
        close(sp[0]);
        reader.join();
        close(sp[1]);
        close(in);
        if (got != kFile)
            state.SkipWithError("short transfer");
    }
    state.SetBytesProcessed((int64_t)(state.iterations() * kFile));
    state.SetLabel(by_sendfile ? "sendfile" : "buffer");
    fdio_destroy();
}
BENCHMARK(BM_FileToSocket)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CatFloor(benchmark::State& state)
{
    for (auto _ : state) {
        int sp[2];
        socketpair(AF_UNIX, SOCK_STREAM, 0, sp);
        size_t got = 0;
        std::thread reader([&] { got = drain(sp[1]); });
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(sp[0], 1);
            execlp("cat", "cat", source_file().c_str(), (char*)nullptr);
            _exit(127);
        }
        close(sp[0]);
        waitpid(pid, nullptr, 0);
        reader.join();
        close(sp[1]);
        if (got != kFile)
            state.SkipWithError("short cat");
    }
    state.SetBytesProcessed((int64_t)(state.iterations() * kFile));
}
BENCHMARK(BM_CatFloor)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
