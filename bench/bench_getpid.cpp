// One process lookup by name against the same question asked of pgrep (spawned and reaped), on
// the same machine with the same name. Compare the medians of the two (wall time: pgrep works
// in a child process).
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fcntl.h>

#include <cstdio>
#include <cstdlib>

#include "platform/linux/GetPID.h"

extern char** environ;

namespace {

// A common name; the whole table is read whether or not it matches.
constexpr const char* kName = "bash";

void BM_GetAllPIDsForProcessName(benchmark::State& state) {
    int32_t pids[3];
    uint32_t count = 0;
    for (auto _ : state) {
        const int rc = lumerix::GetAllPIDsForProcessName(kName, 0, pids, 3, &count, nullptr);
        benchmark::DoNotOptimize(rc);
        benchmark::DoNotOptimize(count);
    }
}
BENCHMARK(BM_GetAllPIDsForProcessName)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_PgrepExact(benchmark::State& state) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    char arg0[] = "pgrep";
    char arg1[] = "-x";
    char arg2[16];
    std::snprintf(arg2, sizeof arg2, "%s", kName);
    char* argv[] = {arg0, arg1, arg2, nullptr};
    for (auto _ : state) {
        pid_t pid = 0;
        if (posix_spawnp(&pid, "pgrep", &actions, nullptr, argv, environ) != 0) {
            state.SkipWithError("pgrep could not be started");
            break;
        }
        int status = 0;
        waitpid(pid, &status, 0);
        benchmark::DoNotOptimize(status);
    }
    posix_spawn_file_actions_destroy(&actions);
}
BENCHMARK(BM_PgrepExact)->Unit(benchmark::kMicrosecond)->UseRealTime();  // the work is in the child

}  // namespace

BENCHMARK_MAIN();
