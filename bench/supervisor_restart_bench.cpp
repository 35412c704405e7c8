// bench_supervisor_restart: the restart latency of the real program.
//
// QoWatchDog.exe runs as the Product Adapter starts it: "QoWatchDog.exe <pid of test_parent.exe>",
// in the platform directory, with SetStartEvent=1 set before. It finds Wine's one session and starts
// QoSessionAgent.exe there. Each round ends that agent with exit code 1 (a crash) and takes the time
// from its end to the start of the replacement; the alternate rounds are the same bare
// create-and-wait reference as bench_restart. At the end the supervisor is terminated properly.
//
//   bench_supervisor_restart [--rounds 50] [--warmup 3]
#include <windows.h>

#include <cstdio>

#include "BenchSupport.h"
#include "LogReader.h"
#include "WinTestEnv.h"

namespace {

using qobench::Fail;
using qobench::Format;
using qobench::Say;

int Run(int rounds, int warmup) {
    qobench::ResetMachine();
    if (!qobench::InstallExitingAgent()) {
        Fail("cannot install QoSessionAgent_exit0.exe");
    }

    qobench::StartCounter started;
    qobench::Supervisor supervisor;
    supervisor.Start(started);
    const qobench::RestartRun run =
        qobench::MeasureRestarts(rounds, warmup, supervisor.firstAgentPid(), started,
                                 [](DWORD ended) { return qobench::FindInstalledAgent(ended); });
    supervisor.Shutdown();

    const qotest::LogFile log = qotest::LogFile::Read(qotest::WatchDogLogPath());
    const size_t crashes = log.CountPrefix("Session agent exits, graceful=0,");
    if (crashes != static_cast<size_t>(rounds + warmup)) {
        Fail(Format("the log shows %lu crashes for %d rounds", static_cast<unsigned long>(crashes),
                    rounds + warmup));
    }

    Say("Agent restart latency, real QoWatchDog.exe as supervisor (agent ends with exit code 1)");
    qobench::ReportRestarts(run);
    qobench::ResetMachine();
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    return qobench::RestartMain(argc, argv, "bench_supervisor_restart", Run);
}
