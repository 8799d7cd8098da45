// The benchmarks' entry: the logger set up as the tool sets it, then the runner.
#include <benchmark/benchmark.h>

#include "log.h"

int main(int argc, char** argv)
{
    glog_init("bench");
    log_default(&g_log, stderr);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
