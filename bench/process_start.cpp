// What one foreground command costs the daemon on this machine: start /bin/true and wait for it, the way the
// command runner does (fork, execvp, waitpid), and the same with posix_spawnp, which does not copy the caller's
// page tables. gwconfd runs four such commands before its last object is registered, so the start-up figure of
// bench_daemon is about its own work plus four of these.
#include "bench_util.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

char arg0[] = "true";
char *const kArgv[] = {arg0, nullptr};

template <class Start> void run(benchmark::State &state, Start start)
{
    std::vector<double> ms;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        const pid_t pid = start();
        int status = 0;
        if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("/bin/true did not run");
            break;
        }
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    }
    state.counters["p50_ms"] = gwbench::quantile(ms, 0.5);
}

void BM_ForkExecWait(benchmark::State &state)
{
    run(state, [] {
        const pid_t pid = fork();
        if (pid == 0) {
            execvp("/bin/true", kArgv);
            _exit(127);
        }
        return pid;
    });
}

void BM_PosixSpawnWait(benchmark::State &state)
{
    run(state, [] {
        pid_t pid = -1;
        return posix_spawnp(&pid, "/bin/true", nullptr, nullptr, kArgv, environ) == 0 ? pid : -1;
    });
}

BENCHMARK(BM_ForkExecWait)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(100);
BENCHMARK(BM_PosixSpawnWait)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(100);

} // namespace

BENCHMARK_MAIN();
